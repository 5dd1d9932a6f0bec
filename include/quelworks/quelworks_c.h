/**
 * \file
 * quelworks_c.h: the C interface of quelworks (library quelworks_c).
 *
 * One header, valid C99 and C++, for programs in any language and built with any compiler:
 * C and C++ (Visual Studio or gcc), C# (P/Invoke), Python (ctypes), LabVIEW (Call Library
 * Function Node), Delphi. Nothing in it depends on the C++ standard library.
 *
 * CONVENTIONS
 *
 * Names. Functions are qw_<area>_<verb>; types are qw_<thing>; constants QW_<...>. Areas: port
 * (synchronous serial link), async (queued serial link), boot (bootloader client), geo (plane
 * geometry), ini (INI files), crc (CRC-16), lut (lookup table), convert (number/text),
 * strings and ini_records (result lists).
 *
 * Calling convention. Every function and every callback is QW_CALL: __cdecl on Windows (the only
 * convention on x64; on a 32-bit build it would be the C default, never __stdcall), nothing
 * elsewhere. LabVIEW: choose "C" calling convention.
 *
 * Status. Every function that can fail returns a qw_status: QW_OK (0) on success, a negative
 * QW_ERR_... code otherwise, and writes its results through out-parameters. On failure the
 * out-parameters are left unchanged unless the function says otherwise. The exceptions are the
 * few functions returning a plain value: qw_version, qw_last_error_message, qw_status_text,
 * qw_free.
 *
 * Error message. Every qw_status function sets the calling thread's last error message on
 * failure and clears it (to "") on success; qw_last_error_message() returns it. The text is
 * UTF-8 and stays valid until the next call into the library on the same thread.
 *
 * Handles. Objects (ports, links, bootloader clients, tables, result lists) are opaque handles
 * that the caller creates (`qw_<area>_new`) and destroys (`qw_<area>_free`). A handle is a token,
 * not an address: the library looks it up in a table and checks its kind, so a NULL, made-up,
 * already freed or wrong-kind handle gives QW_ERR_INVALID_ARGUMENT and never touches memory.
 * Free functions accept NULL (QW_OK, nothing done); freeing twice gives QW_ERR_INVALID_ARGUMENT
 * the second time. Handles may be passed between threads, but one handle must not be used by two
 * threads at the same time (except that freeing while another thread works on a handle is safe:
 * the object lives until that call returns).
 *
 * Lengths, counts and sizes are int32_t; a negative one gives QW_ERR_INVALID_ARGUMENT. A pointer
 * that must not be NULL and is NULL gives QW_ERR_INVALID_ARGUMENT (a NULL data pointer with a
 * length of 0 is accepted).
 *
 * Strings are UTF-8 and zero-terminated on the way in. That includes file names and port names:
 * on Windows they are converted to UTF-16 and opened through the system's wide-character calls,
 * so "C:\\Prüfung\\Gerät.ini" works whatever the ANSI code page. Binary data is a pointer and a
 * length and may hold zero bytes.
 *
 * Strings out, into a caller's buffer: functions taking (char* buffer, int32_t size,
 * int32_t* needed) write the zero-terminated text into buffer when it fits in size bytes
 * (terminator included). *needed (if needed is not NULL) always receives the size the text
 * requires, terminator included. When the buffer is too small (or NULL with size 0) nothing is
 * written and QW_ERR_BUFFER_TOO_SMALL is returned: call again with a buffer of *needed bytes.
 *
 * Library-allocated results (received data, computed arrays) are released with qw_free, never
 * with the caller's free(): on Windows the caller may use another C runtime.
 *
 * Callbacks take a `void* user` last argument that the library passes through untouched, so a
 * C# delegate, a Python callable or a C++ object can find its state. Each callback says on which
 * thread it runs. A callback may call into the library, but not free the handle that is calling
 * it. Callbacks must not throw or longjmp across the library.
 *
 * No C++ exception crosses this interface: each one is caught and turned into a status and
 * message.
 *
 * ABI RULE. The version macros below give the version of this C interface. Within one major
 * version the ABI only grows: functions, status codes, enum values and struct types may be
 * added. Removing or renaming a function, changing a parameter, a return type, the value of a
 * constant, or the layout of a struct declared here requires a new major version (and a new
 * shared-library major number: libquelworks_c.so.N). The structs here (qw_point, qw_rectf,
 * qw_segment, qw_calibration_point) are plain data and never grow.
 */
#ifndef QUELWORKS_QUELWORKS_C_H
#define QUELWORKS_QUELWORKS_C_H

#include <stddef.h>
#include <stdint.h>

/* ---- Version ---------------------------------------------------------------------------- */

