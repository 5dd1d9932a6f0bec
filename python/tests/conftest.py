"""Fixtures: the simulated device on a pseudo-terminal (QUELWORKS_DEVSIM names the program)."""

import os
import signal
import subprocess
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), ".."))


class Device:
    def __init__(self, tmp_path, *options):
        program = os.environ.get("QUELWORKS_DEVSIM")
        if not program:
            pytest.skip("QUELWORKS_DEVSIM is not set (the quelworks-devsim program)")
        self.image_out = str(tmp_path / "received.bin")
        self.process = subprocess.Popen(
            [program, "--image-out", self.image_out, *options],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.port = self.process.stdout.readline().strip()
        assert self.port, "the simulated device printed no port"

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(timeout=10)


@pytest.fixture
def device_factory(tmp_path):
    started = []

    def start(*options):
        device = Device(tmp_path, *options)
        started.append(device)
        return device

    yield start
    for device in started:
        device.stop()
