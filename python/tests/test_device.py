"""The package against the simulated device: identity, a flash checked byte for byte, a time-out,
a progress callback that raises, and objects used after close."""

import os
import time

import pytest

import quelworks


def received_image(device, expected):
    """The image the device wrote, once it has finished writing it (it writes after its reply)."""
    data = None
    for _ in range(100):
        try:
            with open(device.image_out, "rb") as received:
                data = received.read()
        except FileNotFoundError:
            data = None
        if data == expected:
            break
        time.sleep(0.05)
    return data


def test_identity(device_factory):
    device = device_factory("--serial", "PY000007", "--description", "Gerät é", "--type", "0x0A02")
    with quelworks.Bootloader(device.port) as boot:
        assert boot.has_identity
        assert boot.device_type == 0x0A02
        assert boot.serial_number == "PY000007"
        assert boot.description == "Gerät é"
        assert boot.bootloader_version == 2
        assert boot.max_baud_rate == 115200
        assert not boot.in_program_mode


def test_flash_from_memory_and_file_byte_for_byte(device_factory, tmp_path):
    device = device_factory()
    image = bytes((i * 7 + 3) & 0xFF for i in range(3000))
    calls = []
    with quelworks.Bootloader(device.port, progress=lambda d, t: calls.append((d, t))) as boot:
        boot.switch_to_max_baud_rate()
        boot.enter_programming()
        assert boot.in_program_mode
        boot.flash(image)
        assert received_image(device, image) == image
        assert calls[0] == (0, 3000) and calls[-1] == (3000, 3000)
        path = tmp_path / "image.bin"
        path.write_bytes(image[::-1])
        boot.enter_programming()
        boot.flash(str(path))
        assert received_image(device, image[::-1]) == image[::-1]


def test_a_raising_progress_callback_is_reported(device_factory):
    device = device_factory()

    def progress(done, total):
        raise ValueError(f"stop at {done}")

    with quelworks.Bootloader(device.port, progress=progress) as boot:
        boot.enter_programming()
        with pytest.raises(ValueError, match="stop at 0"):
            boot.flash(b"\x01" * 600)
        # The library was not disturbed: the next call works.
        assert boot.has_identity


def test_silent_device_times_out_and_errors_carry_the_message(device_factory):
    device = device_factory("--silent")
    with quelworks.Bootloader(device.port, timeout_ms=50) as boot:
        assert not boot.has_identity
        with pytest.raises(quelworks.Error):
            boot.enter_programming()
    with quelworks.Port(device.port) as port:
        with pytest.raises(quelworks.TimeoutError):
            port.receive(1, timeout_ms=20)
    with pytest.raises(quelworks.Error) as failure:
        quelworks.Port("/nonexistent/tty")
    assert str(failure.value)


def test_objects_fail_cleanly_after_close(device_factory):
    device = device_factory()
    boot = quelworks.Bootloader(device.port, read_identity=False)
    boot.close()
    boot.close()  # closing twice is harmless
    with pytest.raises(quelworks.Error):
        boot.read_identity()
    port = quelworks.Port()
    port.close()
    with pytest.raises(quelworks.Error):
        port.send(b"x")


def test_async_link_frames_replies_and_survives_a_raising_callback(device_factory):
    device = device_factory("--type", "0x0A02")
    replies, seen = [], {}

    def on_receive(reply):
        replies.append(reply)
        seen["queue"] = link.queue_length  # calls back into the library from the link's thread
        try:
            link.close()
        except quelworks.Error as error:
            seen["close"] = error
        if len(replies) == 1:
            raise ValueError("handler failed")

    with quelworks.AsyncLink(on_receive=on_receive) as link:
        assert link.add_command(0x11, 3) and not link.add_command(0x11, 3)
        link.add_command(0x15, 3)
        link.open(device.port)
        link.send(b"\x11")
        for _ in range(200):
            if replies:
                break
            time.sleep(0.025)
        assert replies == [b"\x11\x0a\x02"]
        assert isinstance(link.callback_error, ValueError)
        assert isinstance(seen["close"], quelworks.Error) and seen["queue"] == 0
        # A zero byte inside a message goes out (the device ignores it), and a reply holding a
        # zero byte (revision 7) arrives whole; the link goes on after the handler raised.
        link.send(b"\x00\x15")
        for _ in range(200):
            if len(replies) == 2:
                break
            time.sleep(0.025)
        assert replies[1] == b"\x15\x00\x07"
        link.disconnect()
        assert not link.is_open
        with pytest.raises(quelworks.Error):
            link.send(b"\x11")
    with pytest.raises(quelworks.Error):
        link.send(b"\x11")


def test_port_lines(device_factory):
    device = device_factory("--serial", "AB\n")
    with quelworks.Port(device.port, terminator="\n") as port:
        assert port.is_open
        port.send(b"\x19")  # serial number: echo + 8 bytes, zero-padded
        assert port.receive_line() == b"\x19AB\n"
        assert port.receive_until_quiet(100) == b"\x00" * 5
        port.disconnect()
        assert not port.is_open
