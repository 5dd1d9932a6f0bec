/* The C interface against simulated devices (started by tests/port/run-port-tests.sh, which sets
 * QW_TEST_PORT, QW_TEST_PORT_SILENT, QW_TEST_PORT_REJECT and QW_TEST_IMAGE_OUT): identity, flashes
 * verified byte for byte, time-outs, callbacks that call back into the library, the asynchronous
 * link, and many open/close cycles without a leak. */
#if !defined(_WIN32)
#define _POSIX_C_SOURCE 200809L /* nanosleep */
#endif
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "quelworks/quelworks_c.h"

#if defined(_WIN32)
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
static void sleep_ms(int ms) {
    Sleep((DWORD)ms);
}
/* The process's handle count; where that is not available (Wine), the value of a new handle,
 * which grows when handles leak because freed handle values are reused lowest first. */
static long open_resources(void) {
    DWORD count = 0;
    HANDLE probe;
    if (GetProcessHandleCount(GetCurrentProcess(), &count) && count > 0) return (long)count;
    probe = CreateEventW(NULL, FALSE, FALSE, NULL);
    if (probe == NULL) return -1;
    CloseHandle(probe);
    return (long)(uintptr_t)probe;
}
#else
#include <dirent.h>
#include <time.h>
static void sleep_ms(int ms) {
    struct timespec t;
    t.tv_sec = ms / 1000;
    t.tv_nsec = (long)(ms % 1000) * 1000000L;
    nanosleep(&t, NULL);
}
/* The number of open file descriptors of this process. */
static long open_resources(void) {
    long count = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) return -1;
    while (readdir(dir)) ++count;
    closedir(dir);
    return count;
}
#endif

/* The identity the port test script gives its devices. */
#define QW_T_DEVICE_TYPE 291
#define QW_T_SUB_TYPE 2
#define QW_T_REVISION 3
#define QW_T_FIRMWARE 261
#define QW_T_BOOTLOADER 2
#define QW_T_MAX_BAUD 115200
#define QW_T_SERIAL "QW123456"
#define QW_T_DESCRIPTION "port test device"

static const char* port_normal;
static const char* port_silent;
static const char* port_reject;
static char image_out[600];

/* A path this program can open: Wine shows the Linux file system as drive Z:. */
static void local_path(const char* path, char* out, size_t size) {
#if defined(_WIN32)
    if (path[0] == '/') {
        snprintf(out, size, "Z:%s", path);
        return;
    }
#endif
    snprintf(out, size, "%s", path);
}

static void make_image(uint8_t* image, int32_t size, uint32_t seed) {
    int32_t i;
    for (i = 0; i < size; ++i) {
        seed = seed * 1103515245u + 12345u;
        image[i] = (uint8_t)(seed >> 16);
    }
}

/* Waits until the device has written the image it received and compares it. */
static int device_received(const uint8_t* image, int32_t size) {
    int attempt;
    for (attempt = 0; attempt < 60; ++attempt) {
        long got = 0;
        unsigned char* data = read_file(image_out, &got);
        int same = data && got == size && memcmp(data, image, (size_t)size) == 0;
        free(data);
        if (same) return 1;
        sleep_ms(50);
    }
    return 0;
}

struct progress_log {
    int calls;
    int32_t last_done, last_total;
    int reentered_ok;
    qw_boot* boot;
};

/* A progress callback that calls back into the library: a CRC, and a getter on the very handle
 * that is flashing. */
static int32_t QW_CALL log_progress(int32_t done, int32_t total, void* user) {
    struct progress_log* log = (struct progress_log*)user;
    uint16_t crc = 0;
    int32_t type = 0;
    const uint8_t bytes[] = "123456789";
    if (qw_crc16(QW_CRC_INIT_ALL_ONES, bytes, 9, &crc) == QW_OK && crc == 0x29B1 &&
        qw_boot_get_device_type(log->boot, &type) == QW_OK && type == QW_T_DEVICE_TYPE)
        ++log->reentered_ok;
    ++log->calls;
    log->last_done = done;
    log->last_total = total;
    return 1; /* asks to stop: ignored by a flash */
}

