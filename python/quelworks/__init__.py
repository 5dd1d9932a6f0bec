"""Python interface to the quelworks library: serial ports, the device's bootloader (identity and
firmware update), geometry in batches, INI files and the CRC-16.

Everything goes through the library's C interface with ctypes, so the same package works on Linux
(libquelworks_c.so) and Windows (quelworks_c.dll). The library is found through the
QUELWORKS_LIBRARY environment variable, beside this package, or on the system's search path.
"""

import array as _array
import ctypes
import itertools
import os
import threading

from . import _native
from ._native import CalibrationPoint, Point, lib

__all__ = [
    "Error", "TimeoutError", "Port", "AsyncLink", "Bootloader", "IniFile", "crc16", "version", "list_ports",
    "list_port_details",
    "point_in_polygon", "points_in_polygon", "transform", "transform_many", "Transformation",
]


class Error(Exception):
    """A failed library call, with the library's own message and status code."""

    def __init__(self, message, status):
        super().__init__(message)
        self.status = status


class TimeoutError(Error):  # noqa: A001 - the library's time-out, a kind of Error
    """The device did not answer in time."""


_TIMEOUT = -3
_BUFFER_TOO_SMALL = -4


def _check(code):
    if code != 0:
        message = (lib.qw_last_error_message() or b"").decode("utf-8", "replace")
        name = lib.qw_status_text(code).decode()
        text = f"{message} ({name})" if message else name
        raise (TimeoutError if code == _TIMEOUT else Error)(text, code)


def _text(getter, *args):
    """Reads a string through the library's (buffer, size, needed) convention."""
    needed = ctypes.c_int32(0)
    code = getter(*args, None, 0, ctypes.byref(needed))
    if code not in (0, _BUFFER_TOO_SMALL):
        _check(code)
    buffer = ctypes.create_string_buffer(max(needed.value, 1))
    _check(getter(*args, buffer, len(buffer), ctypes.byref(needed)))
    return buffer.value.decode("utf-8", "replace")


def _name(path):
    return os.fsencode(path) if not isinstance(path, bytes) else path


def version():
    """The library's version as a string ("1.0.0")."""
    return lib.qw_version(None, None, None).decode()


def _strings(handle):
    try:
        count = ctypes.c_int32()
        _check(lib.qw_strings_count(handle, ctypes.byref(count)))
        return [_text(lib.qw_strings_get, handle, i) for i in range(count.value)]
    finally:
        lib.qw_strings_free(handle)


def list_ports():
    """The serial ports the system knows."""
    handle = ctypes.c_void_p()
    _check(lib.qw_port_list(ctypes.byref(handle)))
    return _strings(handle)


_PORT_FIELDS = ("name", "description", "vendor_id", "product_id", "serial_number",
                "manufacturer", "product", "location", "driver")


def list_port_details():
    """The serial ports with what the system knows about each, as dicts in the order of
    list_ports(): name, description, vendor_id and product_id (ints, None if not USB),
    serial_number, manufacturer, product, location, driver ("" where unknown)."""
    stride = ctypes.c_int32()
    handle = ctypes.c_void_p()
    _check(lib.qw_port_list_details(ctypes.byref(stride), ctypes.byref(handle)))
    items = _strings(handle)
    ports = []
    for start in range(0, len(items), stride.value):
        port = dict(zip(_PORT_FIELDS, items[start:start + len(_PORT_FIELDS)]))
        for key in ("vendor_id", "product_id"):
            port[key] = int(port[key], 16) if port[key] else None
        ports.append(port)
    return ports


def crc16(data, initial=0xFFFF):
    """CRC-16 (polynomial 0x1021, MSB first) of bytes; 0xFFFF is the device's start value."""
    data = bytes(data)
    out = ctypes.c_uint16()
    _check(lib.qw_crc16(initial, data, len(data), ctypes.byref(out)))
    return out.value


class _Handle:
    _free = None

    def __init__(self):
        self._handle = ctypes.c_void_p()

    def _h(self):
        if not self._handle:
            raise Error("the object is closed", -1)
        return self._handle

    def close(self):
        """Releases the library's object; further calls raise Error."""
        if self._handle:
            handle, self._handle = self._handle, ctypes.c_void_p()
            _check(self._free(handle))

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        try:
            self.close()
        except Exception:
            pass


