"""Loading the quelworks C library and declaring the functions this package calls."""

import ctypes
import ctypes.util
import os
import sys

_NAMES = ["quelworks_c.dll"] if sys.platform == "win32" else ["libquelworks_c.so.1", "libquelworks_c.so"]


def _candidates():
    # 1. An explicit path, 2. beside the package (a wheel or a copied DLL), 3. the system's search.
    explicit = os.environ.get("QUELWORKS_LIBRARY")
    if explicit:
        yield explicit
        return
    here = os.path.dirname(os.path.abspath(__file__))
    for name in _NAMES:
        yield os.path.join(here, name)
    for name in _NAMES:
        yield name
    found = ctypes.util.find_library("quelworks_c")
    if found:
        yield found


def _load():
    errors = []
    for path in _candidates():
        try:
            return ctypes.CDLL(path)
        except OSError as error:
            errors.append(f"{path}: {error}")
    raise OSError(
        "cannot load the quelworks C library; set QUELWORKS_LIBRARY to its path.\n  "
        + "\n  ".join(errors)
    )


lib = _load()

status = ctypes.c_int32
i32 = ctypes.c_int32
u8p = ctypes.POINTER(ctypes.c_uint8)
handle = ctypes.c_void_p


class Point(ctypes.Structure):
    _fields_ = [("x", ctypes.c_float), ("y", ctypes.c_float)]


class CalibrationPoint(ctypes.Structure):
    _fields_ = [("camera", Point), ("device", Point)]


PROGRESS_FN = ctypes.CFUNCTYPE(i32, i32, i32, ctypes.c_void_p)
RECEIVE_FN = ctypes.CFUNCTYPE(None, u8p, i32, ctypes.c_void_p)
DISCONNECT_FN = ctypes.CFUNCTYPE(None, i32, ctypes.c_void_p)


def _declare(name, args, restype=status):
    function = getattr(lib, name)
    function.argtypes = args
    function.restype = restype
    return function


def _c(name):
    return getattr(lib, name)


_declare("qw_last_error_message", [], ctypes.c_char_p)
_declare("qw_status_text", [status], ctypes.c_char_p)
_declare("qw_version", [ctypes.POINTER(i32)] * 3, ctypes.c_char_p)
_declare("qw_free", [ctypes.c_void_p], None)
_declare("qw_strings_count", [handle, ctypes.POINTER(i32)])
_declare("qw_strings_get", [handle, i32, ctypes.c_char_p, i32, ctypes.POINTER(i32)])
_declare("qw_strings_free", [handle])

_declare("qw_port_new", [ctypes.POINTER(handle)])
_declare("qw_port_free", [handle])
_declare("qw_port_set_baud_rate", [handle, ctypes.c_uint32])
_declare("qw_port_set_xon_xoff", [handle, i32])
_declare("qw_port_set_line_terminator", [handle, ctypes.c_char_p])
_declare("qw_port_open", [handle, ctypes.c_char_p])
_declare("qw_port_close", [handle])
_declare("qw_port_send", [handle, ctypes.c_char_p, i32])
_declare("qw_port_receive", [handle, ctypes.c_char_p, i32, i32])
_declare("qw_port_receive_until_quiet", [handle, i32, ctypes.POINTER(u8p), ctypes.POINTER(i32)])
_declare("qw_port_is_open", [handle, ctypes.POINTER(i32)])
_declare("qw_port_receive_line", [handle, i32, ctypes.POINTER(u8p), ctypes.POINTER(i32)])
_declare("qw_port_list", [ctypes.POINTER(handle)])
_declare("qw_port_list_details", [ctypes.POINTER(i32), ctypes.POINTER(handle)])