static void test_identity_and_flash(void) {
    qw_boot* boot = NULL;
    int32_t value = -1, needed = 0;
    char text[64];
    enum { kSize = 5000 };
    static uint8_t image[kSize];
    struct progress_log log = {0, 0, 0, 0, NULL};

    CHECK_OK(qw_boot_new(port_normal, 1000, 1, &boot));
    CHECK_OK(qw_boot_has_identity(boot, &value));
    CHECK(value == 1);
    CHECK_OK(qw_boot_get_device_type(boot, &value));
    CHECK(value == QW_T_DEVICE_TYPE);
    CHECK_OK(qw_boot_get_sub_device_type(boot, &value));
    CHECK(value == QW_T_SUB_TYPE);
    CHECK_OK(qw_boot_get_revision(boot, &value));
    CHECK(value == QW_T_REVISION);
    CHECK_OK(qw_boot_get_firmware_version(boot, &value));
    CHECK(value == QW_T_FIRMWARE);
    CHECK_OK(qw_boot_get_bootloader_version(boot, &value));
    CHECK(value == QW_T_BOOTLOADER);
    CHECK_OK(qw_boot_get_max_baud_rate(boot, &value));
    CHECK(value == QW_T_MAX_BAUD);
    CHECK_OK(qw_boot_get_program_mode(boot, &value));
    CHECK(value == QW_BOOT_NOT_IN_PROGRAM_MODE);
    CHECK_STATUS(qw_boot_get_serial_number(boot, text, 4, &needed), QW_ERR_BUFFER_TOO_SMALL);
    CHECK(needed == (int32_t)sizeof QW_T_SERIAL);
    CHECK_OK(qw_boot_get_serial_number(boot, text, needed, NULL));
    CHECK(strcmp(text, QW_T_SERIAL) == 0);
    CHECK_OK(qw_boot_get_description(boot, text, sizeof text, NULL));
    CHECK(strcmp(text, QW_T_DESCRIPTION) == 0);
    CHECK_INVALID(qw_boot_get_revision(boot, NULL));

    /* Flash from memory, with a progress callback that re-enters the library. */
    make_image(image, kSize, 1);
    log.boot = boot;
    CHECK_OK(qw_boot_set_progress(boot, log_progress, &log));
    CHECK_OK(qw_boot_switch_to_max_baud_rate(boot));
    CHECK_OK(qw_boot_enter_programming(boot));
    CHECK_OK(qw_boot_flash_memory(boot, 7, image, kSize));
    CHECK(device_received(image, kSize));
    /* One call before each of the 20 blocks of 256 bytes and one at the end. */
    CHECK(log.calls == 21 && log.reentered_ok == log.calls);
    CHECK(log.last_done == kSize && log.last_total == kSize);
    CHECK_INVALID(qw_boot_flash_memory(boot, 7, image, -1));
    CHECK_INVALID(qw_boot_flash_memory(boot, 7, NULL, 10));

    /* Flash from a file with a non-ASCII name. */
    {
        const char* name = "qw-capi-Bild-\xC3\xA4\xC3\xB6\xC3\xBC.bin";
        make_image(image, kSize, 2);
        CHECK(write_file(name, image, kSize));
        CHECK_OK(qw_boot_set_progress(boot, NULL, NULL));
        CHECK_OK(qw_boot_enter_programming(boot));
        CHECK_OK(qw_boot_flash_file(boot, 7, name));
        CHECK(device_received(image, kSize));
        utf8_remove(name);
        CHECK_STATUS(qw_boot_flash_file(boot, 7, "qw-capi-no-such-image.bin"), QW_ERR_FAILED);
    }
    CHECK_OK(qw_boot_free(boot));
    CHECK_INVALID(qw_boot_free(boot));
}