/** Major version of this C interface: a new one breaks the ABI (libquelworks_c.so.N). */
#define QW_VERSION_MAJOR 1
/** Minor version: grows when functions or constants are added. */
#define QW_VERSION_MINOR 0
/** Patch version: fixes without an interface change. */
#define QW_VERSION_PATCH 0
/** The version as text, "major.minor.patch". */
#define QW_VERSION_STRING "1.0.0"
/** One number for comparisons: major * 10000 + minor * 100 + patch. */
#define QW_VERSION_NUMBER (QW_VERSION_MAJOR * 10000 + QW_VERSION_MINOR * 100 + QW_VERSION_PATCH)

/* ---- Export and calling convention ------------------------------------------------------ */

#if defined(QW_C_STATIC)
#define QW_C_API
#elif defined(_WIN32) || defined(__CYGWIN__)
#if defined(QW_C_BUILDING)
#define QW_C_API __declspec(dllexport)
#else
#define QW_C_API __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define QW_C_API __attribute__((visibility("default")))
#else
/** Marks a function of the C interface exported from quelworks_c (dllimport on Windows). */
#define QW_C_API
#endif

#if defined(_WIN32)
#define QW_CALL __cdecl
#else
/** The calling convention of every function and callback: __cdecl on Windows. */
#define QW_CALL
#endif

#ifdef __cplusplus
#define QW_BEGIN_DECL extern "C" {
#define QW_END_DECL }
#else
/** Opens the extern "C" block when compiled as C++. */
#define QW_BEGIN_DECL
/** Closes the extern "C" block when compiled as C++. */
#define QW_END_DECL
#endif

QW_BEGIN_DECL

/* ---- Status codes and errors ------------------------------------------------------------ */

/** Result of a call: QW_OK or a negative QW_ERR_ code. */
typedef int32_t qw_status;

/** Success. */
#define QW_OK 0
/** A NULL, unknown, freed or wrong-kind handle; a NULL pointer; a negative length; a value out of
 * range (also an empty polygon where one is required). */
#define QW_ERR_INVALID_ARGUMENT (-1)
/** The operation ran and did not succeed (port not opened, device refused, file not written). */
#define QW_ERR_FAILED (-2)
/** No (complete) answer within the time-out. */
#define QW_ERR_TIMEOUT (-3)
/** The caller's buffer is too small; *needed holds the size required. */
#define QW_ERR_BUFFER_TOO_SMALL (-4)
/** Out of memory. */
#define QW_ERR_NO_MEMORY (-5)
/** The information asked for is not available (device identity not read). */
#define QW_ERR_NOT_AVAILABLE (-6)
/** Malformed input file (INI line with '[' but no ']', table line without ';'). */
#define QW_ERR_FORMAT (-7)
/** A callback asked to stop. */
#define QW_ERR_CANCELLED (-8)
/** The port or link is not open. */
#define QW_ERR_NOT_OPEN (-9)
/** An unexpected internal error (the message tells more). */
#define QW_ERR_INTERNAL (-10)

/** The calling thread's last error message (UTF-8, "" after a successful call). Never NULL. */
QW_C_API const char* QW_CALL qw_last_error_message(void);
/** A short constant name for a status ("QW_OK", "QW_ERR_TIMEOUT", ...; "unknown status"). */
QW_C_API const char* QW_CALL qw_status_text(qw_status status);

/** The library's run-time version as "major.minor.patch" (static, never NULL); each non-NULL
 * pointer receives one part. Compare with QW_VERSION_MAJOR to check the loaded library. */
QW_C_API const char* QW_CALL qw_version(int32_t* major, int32_t* minor, int32_t* patch);

/** Releases a block the library allocated (received data, computed arrays). NULL is ignored. */
QW_C_API void QW_CALL qw_free(void* block);

/* ---- Callbacks ------------------------------------------------------------------------ */

/** Progress of a long operation: `done` of `total` bytes. Return 0 to go on; a non-zero
 * return stops where stopping is supported (qw_port_send), and is ignored elsewhere. */
typedef int32_t(QW_CALL* qw_progress_fn)(int32_t done, int32_t total, void* user);
/** One complete reply of an asynchronous link; `data` is valid only during the call. */
typedef void(QW_CALL* qw_receive_fn)(const uint8_t* data, int32_t length, void* user);
/** The asynchronous link was dropped: 0 = a send failed on the line. */
typedef void(QW_CALL* qw_disconnect_fn)(int32_t code, void* user);

/* ---- Result lists ----------------------------------------------------------------------- */

/** A list of strings (port names, section names). */
typedef struct qw_strings qw_strings;

/** The number of strings in the list. */
QW_C_API qw_status QW_CALL qw_strings_count(qw_strings* list, int32_t* count);
/** Item `index` (0-based) into a caller's buffer; an index out of range is
 * QW_ERR_INVALID_ARGUMENT. */
QW_C_API qw_status QW_CALL qw_strings_get(qw_strings* list, int32_t index, char* buffer,
                                          int32_t size, int32_t* needed);