_declare("qw_async_new", [ctypes.POINTER(handle)])
_declare("qw_async_free", [handle])
_declare("qw_async_set_baud_rate", [handle, ctypes.c_uint32])
_declare("qw_async_set_xon_xoff", [handle, i32])
_declare("qw_async_set_callbacks", [handle, RECEIVE_FN, DISCONNECT_FN, ctypes.c_void_p])
_declare("qw_async_add_command", [handle, ctypes.c_uint8, i32, ctypes.POINTER(i32)])
_declare("qw_async_delete_command", [handle, ctypes.c_uint8])
_declare("qw_async_set_terminator", [handle, ctypes.c_char_p])
_declare("qw_async_open", [handle, ctypes.c_char_p])
_declare("qw_async_close", [handle])
_declare("qw_async_is_open", [handle, ctypes.POINTER(i32)])
_declare("qw_async_send", [handle, ctypes.c_char_p, i32])
_declare("qw_async_queue_length", [handle, ctypes.POINTER(i32)])

_declare("qw_boot_new", [ctypes.c_char_p, i32, i32, ctypes.POINTER(handle)])
_declare("qw_boot_free", [handle])
_declare("qw_boot_read_identity", [handle])
_declare("qw_boot_has_identity", [handle, ctypes.POINTER(i32)])
for _field in ("device_type", "sub_device_type", "revision", "firmware_version",
               "bootloader_version", "max_baud_rate", "program_mode"):
    _declare(f"qw_boot_get_{_field}", [handle, ctypes.POINTER(i32)])
_declare("qw_boot_get_serial_number", [handle, ctypes.c_char_p, i32, ctypes.POINTER(i32)])
_declare("qw_boot_get_description", [handle, ctypes.c_char_p, i32, ctypes.POINTER(i32)])
_declare("qw_boot_switch_to_max_baud_rate", [handle])
_declare("qw_boot_enter_programming", [handle])
_declare("qw_boot_set_progress", [handle, PROGRESS_FN, ctypes.c_void_p])
_declare("qw_boot_flash_file", [handle, i32, ctypes.c_char_p])
_declare("qw_boot_flash_memory", [handle, i32, ctypes.c_char_p, i32])

_declare("qw_geo_point_in_polygon", [ctypes.POINTER(Point), i32, ctypes.c_float, ctypes.c_float,
                                     ctypes.POINTER(i32)])
_declare("qw_geo_points_in_polygon", [ctypes.POINTER(Point), i32, ctypes.POINTER(Point), i32,
                                      u8p])
_declare("qw_geo_transform", [ctypes.POINTER(CalibrationPoint), i32, ctypes.c_float,
                              ctypes.c_float, ctypes.POINTER(Point)])
_declare("qw_geo_transform_many", [ctypes.POINTER(CalibrationPoint), i32, ctypes.POINTER(Point),
                                   i32, ctypes.POINTER(Point)])
_declare("qw_transform_prepare", [ctypes.POINTER(CalibrationPoint), i32, ctypes.POINTER(handle),
                                  ctypes.POINTER(i32)])
_declare("qw_transform_map", [handle, ctypes.c_float, ctypes.c_float, ctypes.POINTER(Point)])
_declare("qw_transform_map_many", [handle, ctypes.POINTER(Point), i32, ctypes.POINTER(Point)])
_declare("qw_transform_free", [handle])

_declare("qw_ini_create", [ctypes.c_char_p])
_declare("qw_ini_get_value", [ctypes.c_char_p] * 3 + [ctypes.c_char_p, i32, ctypes.POINTER(i32)])
_declare("qw_ini_set_value", [ctypes.c_char_p] * 4)
_declare("qw_ini_record_exists", [ctypes.c_char_p] * 3 + [ctypes.POINTER(i32)])
_declare("qw_ini_delete_record", [ctypes.c_char_p] * 3)
_declare("qw_ini_delete_section", [ctypes.c_char_p] * 2)
_declare("qw_ini_section_names", [ctypes.c_char_p, ctypes.POINTER(handle)])
_declare("qw_ini_content", [ctypes.c_char_p, ctypes.c_char_p, i32, ctypes.POINTER(i32)])

_declare("qw_crc16", [ctypes.c_uint16, ctypes.c_char_p, i32, ctypes.POINTER(ctypes.c_uint16)])