static void test_silent_and_refusing_devices(void) {
    qw_boot* boot = NULL;
    qw_port* port = NULL;
    int32_t value = -1, length = -1;
    char text[16] = "keep";
    uint8_t bytes[4];
    uint8_t* data = (uint8_t*)1;
    const uint8_t with_zeros[] = {0x00, 'A', 0x00, 'B'};
    enum { kSize = 1000 };
    static uint8_t image[kSize];

    /* A device that never answers: the handle exists, its identity does not. */
    CHECK_OK(qw_boot_new(port_silent, 100, 1, &boot));
    CHECK_OK(qw_boot_has_identity(boot, &value));
    CHECK(value == 0);
    CHECK_STATUS(qw_boot_get_device_type(boot, &value), QW_ERR_NOT_AVAILABLE);
    CHECK(value == 0);
    CHECK_STATUS(qw_boot_get_serial_number(boot, text, sizeof text, NULL), QW_ERR_NOT_AVAILABLE);
    CHECK(strcmp(text, "keep") == 0);
    CHECK_STATUS(qw_boot_read_identity(boot), QW_ERR_FAILED);
    CHECK(qw_last_error_message()[0] != '\0');
    CHECK_OK(qw_boot_free(boot));

    /* Time-outs on the synchronous link; binary data with zero bytes goes out whole. */
    CHECK_OK(qw_port_new(&port));
    CHECK_OK(qw_port_open(port, port_silent));
    CHECK_OK(qw_port_send(port, with_zeros, 4));
    CHECK_STATUS(qw_port_receive(port, bytes, 4, 20), QW_ERR_TIMEOUT);
    CHECK_OK(qw_port_receive_until_quiet(port, 20, &data, &length));
    CHECK(data == NULL && length == 0);
    CHECK_STATUS(qw_port_receive_line(port, 20, (char**)&data, &length), QW_ERR_TIMEOUT);
    CHECK_OK(qw_port_free(port));

    /* A device that refuses the second block. */
    make_image(image, kSize, 3);
    CHECK_OK(qw_boot_new(port_reject, 1000, 1, &boot));
    CHECK_OK(qw_boot_enter_programming(boot));
    CHECK_STATUS(qw_boot_flash_memory(boot, 0, image, kSize), QW_ERR_FAILED);
    CHECK_OK(qw_boot_free(boot));
}

struct send_log {
    int calls;
    int reentered_ok;
    qw_port* port;
};

static int32_t QW_CALL stop_after_first(int32_t done, int32_t total, void* user) {
    struct send_log* log = (struct send_log*)user;
    int32_t open = 0;
    (void)done;
    (void)total;
    if (qw_port_is_open(log->port, &open) == QW_OK && open == 1) ++log->reentered_ok;
    return ++log->calls >= 1;
}