/** Destroys the list (NULL is accepted). */
QW_C_API qw_status QW_CALL qw_strings_free(qw_strings* list);

/* ---- Serial port: synchronous link ------------------------------------------------------ */

/** A synchronous serial link: every call blocks the calling thread until done or timed out.
 * Line: 8 data bits, no parity, one stop bit. */
typedef struct qw_port qw_port;

/** A closed link with baud rate 9600, no XON/XOFF, line terminator "\r\n". */
QW_C_API qw_status QW_CALL qw_port_new(qw_port** port);
/** Closes the link if open and destroys it. */
QW_C_API qw_status QW_CALL qw_port_free(qw_port* port);

/** Settings; they take effect at the next qw_port_open. */
QW_C_API qw_status QW_CALL qw_port_set_baud_rate(qw_port* port, uint32_t baud_rate);
/** The baud rate set for the next qw_port_open (default 9600). */
QW_C_API qw_status QW_CALL qw_port_get_baud_rate(qw_port* port, uint32_t* baud_rate);
/** XON/XOFF flow control in both directions (non-zero: on) from the next qw_port_open. */
QW_C_API qw_status QW_CALL qw_port_set_xon_xoff(qw_port* port, int32_t enabled);
/** End of line for qw_port_receive_line (copied; must not be empty). */
QW_C_API qw_status QW_CALL qw_port_set_line_terminator(qw_port* port, const char* terminator);
/** Called on the calling thread during qw_port_send: with (offset + 1, length) before a chunk
 * once more than 1000 bytes have gone out since the last report, and with (length, length) at the
 * end. A non-zero return stops the send before the next chunk and gives QW_ERR_CANCELLED (also at
 * the end, when everything has been written). NULL removes it. */
QW_C_API qw_status QW_CALL qw_port_set_send_progress(qw_port* port, qw_progress_fn callback,
                                                     void* user);

/** Opens the named port ("COM3" or "/dev/ttyUSB0"; on Linux a name without '/' means /dev/NAME).
 * An open link is closed first. All line time-outs start at 1000 ms. */
QW_C_API qw_status QW_CALL qw_port_open(qw_port* port, const char* name);
/** Closes the port; closing a closed link is QW_OK. */
QW_C_API qw_status QW_CALL qw_port_close(qw_port* port);
/** *open is 1 when the link holds an open port, else 0. */
QW_C_API qw_status QW_CALL qw_port_is_open(qw_port* port, int32_t* open);
/** The name given to the last successful qw_port_open ("" when none). */
QW_C_API qw_status QW_CALL qw_port_get_name(qw_port* port, char* buffer, int32_t size,
                                            int32_t* needed);

/** The receive functions take a time-out of at least 1 ms (0 would wait for ever). */
QW_C_API qw_status QW_CALL qw_port_send(qw_port* port, const uint8_t* data, int32_t length);
/** Sends the text without its terminating zero. */
QW_C_API qw_status QW_CALL qw_port_send_text(qw_port* port, const char* text);
/** Reads exactly `count` bytes into `data`; each byte waits up to 2 x timeout_ms.
 * QW_ERR_TIMEOUT when they do not all come (what came is in `data`). */
QW_C_API qw_status QW_CALL qw_port_receive(qw_port* port, uint8_t* data, int32_t count,
                                           int32_t timeout_ms);
/** Collects bytes until the line stays quiet for timeout_ms; *data (release with qw_free) and
 * *length get what came, possibly nothing (then *data is NULL and *length 0). */
QW_C_API qw_status QW_CALL qw_port_receive_until_quiet(qw_port* port, int32_t timeout_ms,
                                                       uint8_t** data, int32_t* length);
/** Reads up to and including the line terminator; *line (zero-terminated, release with qw_free)
 * and *length (terminator counted, zero not). QW_ERR_TIMEOUT when no full line came (what came
 * is dropped). A zero byte on the line hides what follows it, so such a line never completes. */
QW_C_API qw_status QW_CALL qw_port_receive_line(qw_port* port, int32_t timeout_ms, char** line,
                                                int32_t* length);

/** The serial ports the system knows, in a stable order (release with qw_strings_free). */
QW_C_API qw_status QW_CALL qw_port_list(qw_strings** ports);

/** What the system knows about each listed port, as one list of strings: for each port, in the
 * order of qw_port_list, *fields_per_port consecutive items, field QW_PORT_FIELD_* of port p at
 * index p * *fields_per_port + QW_PORT_FIELD_*. Unknown fields are "". USB ids are four
 * lowercase hexadecimal digits ("0403"). Fields may be added at the end in later versions, so
 * index with the returned *fields_per_port, never a constant (release with qw_strings_free). */