class Port(_Handle):
    """A synchronous serial link. Use as a context manager: the port closes on leaving."""

    _free = staticmethod(lib.qw_port_free)

    def __init__(self, name=None, baud_rate=9600, xon_xoff=False, terminator=None):
        super().__init__()
        _check(lib.qw_port_new(ctypes.byref(self._handle)))
        _check(lib.qw_port_set_baud_rate(self._h(), baud_rate))
        _check(lib.qw_port_set_xon_xoff(self._h(), int(bool(xon_xoff))))
        if terminator is not None:
            _check(lib.qw_port_set_line_terminator(self._h(), terminator.encode()))
        if name is not None:
            self.open(name)

    def open(self, name):
        _check(lib.qw_port_open(self._h(), _name(name)))

    def send(self, data):
        data = data.encode() if isinstance(data, str) else bytes(data)
        _check(lib.qw_port_send(self._h(), data, len(data)))

    def receive(self, count, timeout_ms=1000):
        """Exactly `count` bytes; TimeoutError when they do not all come."""
        buffer = ctypes.create_string_buffer(count)
        _check(lib.qw_port_receive(self._h(), buffer, count, timeout_ms))
        return buffer.raw

    def disconnect(self):
        """Closes the port (the object stays usable; close() releases it)."""
        _check(lib.qw_port_close(self._h()))

    @property
    def is_open(self):
        value = ctypes.c_int32()
        _check(lib.qw_port_is_open(self._h(), ctypes.byref(value)))
        return bool(value.value)

    def receive_until_quiet(self, timeout_ms=100):
        """Whatever comes until the line stays quiet (possibly b"")."""
        data = _native.u8p()
        length = ctypes.c_int32()
        _check(lib.qw_port_receive_until_quiet(self._h(), timeout_ms, ctypes.byref(data),
                                               ctypes.byref(length)))
        return _take(data, length.value)

    def receive_line(self, timeout_ms=1000):
        """One line, terminator included, as bytes; TimeoutError when no full line came."""
        data = _native.u8p()
        length = ctypes.c_int32()
        _check(lib.qw_port_receive_line(self._h(), timeout_ms, ctypes.byref(data),
                                        ctypes.byref(length)))
        return _take(data, length.value)


def _take(data, length):
    try:
        return ctypes.string_at(data, length) if length else b""
    finally:
        lib.qw_free(data)


class AsyncLink(_Handle):
    """A queued serial link with a background thread: each cycle (about 50 ms) it sends at most one
    queued message and reads at most one byte. Replies are framed by the reply table (a registered
    command byte gives a reply of fixed length, any other first byte one that ends with the
    terminator) and handed to on_receive(reply_bytes); on_disconnect(code) is called when the link
    drops (0: a send failed). Both run on the link's thread. An exception they raise stays out of
    the library: the first one is kept in `callback_error` and the link goes on. A callback may call
    send and queue_length on its link, but not close it.
    """

    _free = staticmethod(lib.qw_async_free)

    def __init__(self, baud_rate=9600, xon_xoff=False, on_receive=None, on_disconnect=None):
        super().__init__()
        _check(lib.qw_async_new(ctypes.byref(self._handle)))
        _check(lib.qw_async_set_baud_rate(self._h(), baud_rate))
        _check(lib.qw_async_set_xon_xoff(self._h(), int(bool(xon_xoff))))
        self.on_receive = on_receive
        self.on_disconnect = on_disconnect
        self.callback_error = None

        self._calling_thread = None

        def received(data, length, _user):
            self._calling_thread = threading.get_ident()
            try:
                if self.on_receive is not None:
                    self.on_receive(ctypes.string_at(data, length))
            except BaseException as error:  # never into the library's thread
                if self.callback_error is None:
                    self.callback_error = error
            finally:
                self._calling_thread = None

        def disconnected(code, _user):
            self._calling_thread = threading.get_ident()
            try:
                if self.on_disconnect is not None:
                    self.on_disconnect(code)
            except BaseException as error:
                if self.callback_error is None:
                    self.callback_error = error
            finally:
                self._calling_thread = None

        # Kept on the object so the C function pointers live as long as the link.
        self._callbacks = (_native.RECEIVE_FN(received), _native.DISCONNECT_FN(disconnected))
        _check(lib.qw_async_set_callbacks(self._h(), *self._callbacks, None))

    def add_command(self, command, expected_length):
        """Registers a reply of expected_length bytes in total for a command byte; False when the
        command was registered already."""
        added = ctypes.c_int32()
        _check(lib.qw_async_add_command(self._h(), command, expected_length, ctypes.byref(added)))
        return bool(added.value)

    def delete_command(self, command):
        _check(lib.qw_async_delete_command(self._h(), command))

    def set_terminator(self, terminator):
        _check(lib.qw_async_set_terminator(self._h(), terminator.encode()))

    def open(self, name):
        _check(lib.qw_async_open(self._h(), _name(name)))

    def _refuse_from_own_callback(self):
        if self._handle and self._calling_thread == threading.get_ident():
            raise Error("a link cannot be closed from its own callback", -1)

    def disconnect(self):
        """Drops the queue, stops the thread and closes the port (the object stays usable)."""
        self._refuse_from_own_callback()
        _check(lib.qw_async_close(self._h()))

    def close(self):
        """Stops the link and releases it; further calls raise Error."""
        self._refuse_from_own_callback()
        super().close()

    @property
    def is_open(self):
        value = ctypes.c_int32()
        _check(lib.qw_async_is_open(self._h(), ctypes.byref(value)))
        return bool(value.value)

    def send(self, data):
        """Queues a copy of the bytes (or of the text as UTF-8)."""
        data = data.encode() if isinstance(data, str) else bytes(data)
        _check(lib.qw_async_send(self._h(), data, len(data)))

    @property
    def queue_length(self):
        value = ctypes.c_int32()
        _check(lib.qw_async_queue_length(self._h(), ctypes.byref(value)))
        return value.value