static void test_sync_port(void) {
    qw_port* port = NULL;
    uint8_t request = 0x11; /* device type: echo + 2 bytes, big-endian */
    uint8_t reply[3] = {0};
    uint8_t big[120];
    char name[256];
    int32_t open = 0;
    uint32_t baud = 0;
    struct send_log log = {0, 0, NULL};

    CHECK_OK(qw_port_new(&port));
    CHECK_OK(qw_port_get_baud_rate(port, &baud));
    CHECK(baud == 9600);
    CHECK_OK(qw_port_open(port, port_normal));
    CHECK_OK(qw_port_is_open(port, &open));
    CHECK(open == 1);
    CHECK_OK(qw_port_get_name(port, name, sizeof name, NULL));
    CHECK(strcmp(name, port_normal) == 0);
    CHECK_OK(qw_port_send(port, &request, 1));
    CHECK_OK(qw_port_receive(port, reply, 3, 1000));
    CHECK(reply[0] == 0x11 && reply[1] == (QW_T_DEVICE_TYPE >> 8) &&
          reply[2] == (QW_T_DEVICE_TYPE & 0xFF));

    /* A line ended by a terminator of our choosing: the serial number reply ends with "56". */
    {
        const uint8_t serial_request = 0x19;
        char* line = NULL;
        int32_t length = 0;
        CHECK_OK(qw_port_set_line_terminator(port, "56"));
        CHECK_OK(qw_port_send(port, &serial_request, 1));
        CHECK_OK(qw_port_receive_line(port, 1000, &line, &length));
        CHECK(line != NULL && length == 9 && memcmp(line, "\x19" QW_T_SERIAL, 10) == 0);
        qw_free(line);
    }

    /* A send progress callback that re-enters the library and stops the send. */
    memset(big, 0, sizeof big);
    log.port = port;
    CHECK_OK(qw_port_set_send_progress(port, stop_after_first, &log));
    CHECK_STATUS(qw_port_send(port, big, (int32_t)sizeof big), QW_ERR_CANCELLED);
    CHECK(log.calls == 1 && log.reentered_ok == 1);
    CHECK_OK(qw_port_close(port));
    CHECK_OK(qw_port_close(port));
    CHECK_STATUS(qw_port_send(port, &request, 1), QW_ERR_NOT_OPEN);
    /* Reopened with XON/XOFF flow control (which takes the bytes 0x11 and 0x13 for itself, so
     * ask for the serial number, which holds neither). */
    {
        const uint8_t serial_request = 0x19;
        uint8_t serial[9] = {0};
        CHECK_OK(qw_port_set_send_progress(port, NULL, NULL));
        CHECK_OK(qw_port_set_xon_xoff(port, 1));
        CHECK_OK(qw_port_open(port, port_normal));
        CHECK_OK(qw_port_send(port, &serial_request, 1));
        CHECK_OK(qw_port_receive(port, serial, 9, 1000));
        CHECK(memcmp(serial, "\x19" QW_T_SERIAL, 9) == 0);
    }
    CHECK_OK(qw_port_free(port));
}

struct async_log {
    atomic_int replies; /* published after the fields above */
    uint8_t reply[8];
    int32_t length;
    int queue_ok;
    int close_refused;
    qw_async* link;
};

static void QW_CALL on_reply(const uint8_t* data, int32_t length, void* user) {
    struct async_log* log = (struct async_log*)user;
    int32_t queued = -1;
    if (length <= (int32_t)sizeof log->reply) memcpy(log->reply, data, (size_t)length);
    log->length = length;
    /* Calls back into its own link: allowed for the queue, refused for closing. */
    if (qw_async_queue_length(log->link, &queued) == QW_OK && queued == 0) log->queue_ok = 1;
    if (qw_async_close(log->link) == QW_ERR_INVALID_ARGUMENT) log->close_refused = 1;
    atomic_fetch_add(&log->replies, 1);
}