QW_C_API qw_status QW_CALL qw_port_list_details(int32_t* fields_per_port, qw_strings** details);
#define QW_PORT_FIELD_NAME 0          /**< the port: "/dev/ttyUSB0", "COM3" */
#define QW_PORT_FIELD_DESCRIPTION 1   /**< "FT232R USB UART", "16550A UART" */
#define QW_PORT_FIELD_VENDOR_ID 2     /**< USB vendor id, "" if not a USB device */
#define QW_PORT_FIELD_PRODUCT_ID 3    /**< USB product id */
#define QW_PORT_FIELD_SERIAL_NUMBER 4 /**< the USB device's serial number */
#define QW_PORT_FIELD_MANUFACTURER 5  /**< the USB device's manufacturer text */
#define QW_PORT_FIELD_PRODUCT 6       /**< the USB device's product text */
#define QW_PORT_FIELD_LOCATION 7      /**< its place on the bus: "1-1.2:1.0" */
#define QW_PORT_FIELD_DRIVER 8        /**< "ftdi_sio", "cdc_acm", "serial" */

/* ---- Serial port: asynchronous link ----------------------------------------------------- */

/** A queued serial link with a background thread. Each cycle (about 50 ms) the thread sends at
 * most one queued message and reads at most one byte (waiting up to 2 s for it), feeds the byte
 * to the reply table and hands every complete reply to the receive callback. At most 101
 * messages wait in the queue; queued messages may leave in an order other than queueing. The
 * link is built from the same parts as the C++ RS232Async (the port and the reply framer) with
 * its rhythm and limits, and adds what a C caller needs: a baud rate, XON/XOFF and a terminator
 * of its own, a user pointer for the callbacks, locking, and a thread that is always waited for.
 *
 * Reply table: a reply starting with a registered command byte is `expected` bytes long in
 * total; a reply starting with another byte ends with the terminator text. */
typedef struct qw_async qw_async;

/** A closed link: baud rate 9600, no XON/XOFF, empty reply table, terminator "". */
QW_C_API qw_status QW_CALL qw_async_new(qw_async** link);
/** Closes the link (waiting for its thread, as qw_async_close), destroys it. */
QW_C_API qw_status QW_CALL qw_async_free(qw_async* link);

/** Settings for the next qw_async_open. */
QW_C_API qw_status QW_CALL qw_async_set_baud_rate(qw_async* link, uint32_t baud_rate);
/** XON/XOFF flow control (non-zero: on) from the next qw_async_open. */
QW_C_API qw_status QW_CALL qw_async_set_xon_xoff(qw_async* link, int32_t enabled);
/** Both callbacks run on the link's background thread. Set them before qw_async_open. A callback
 * may call qw_async_send, qw_async_queue_length and the reply-table functions on its own link,
 * and anything on other handles; qw_async_close/qw_async_free on its own link from inside a
 * callback give QW_ERR_INVALID_ARGUMENT. */
QW_C_API qw_status QW_CALL qw_async_set_callbacks(qw_async* link, qw_receive_fn on_receive,
                                                  qw_disconnect_fn on_disconnect, void* user);
/** Registers a reply of `expected` bytes in total (command byte included) for `command`;
 * *added (if not NULL) is 1, or 0 when the command was already registered (nothing changed). */
QW_C_API qw_status QW_CALL qw_async_add_command(qw_async* link, uint8_t command, int32_t expected,
                                                int32_t* added);
/** Removes the command's reply entry, if any. */
QW_C_API qw_status QW_CALL qw_async_delete_command(qw_async* link, uint8_t command);
/** End mark of replies that begin with an unregistered byte (copied). */
QW_C_API qw_status QW_CALL qw_async_set_terminator(qw_async* link, const char* terminator);

/** Opens the port and starts the background thread (an open link is closed first). */
QW_C_API qw_status QW_CALL qw_async_open(qw_async* link, const char* name);
/** Drops the queue, stops the thread and closes the port; no disconnect callback. Waits for the
 * thread to finish its cycle: up to about 2 s while it waits for a byte on a silent line.
 * Closing a closed link is QW_OK. */
QW_C_API qw_status QW_CALL qw_async_close(qw_async* link);
/** *open is 1 while the link is open (between qw_async_open and a close or drop), else 0. */
QW_C_API qw_status QW_CALL qw_async_is_open(qw_async* link, int32_t* open);
/** Queues a copy of the data. QW_ERR_NOT_OPEN when closed, QW_ERR_FAILED when the queue is
 * full. */
QW_C_API qw_status QW_CALL qw_async_send(qw_async* link, const uint8_t* data, int32_t length);
/** Queues the zero-terminated text without its terminator, as qw_async_send. */
QW_C_API qw_status QW_CALL qw_async_send_text(qw_async* link, const char* text);
/** Number of queued messages. */
QW_C_API qw_status QW_CALL qw_async_queue_length(qw_async* link, int32_t* count);

/* ---- Bootloader client ------------------------------------------------------------------ */

/** The client of the device's bootloader. Each operation connects, exchanges, disconnects. */
typedef struct qw_boot qw_boot;