class Bootloader(_Handle):
    """The client of the device's bootloader on a port: identity, baud switch, firmware update.

    progress, when given, is called as progress(done, total) during a flash. An exception it raises
    does not cross the library: it is kept and raised again when the flash returns.
    """

    _free = staticmethod(lib.qw_boot_free)

    def __init__(self, port_name, timeout_ms=1000, read_identity=True, progress=None):
        super().__init__()
        _check(lib.qw_boot_new(_name(port_name), timeout_ms, int(bool(read_identity)),
                               ctypes.byref(self._handle)))
        self._progress_error = None
        self._progress = progress

        def trampoline(done, total, _user):
            if self._progress is None:
                return 0
            try:
                self._progress(done, total)
            except BaseException as error:  # kept and raised after the flash
                if self._progress_error is None:
                    self._progress_error = error
            return 0

        # Kept on the object so the C function pointer stays alive while registered.
        self._trampoline = _native.PROGRESS_FN(trampoline)
        _check(lib.qw_boot_set_progress(self._h(), self._trampoline, None))

    def read_identity(self):
        _check(lib.qw_boot_read_identity(self._h()))

    @property
    def has_identity(self):
        value = ctypes.c_int32()
        _check(lib.qw_boot_has_identity(self._h(), ctypes.byref(value)))
        return bool(value.value)

    def _int(self, field):
        value = ctypes.c_int32()
        _check(getattr(lib, f"qw_boot_get_{field}")(self._h(), ctypes.byref(value)))
        return value.value

    device_type = property(lambda self: self._int("device_type"))
    sub_device_type = property(lambda self: self._int("sub_device_type"))
    revision = property(lambda self: self._int("revision"))
    firmware_version = property(lambda self: self._int("firmware_version"))
    bootloader_version = property(lambda self: self._int("bootloader_version"))
    max_baud_rate = property(lambda self: self._int("max_baud_rate"))
    in_program_mode = property(lambda self: self._int("program_mode") == 0)
    serial_number = property(lambda self: _text(lib.qw_boot_get_serial_number, self._h()))
    description = property(lambda self: _text(lib.qw_boot_get_description, self._h()))

    def switch_to_max_baud_rate(self):
        _check(lib.qw_boot_switch_to_max_baud_rate(self._h()))

    def enter_programming(self):
        _check(lib.qw_boot_enter_programming(self._h()))

    def flash(self, image, value=0):
        """Writes a firmware image: bytes, or the path of an image file."""
        self._progress_error = None
        if isinstance(image, (bytes, bytearray, memoryview)):
            data = bytes(image)
            code = lib.qw_boot_flash_memory(self._h(), value, data, len(data))
        else:
            code = lib.qw_boot_flash_file(self._h(), value, _name(image))
        error, self._progress_error = self._progress_error, None
        if error is not None:
            raise error
        _check(code)


class IniFile:
    """Operations on one INI file (the file is read and written on every call)."""

    def __init__(self, path):
        self.path = _name(path)

    def create(self):
        _check(lib.qw_ini_create(self.path))

    def get(self, section, key, default=None):
        if not self.has(section, key):
            return default
        return _text(lib.qw_ini_get_value, self.path, section.encode(), key.encode())

    def has(self, section, key):
        exists = ctypes.c_int32()
        _check(lib.qw_ini_record_exists(self.path, section.encode(), key.encode(),
                                        ctypes.byref(exists)))
        return bool(exists.value)

    def set(self, section, key, value):
        _check(lib.qw_ini_set_value(self.path, section.encode(), key.encode(), str(value).encode()))

    def delete(self, section, key=None):
        if key is None:
            _check(lib.qw_ini_delete_section(self.path, section.encode()))
        else:
            _check(lib.qw_ini_delete_record(self.path, section.encode(), key.encode()))

    def sections(self):
        handle = ctypes.c_void_p()
        _check(lib.qw_ini_section_names(self.path, ctypes.byref(handle)))
        return _strings(handle)

    def content(self):
        return _text(lib.qw_ini_content, self.path)