static void test_async_link(void) {
    qw_async* link = NULL;
    struct async_log log;
    const uint8_t request = 0x11;
    int32_t open = 0, count = -1;
    int i;

    memset(&log, 0, sizeof log);
    atomic_init(&log.replies, 0);
    CHECK_OK(qw_async_new(&link));
    log.link = link;
    CHECK_OK(qw_async_set_callbacks(link, on_reply, NULL, &log));
    CHECK_OK(qw_async_add_command(link, 0x11, 3, NULL));
    CHECK_OK(qw_async_open(link, port_normal));
    CHECK_OK(qw_async_is_open(link, &open));
    CHECK(open == 1);
    CHECK_OK(qw_async_send(link, &request, 1));
    for (i = 0; i < 200 && atomic_load(&log.replies) == 0; ++i) sleep_ms(25);
    CHECK(atomic_load(&log.replies) == 1 && log.length == 3);
    CHECK(log.reply[0] == 0x11 && log.reply[1] == (QW_T_DEVICE_TYPE >> 8) &&
          log.reply[2] == (QW_T_DEVICE_TYPE & 0xFF));
    CHECK(log.queue_ok == 1 && log.close_refused == 1);
    /* A message with a zero byte inside goes out whole (the device ignores the zero and answers
     * the revision request after it), and a reply holding a zero byte reaches the callback whole.
     */
    {
        const uint8_t zero_first[] = {0x00, 0x15};
        CHECK_OK(qw_async_add_command(link, 0x15, 3, NULL));
        CHECK_OK(qw_async_send(link, zero_first, 2));
        for (i = 0; i < 200 && atomic_load(&log.replies) == 1; ++i) sleep_ms(25);
        CHECK(atomic_load(&log.replies) == 2 && log.length == 3);
        CHECK(log.reply[0] == 0x15 && log.reply[1] == (QW_T_REVISION >> 8) &&
              log.reply[2] == (QW_T_REVISION & 0xFF));
    }
    CHECK_OK(qw_async_queue_length(link, &count));
    CHECK(count == 0);
    CHECK_OK(qw_async_close(link));
    CHECK_OK(qw_async_is_open(link, &open));
    CHECK(open == 0);
    CHECK_STATUS(qw_async_send(link, &request, 1), QW_ERR_NOT_OPEN);
    /* Freed while open: the thread is stopped first. */
    CHECK_OK(qw_async_open(link, port_normal));
    CHECK_OK(qw_async_free(link));
}

/* Open/close cycles leave the number of descriptors (handles on Windows) where it was. */
static void test_open_close_cycles(void) {
    const char* env = getenv("QW_CAPI_CYCLES");
    int cycles = env ? atoi(env) : 10000;
    long before, after;
    int i, failures = 0;
    qw_port* port = NULL;

    /* One round first, so that lazily opened system resources are counted in both. */
    CHECK_OK(qw_port_new(&port));
    CHECK_OK(qw_port_open(port, port_normal));
    CHECK_OK(qw_port_free(port));
    before = open_resources();
    for (i = 0; i < cycles; ++i) {
        if (qw_port_new(&port) != QW_OK) ++failures;
        if (qw_port_open(port, port_normal) != QW_OK) ++failures;
        if (qw_port_close(port) != QW_OK) ++failures;
        if (qw_port_free(port) != QW_OK) ++failures;
    }
    after = open_resources();
    CHECK(failures == 0);
    CHECK(before > 0 && after == before);
    printf("%d open/close cycles: %ld open descriptors/handles before, %ld after\n", cycles, before,
           after);
}

static void test_port_list(void) {
#if defined(_WIN32)
    /* Wine lists its COM ports; the test device's port is one of them. */
    qw_strings* ports = NULL;
    int32_t count = 0, i;
    int found = 0;
    char name[64];
    CHECK_OK(qw_port_list(&ports));
    CHECK_OK(qw_strings_count(ports, &count));
    for (i = 0; i < count; ++i) {
        CHECK_OK(qw_strings_get(ports, i, name, sizeof name, NULL));
        if (strcmp(name, port_normal) == 0) found = 1;
    }
    CHECK(found);
    CHECK_OK(qw_strings_free(ports));
#endif
}

int main(void) {
    const char* out = getenv("QW_TEST_IMAGE_OUT");
    port_normal = getenv("QW_TEST_PORT");
    port_silent = getenv("QW_TEST_PORT_SILENT");
    port_reject = getenv("QW_TEST_PORT_REJECT");
    if (!port_normal || !port_silent || !port_reject || !out) {
        fprintf(stderr, "capi_device_test: run it through tests/port/run-port-tests.sh\n");
        return 1;
    }
    local_path(out, image_out, sizeof image_out);
    test_sync_port();
    test_async_link();
    test_silent_and_refusing_devices();
    test_open_close_cycles();
    test_port_list();
    test_identity_and_flash();
    return check_report("capi_device_test");
}