/** The bootloader runs and accepts a firmware image. */
#define QW_BOOT_IN_PROGRAM_MODE 0
/** The device's application runs. */
#define QW_BOOT_NOT_IN_PROGRAM_MODE 1

/** Names the port, drains pending input and, when read_identity is non-zero, reads the device's
 * identity (qw_boot_read_identity). timeout_ms is the time-out of every receive: at least 10
 * (1000 is the usual value). The handle is created even when reading the identity fails; then
 * qw_boot_has_identity gives 0. */
QW_C_API qw_status QW_CALL qw_boot_new(const char* port_name, int32_t timeout_ms,
                                       int32_t read_identity, qw_boot** boot);
/** Destroys the client (NULL is accepted). */
QW_C_API qw_status QW_CALL qw_boot_free(qw_boot* boot);

/** Reads the identity over one connection; QW_ERR_FAILED when a query was not answered. */
QW_C_API qw_status QW_CALL qw_boot_read_identity(qw_boot* boot);
/** *available is 1 after a fully successful identity read, else 0. */
QW_C_API qw_status QW_CALL qw_boot_has_identity(qw_boot* boot, int32_t* available);

/** Identity getters. Without an identity: QW_ERR_NOT_AVAILABLE (the int getters still write the
 * stored value, 0 before any read). */
QW_C_API qw_status QW_CALL qw_boot_get_device_type(qw_boot* boot, int32_t* value);
/** The device subtype; see qw_boot_get_device_type. */
QW_C_API qw_status QW_CALL qw_boot_get_sub_device_type(qw_boot* boot, int32_t* value);
/** The hardware revision; see qw_boot_get_device_type. */
QW_C_API qw_status QW_CALL qw_boot_get_revision(qw_boot* boot, int32_t* value);
/** The firmware version; see qw_boot_get_device_type. */
QW_C_API qw_status QW_CALL qw_boot_get_firmware_version(qw_boot* boot, int32_t* value);
/** The bootloader version; see qw_boot_get_device_type. */
QW_C_API qw_status QW_CALL qw_boot_get_bootloader_version(qw_boot* boot, int32_t* value);
/** The highest baud rate the device offers; see qw_boot_get_device_type. */
QW_C_API qw_status QW_CALL qw_boot_get_max_baud_rate(qw_boot* boot, int32_t* value);
/** QW_BOOT_IN_PROGRAM_MODE or QW_BOOT_NOT_IN_PROGRAM_MODE. */
QW_C_API qw_status QW_CALL qw_boot_get_program_mode(qw_boot* boot, int32_t* value);
/** The serial number into a caller's buffer; QW_ERR_NOT_AVAILABLE without an identity. */
QW_C_API qw_status QW_CALL qw_boot_get_serial_number(qw_boot* boot, char* buffer, int32_t size,
                                                     int32_t* needed);
/** The device description into a caller's buffer; QW_ERR_NOT_AVAILABLE without an identity. */
QW_C_API qw_status QW_CALL qw_boot_get_description(qw_boot* boot, char* buffer, int32_t size,
                                                   int32_t* needed);

/** Asks the device for its maximum baud rate; the following operations use it. */
QW_C_API qw_status QW_CALL qw_boot_switch_to_max_baud_rate(qw_boot* boot);
/** Brings the device into programming mode and reads the block size it wants. */
QW_C_API qw_status QW_CALL qw_boot_enter_programming(qw_boot* boot);
/** Called on the calling thread during a flash with (bytes sent, image size): before each block
 * and once at the end with (size, size). Its return value is ignored: a flash is not stopped
 * half-way. NULL removes it. */
QW_C_API qw_status QW_CALL qw_boot_set_progress(qw_boot* boot, qw_progress_fn callback, void* user);
/** Writes the firmware image file in checksummed blocks; `value` goes into the header (low 16
 * bits). Needs programming mode (qw_boot_enter_programming). QW_ERR_FAILED when a block was not
 * accepted or the file cannot be read. */
QW_C_API qw_status QW_CALL qw_boot_flash_file(qw_boot* boot, int32_t value, const char* file_name);
/** The same for an image in memory (written to a temporary file that is removed afterwards). */
QW_C_API qw_status QW_CALL qw_boot_flash_memory(qw_boot* boot, int32_t value, const uint8_t* image,
                                                int32_t length);

/* ---- Geometry ----------------------------------------------------------------------------- */

/** y points up; angles in degrees, counter-clockwise. */
typedef struct qw_point {
    float x; /**< horizontal coordinate */
    float y; /**< vertical coordinate (up) */
} qw_point;

/** An axis-aligned rectangle. */
typedef struct qw_rectf {
    float x;      /**< corner of smallest coordinates: x */
    float y;      /**< corner of smallest coordinates: y */
    float width;  /**< extent in x */
    float height; /**< extent in y */
} qw_rectf;