def _points(values):
    """A ctypes array of Point from a sequence of (x, y) pairs or an N x 2 NumPy array."""
    try:
        import numpy  # optional

        if isinstance(values, numpy.ndarray):
            array = numpy.ascontiguousarray(values, dtype=numpy.float32).reshape(-1, 2)
            return (Point * len(array)).from_buffer_copy(array.tobytes()), len(array)
    except ImportError:
        pass
    values = list(values)
    if any(len(p) != 2 for p in values):
        raise ValueError("points must be (x, y) pairs")
    # One C loop instead of a Point object per pair; the ctypes array shares the buffer.
    flat = _array.array("f", itertools.chain.from_iterable(values))
    if not values:
        return (Point * 0)(), 0
    return (Point * len(values)).from_buffer(flat), len(values)


def point_in_polygon(polygon, x, y):
    """Whether (x, y) lies inside the polygon (edges from each vertex to the next; repeat the
    first vertex at the end to close it)."""
    poly, n = _points(polygon)
    inside = ctypes.c_int32()
    _check(lib.qw_geo_point_in_polygon(poly, n, x, y, ctypes.byref(inside)))
    return bool(inside.value)


def points_in_polygon(polygon, points):
    """The same for many points in one call: a list of bools (a NumPy bool array for NumPy input)."""
    poly, n = _points(polygon)
    pts, count = _points(points)
    inside = (ctypes.c_uint8 * max(count, 1))()
    _check(lib.qw_geo_points_in_polygon(poly, n, pts, count, inside))
    try:
        import numpy

        if isinstance(points, numpy.ndarray):
            return numpy.frombuffer(inside, dtype=numpy.uint8, count=count).astype(bool)
    except ImportError:
        pass
    return list(map(bool, bytes(inside)[:count]))


def _calibration(pairs):
    pairs = list(pairs)
    array = (CalibrationPoint * len(pairs))(
        *[CalibrationPoint(Point(*map(float, cam)), Point(*map(float, dev))) for cam, dev in pairs])
    return array, len(pairs)


def transform(calibration, x, y):
    """Camera (x, y) to device coordinates; calibration is a list of ((cx, cy), (dx, dy))."""
    cal, n = _calibration(calibration)
    out = Point()
    _check(lib.qw_geo_transform(cal, n, x, y, ctypes.byref(out)))
    return out.x, out.y


def _mapped(out, count, points):
    """The mapped points as the caller gave them: an N x 2 array for NumPy input, else a list."""
    try:
        import numpy

        if isinstance(points, numpy.ndarray):
            return numpy.frombuffer(out, dtype=numpy.float32, count=2 * count).reshape(-1, 2).copy()
    except ImportError:
        pass
    flat = _array.array("f", bytes(out)[:8 * count])
    return list(zip(flat[0::2], flat[1::2]))


class Transformation(_Handle):
    """The camera-to-device transformation prepared once from a calibration (a list of
    ((cx, cy), (dx, dy)): three points, or a k x k grid row by row), for mapping many points.
    Results are exactly those of transform(); one object may be used from several threads."""

    _free = staticmethod(lib.qw_transform_free)

    def __init__(self, calibration):
        super().__init__()
        cal, n = _calibration(calibration)
        usable = ctypes.c_int32()
        _check(lib.qw_transform_prepare(cal, n, ctypes.byref(self._handle), ctypes.byref(usable)))
        # False when the calibration's size is unusable: every point then maps to (0, 0).
        self.usable = bool(usable.value)

    def map(self, x, y):
        """Camera (x, y) to device coordinates."""
        out = Point()
        _check(lib.qw_transform_map(self._h(), x, y, ctypes.byref(out)))
        return out.x, out.y

    def map_many(self, points):
        """Many points in one call: a list of (x, y) (an N x 2 array for NumPy input)."""
        pts, count = _points(points)
        out = (Point * max(count, 1))()
        _check(lib.qw_transform_map_many(self._h(), pts, count, out))
        return _mapped(out, count, points)


def transform_many(calibration, points):
    """The same for many points in one call: a list of (x, y) (an N x 2 array for NumPy input).
    The calibration is prepared once for the call; keep a Transformation to map again."""
    with Transformation(calibration) as prepared:
        return prepared.map_many(points)