/** A line segment. */
typedef struct qw_segment {
    qw_point start; /**< first end point */
    qw_point end;   /**< second end point */
} qw_segment;

/** A calibration pair: a camera position and the device position it corresponds to. */
typedef struct qw_calibration_point {
    qw_point camera; /**< position seen by the camera */
    qw_point device; /**< the same position on the device */
} qw_calibration_point;

/** Whether (x, y) lies inside the polygon (boundary inside). The polygon's edges run from each
 * vertex to the next, not from the last back to the first: repeat the first vertex at the end
 * for a closed polygon. Cross products are truncated to int, and the answer is not the geometric
 * one for every point: a point level with a slanted edge (its y within the edge's y-range) can
 * be classified wrongly however far it lies from the edge (with (0,0), (100,0), (100,100),
 * (50,100.5), (0,100), (0,0) every point with 100 <= y <= 100.5 is inside, (-300, 100) too), and
 * a point within about one unit of an edge may go either way. An empty polygon is
 * QW_ERR_INVALID_ARGUMENT. *inside is 1 or 0. */
QW_C_API qw_status QW_CALL qw_geo_point_in_polygon(const qw_point* polygon, int32_t vertex_count,
                                                   float x, float y, int32_t* inside);
/** The same for `count` points at once: inside[i] is 1 or 0 for points[i]. */
QW_C_API qw_status QW_CALL qw_geo_points_in_polygon(const qw_point* polygon, int32_t vertex_count,
                                                    const qw_point* points, int32_t count,
                                                    uint8_t* inside);
/** The integer-aligned bounding box (coordinates truncated toward zero); no points give
 * (0, 0, 1, 1). */
QW_C_API qw_status QW_CALL qw_geo_bounding_box(const qw_point* points, int32_t count,
                                               qw_rectf* box);
/** Covers the polygon's inside within `area` by axis-aligned rectangles; `tolerance` is the
 * percentage of sample points that may lie outside a kept rectangle. The `prior_count`
 * rectangles at `prior` (may be NULL with 0) take part in the final merge as if they had been
 * found before. *rects (release with qw_free; NULL when *count is 0) and *count get the result,
 * prior ones included. */
QW_C_API qw_status QW_CALL qw_geo_cover_polygon(const qw_point* polygon, int32_t vertex_count,
                                                const qw_rectf* area, int32_t tolerance,
                                                const qw_rectf* prior, int32_t prior_count,
                                                qw_rectf** rects, int32_t* count);
/** Hatches the outline (closed implicitly) with horizontal segments `spacing` units apart. The
 * result is grouped by scan line: *segments holds all segments, group after group, left to
 * right; *group_sizes[i] is the number of segments of group i. Both arrays are released with
 * qw_free (NULL when empty). */
QW_C_API qw_status QW_CALL qw_geo_hatch(const qw_point* outline, int32_t vertex_count,
                                        int32_t spacing, qw_segment** segments,
                                        int32_t* segment_count, int32_t** group_sizes,
                                        int32_t* group_count);
/** Camera position (x, y) to device coordinates through the calibration points: exactly three
 * points, or a k x k grid (k >= 2) listed row by row. Any other count gives (0, 0). */
QW_C_API qw_status QW_CALL qw_geo_transform(const qw_calibration_point* calibration,
                                            int32_t calibration_count, float x, float y,
                                            qw_point* device);
/** The same for `count` points: device[i] for camera[i]. */
QW_C_API qw_status QW_CALL qw_geo_transform_many(const qw_calibration_point* calibration,
                                                 int32_t calibration_count, const qw_point* camera,
                                                 int32_t count, qw_point* device);

/** A prepared camera-to-device transformation (area "transform", part of the geometry): built
 * once from the calibration points, it maps each point to exactly the same bits as
 * qw_geo_transform, at a fraction of the cost (a handful of distance computations per point
 * instead of a pass over all calibration points and a sort). The handle is immutable after
 * qw_transform_prepare: unlike other handles, one qw_transform may be used by any number of
 * threads at the same time. */
typedef struct qw_transform qw_transform;

/** Prepares the transformation for `calibration_count` points (copied; exactly three, or a k x k
 * grid listed row by row). Any other count is accepted and maps every point to (0, 0), as
 * qw_geo_transform does; *usable (if not NULL) says 1 for a usable count, 0 otherwise. */
QW_C_API qw_status QW_CALL qw_transform_prepare(const qw_calibration_point* calibration,
                                                int32_t calibration_count, qw_transform** transform,
                                                int32_t* usable);
/** Maps camera position (x, y) to *device. */
QW_C_API qw_status QW_CALL qw_transform_map(qw_transform* transform, float x, float y,
                                            qw_point* device);
/** Maps `count` points: device[i] for camera[i]; device may be the same array as camera. */
QW_C_API qw_status QW_CALL qw_transform_map_many(qw_transform* transform, const qw_point* camera,
                                                 int32_t count, qw_point* device);
/** Releases the transformation; NULL is accepted. */
QW_C_API qw_status QW_CALL qw_transform_free(qw_transform* transform);

/* ---- INI files ------------------------------------------------------------------------- */

/* Every function reads the whole file; edits write it back whole. Names match exactly and
 * case-sensitively. Arguments run file, section, key (from the outside in). A line holding '['
 * without ']' makes every function that reads the file give QW_ERR_FORMAT (an edit then
 * writes nothing). Edits of a file that cannot be read give QW_ERR_FAILED and never create it. */

/** The entries of a section or the matches of a record query. */
typedef struct qw_ini_records qw_ini_records;

#define QW_INI_FIELD_COMMENTS 0  /**< comment lines before the entry, each ended by "\n" */
#define QW_INI_FIELD_COMMENTED 1 /**< "#" or ";" for a commented-out entry, " " for a live one */
#define QW_INI_FIELD_SECTION 2   /**< the section name */
#define QW_INI_FIELD_KEY 3       /**< "" for a section header */
#define QW_INI_FIELD_VALUE 4     /**< the value ("" for a section header) */

/** The number of records. */
QW_C_API qw_status QW_CALL qw_ini_records_count(qw_ini_records* records, int32_t* count);
/** One field (QW_INI_FIELD_...) of record `index` into a caller's buffer. */
QW_C_API qw_status QW_CALL qw_ini_records_get(qw_ini_records* records, int32_t index, int32_t field,
                                              char* buffer, int32_t size, int32_t* needed);
/** Destroys the records (NULL is accepted). */
QW_C_API qw_status QW_CALL qw_ini_records_free(qw_ini_records* records);

/** Writes an empty file (creating it or emptying it). */
QW_C_API qw_status QW_CALL qw_ini_create(const char* file);
/** The file as text, one record per line; "" when it cannot be opened. */
QW_C_API qw_status QW_CALL qw_ini_content(const char* file, char* buffer, int32_t size,
                                          int32_t* needed);
/** The section names in file order; free the list with qw_strings_free. */
QW_C_API qw_status QW_CALL qw_ini_section_names(const char* file, qw_strings** names);
/** The key records of the section in file order (not its header). */
QW_C_API qw_status QW_CALL qw_ini_get_section(const char* file, const char* section,
                                              qw_ini_records** records);
/** The first matching key's record (none when there is no match). */
QW_C_API qw_status QW_CALL qw_ini_get_record(const char* file, const char* section, const char* key,
                                             qw_ini_records** records);
/** The key's value; "" when absent (use qw_ini_record_exists to tell). */
QW_C_API qw_status QW_CALL qw_ini_get_value(const char* file, const char* section, const char* key,
                                            char* buffer, int32_t size, int32_t* needed);
/** *exists is 1 or 0; a file that cannot be opened counts as 1 (only a file read without a match
 * gives 0). */
QW_C_API qw_status QW_CALL qw_ini_record_exists(const char* file, const char* section,
                                                const char* key, int32_t* exists);
/** *exists is 1 or 0; as qw_ini_record_exists, an unreadable file counts as 1. */
QW_C_API qw_status QW_CALL qw_ini_section_exists(const char* file, const char* section,
                                                 int32_t* exists);

/** Sets the key's value, adding the key (and the section, at the end) when missing. */
QW_C_API qw_status QW_CALL qw_ini_set_value(const char* file, const char* section, const char* key,
                                            const char* value);
/** Appends a header for the section; an existing section of that name is not checked. */
QW_C_API qw_status QW_CALL qw_ini_add_section(const char* file, const char* section);
/** Renames the section: its header and its keys. */
QW_C_API qw_status QW_CALL qw_ini_rename_section(const char* file, const char* old_section,
                                                 const char* new_section);
/** comment_char is '#' or ';' (anything else is QW_ERR_INVALID_ARGUMENT). */
QW_C_API qw_status QW_CALL qw_ini_comment_record(const char* file, const char* section,
                                                 const char* key, char comment_char);
/** Makes the first matching key's entry live again. */
QW_C_API qw_status QW_CALL qw_ini_uncomment_record(const char* file, const char* section,
                                                   const char* key);
/** Comments out the section's header and entries with '#' or ';'. */
QW_C_API qw_status QW_CALL qw_ini_comment_section(const char* file, const char* section,
                                                  char comment_char);
/** Makes the section's header and entries live again. */
QW_C_API qw_status QW_CALL qw_ini_uncomment_section(const char* file, const char* section);
/** Removes the first matching key's entry with its comments. */
QW_C_API qw_status QW_CALL qw_ini_delete_record(const char* file, const char* section,
                                                const char* key);
/** Removes the section with all its entries. */
QW_C_API qw_status QW_CALL qw_ini_delete_section(const char* file, const char* section);
/** Comment text: lines ended by "\n". */
QW_C_API qw_status QW_CALL qw_ini_set_section_comments(const char* file, const char* section,
                                                       const char* comments);
/** Replaces the comment lines before the key's entry (lines ended by "\n"). */
QW_C_API qw_status QW_CALL qw_ini_set_record_comments(const char* file, const char* section,
                                                      const char* key, const char* comments);
/** Sorts sections and the keys within each by name, bytewise (non-zero descending: reversed);
 * QW_ERR_FAILED for a file without a section. */
QW_C_API qw_status QW_CALL qw_ini_sort(const char* file, int32_t descending);

/* ---- CRC-16 ------------------------------------------------------------------------------ */

/** Start value of the XMODEM variant. */
#define QW_CRC_INIT_ZEROS 0x0000u
#define QW_CRC_INIT_ALL_ONES 0xFFFFu /**< the device's block checksum */
/** 0xFFFF run through two zero bytes. */
#define QW_CRC_INIT_AUGMENTED 0x1D0Fu

/** CRC-16 (polynomial 0x1021, MSB first, no reflection, no final XOR) of `length` bytes from the
 * start value `initial`. */
QW_C_API qw_status QW_CALL qw_crc16(uint16_t initial, const uint8_t* data, int32_t length,
                                    uint16_t* crc);

/** The same with the table built once, for many short blocks. */
typedef struct qw_crc qw_crc;
/** A CRC object for the start value `initial`. */
QW_C_API qw_status QW_CALL qw_crc_new(uint16_t initial, qw_crc** crc);
/** The CRC of `length` bytes, started afresh from the object's start value. */
QW_C_API qw_status QW_CALL qw_crc_compute(qw_crc* crc, const uint8_t* data, int32_t length,
                                          uint16_t* value);
/** Destroys the object (NULL is accepted). */
QW_C_API qw_status QW_CALL qw_crc_free(qw_crc* crc);

/* ---- Lookup table with linear interpolation ----------------------------------------------- */

/** A lookup table of (x, y) pairs answering by linear interpolation. */
typedef struct qw_lut qw_lut;

/** An empty table: every lookup gives 0 until qw_lut_load. */
QW_C_API qw_status QW_CALL qw_lut_new(qw_lut** lut);
/** Destroys the table (NULL is accepted). */
QW_C_API qw_status QW_CALL qw_lut_free(qw_lut* lut);
/** Replaces the table by the file's "x;y" lines, x scaled by x_scale and y by y_scale; each
 * non-NULL bound pointer receives a bound of what was loaded. A missing file gives an empty
 * table and QW_OK; a non-empty line without ';' gives QW_ERR_FORMAT. */
QW_C_API qw_status QW_CALL qw_lut_load(qw_lut* lut, const char* file, float x_scale, float y_scale,
                                       float* max_x, float* min_x, float* max_y, float* min_y);
/** Appends a pair (the bounds stay those of the last load). */
QW_C_API qw_status QW_CALL qw_lut_add(qw_lut* lut, float x, float y);
/** y for x (ascending: the x column runs upward) and x for y. Outside the loaded bounds: 0. */
QW_C_API qw_status QW_CALL qw_lut_get_y(qw_lut* lut, float x, int32_t ascending, float* y);
/** x for y (ascending: the y column runs upward); outside the loaded bounds 0. */
QW_C_API qw_status QW_CALL qw_lut_get_x(qw_lut* lut, float y, int32_t ascending, float* x);

/* ---- Conversions ------------------------------------------------------------------------ */

/** Numbers to text as a default string stream writes them ("%g" style, 6 digits; booleans as
 * "1"/"0"), and text to numbers leniently (a valid prefix counts; nothing valid gives 0; a
 * boolean is true only for the exact text "true"). */
QW_C_API qw_status QW_CALL qw_convert_int_to_text(int32_t value, char* buffer, int32_t size,
                                                  int32_t* needed);
/** value with 6 significant digits, "%g" style. */
QW_C_API qw_status QW_CALL qw_convert_float_to_text(float value, char* buffer, int32_t size,
                                                    int32_t* needed);
/** "1" for non-zero, "0" for zero. */
QW_C_API qw_status QW_CALL qw_convert_bool_to_text(int32_t value, char* buffer, int32_t size,
                                                   int32_t* needed);
/** The int at the start of text; 0 when there is none. */
QW_C_API qw_status QW_CALL qw_convert_text_to_int(const char* text, int32_t* value);
/** The float at the start of text; 0 when there is none. */
QW_C_API qw_status QW_CALL qw_convert_text_to_float(const char* text, float* value);
/** 1 only for the exact text "true", else 0. */
QW_C_API qw_status QW_CALL qw_convert_text_to_bool(const char* text, int32_t* value);

QW_END_DECL

#endif /* QUELWORKS_QUELWORKS_C_H */
