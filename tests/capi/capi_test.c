/* Tests of the C interface that need no device: bad input at every entry point, strings out,
 * geometry, INI files (also under a non-ASCII name), the lookup table, CRC and conversions. */
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "quelworks/quelworks_c.h"

/* The handle kinds, so that a sweep can skip the functions a handle really belongs to. */
enum kind { K_NONE, K_STRINGS, K_PORT, K_ASYNC, K_BOOT, K_RECORDS, K_CRC, K_LUT };

static int32_t QW_CALL no_progress(int32_t done, int32_t total, void* user) {
    (void)done;
    (void)total;
    (void)user;
    return 0;
}

/* Calls every function that takes a handle with `h` (skipping those of kind `real`) and expects
 * QW_ERR_INVALID_ARGUMENT from each; with include_free the free functions too. Out-parameters
 * must stay untouched. */
static void sweep(void* h, enum kind real, int include_free) {
    uint8_t bytes[4] = {1, 2, 3, 4};
    char text[8] = "keep";
    int32_t i32 = 77, needed = 77;
    uint32_t u32 = 77;
    uint16_t u16 = 77;
    float f = 7.0f;
    uint8_t* data = NULL;
    char* line = NULL;

    if (real != K_STRINGS) {
        qw_strings* s = (qw_strings*)h;
        CHECK_INVALID(qw_strings_count(s, &i32));
        CHECK_INVALID(qw_strings_get(s, 0, text, sizeof text, &needed));
        if (include_free) CHECK_INVALID(qw_strings_free(s));
    }
    if (real != K_PORT) {
        qw_port* p = (qw_port*)h;
        CHECK_INVALID(qw_port_set_baud_rate(p, 9600));
        CHECK_INVALID(qw_port_get_baud_rate(p, &u32));
        CHECK_INVALID(qw_port_set_xon_xoff(p, 1));
        CHECK_INVALID(qw_port_set_line_terminator(p, "\n"));
        CHECK_INVALID(qw_port_set_send_progress(p, no_progress, NULL));
        CHECK_INVALID(qw_port_open(p, "COM1"));
        CHECK_INVALID(qw_port_close(p));
        CHECK_INVALID(qw_port_is_open(p, &i32));
        CHECK_INVALID(qw_port_get_name(p, text, sizeof text, &needed));
        CHECK_INVALID(qw_port_send(p, bytes, 4));
        CHECK_INVALID(qw_port_send_text(p, "x"));
        CHECK_INVALID(qw_port_receive(p, bytes, 4, 10));
        CHECK_INVALID(qw_port_receive_until_quiet(p, 10, &data, &i32));
        CHECK_INVALID(qw_port_receive_line(p, 10, &line, &i32));
        if (include_free) CHECK_INVALID(qw_port_free(p));
    }
    if (real != K_ASYNC) {
        qw_async* a = (qw_async*)h;
        CHECK_INVALID(qw_async_set_baud_rate(a, 9600));
        CHECK_INVALID(qw_async_set_xon_xoff(a, 0));
        CHECK_INVALID(qw_async_set_callbacks(a, NULL, NULL, NULL));
        CHECK_INVALID(qw_async_add_command(a, 0x11, 3, &i32));
        CHECK_INVALID(qw_async_delete_command(a, 0x11));
        CHECK_INVALID(qw_async_set_terminator(a, "\n"));
        CHECK_INVALID(qw_async_open(a, "COM1"));
        CHECK_INVALID(qw_async_close(a));
        CHECK_INVALID(qw_async_is_open(a, &i32));
        CHECK_INVALID(qw_async_send(a, bytes, 4));
        CHECK_INVALID(qw_async_send_text(a, "x"));
        CHECK_INVALID(qw_async_queue_length(a, &i32));
        if (include_free) CHECK_INVALID(qw_async_free(a));
    }
    if (real != K_BOOT) {
        qw_boot* b = (qw_boot*)h;
        CHECK_INVALID(qw_boot_read_identity(b));
        CHECK_INVALID(qw_boot_has_identity(b, &i32));
        CHECK_INVALID(qw_boot_get_device_type(b, &i32));
        CHECK_INVALID(qw_boot_get_sub_device_type(b, &i32));
        CHECK_INVALID(qw_boot_get_revision(b, &i32));
        CHECK_INVALID(qw_boot_get_firmware_version(b, &i32));
        CHECK_INVALID(qw_boot_get_bootloader_version(b, &i32));
        CHECK_INVALID(qw_boot_get_max_baud_rate(b, &i32));
        CHECK_INVALID(qw_boot_get_program_mode(b, &i32));
        CHECK_INVALID(qw_boot_get_serial_number(b, text, sizeof text, &needed));
        CHECK_INVALID(qw_boot_get_description(b, text, sizeof text, &needed));
        CHECK_INVALID(qw_boot_switch_to_max_baud_rate(b));
        CHECK_INVALID(qw_boot_enter_programming(b));
        CHECK_INVALID(qw_boot_set_progress(b, no_progress, NULL));
        CHECK_INVALID(qw_boot_flash_file(b, 0, "image.bin"));
        CHECK_INVALID(qw_boot_flash_memory(b, 0, bytes, 4));
        if (include_free) CHECK_INVALID(qw_boot_free(b));
    }
    if (real != K_RECORDS) {
        qw_ini_records* r = (qw_ini_records*)h;
        CHECK_INVALID(qw_ini_records_count(r, &i32));
        CHECK_INVALID(qw_ini_records_get(r, 0, QW_INI_FIELD_KEY, text, sizeof text, &needed));
        if (include_free) CHECK_INVALID(qw_ini_records_free(r));
    }
    if (real != K_CRC) {
        qw_crc* c = (qw_crc*)h;
        CHECK_INVALID(qw_crc_compute(c, bytes, 4, &u16));
        if (include_free) CHECK_INVALID(qw_crc_free(c));
    }
    if (real != K_LUT) {
        qw_lut* l = (qw_lut*)h;
        CHECK_INVALID(qw_lut_load(l, "table.txt", 1.0f, 1.0f, NULL, NULL, NULL, NULL));
        CHECK_INVALID(qw_lut_add(l, 1.0f, 2.0f));
        CHECK_INVALID(qw_lut_get_y(l, 1.0f, 1, &f));
        CHECK_INVALID(qw_lut_get_x(l, 1.0f, 1, &f));
        if (include_free) CHECK_INVALID(qw_lut_free(l));
    }
    CHECK(i32 == 77 && needed == 77 && u32 == 77 && u16 == 77 && f == 7.0f);
    CHECK(strcmp(text, "keep") == 0 && data == NULL && line == NULL);
    CHECK(bytes[0] == 1 && bytes[3] == 4);
    CHECK(qw_last_error_message()[0] != '\0');
}

static void test_handles(void) {
    qw_port* port = NULL;
    qw_lut* lut = NULL;
    qw_crc* crc = NULL;
    qw_strings* strings = NULL;
    qw_async* link = NULL;

    /* Null, made-up and wrong-kind handles. */
    sweep(NULL, K_NONE, 0);
    sweep((void*)(uintptr_t)0x12345, K_NONE, 1);
    sweep((void*)(uintptr_t)0xFFFFFFFFFFFFull, K_NONE, 1);
    CHECK_OK(qw_lut_new(&lut));
    CHECK_OK(qw_port_new(&port));
    CHECK_OK(qw_async_new(&link));
    sweep(lut, K_LUT, 1);
    sweep(port, K_PORT, 1);
    sweep(link, K_ASYNC, 1);
    /* The handles survived being offered to the wrong functions. */
    CHECK_OK(qw_lut_add(lut, 1.0f, 2.0f));
    CHECK_OK(qw_port_set_baud_rate(port, 19200));

    /* Freed handles are refused, also after the slot was used again, and freeing twice fails
     * harmlessly. */
    CHECK_OK(qw_lut_free(lut));
    CHECK_OK(qw_port_free(port));
    CHECK_OK(qw_async_free(link));
    sweep(lut, K_NONE, 1);
    sweep(port, K_NONE, 1);
    sweep(link, K_NONE, 1);
    CHECK_OK(qw_crc_new(QW_CRC_INIT_ALL_ONES, &crc));
    CHECK(crc != NULL && (void*)crc != (void*)lut && (void*)crc != (void*)port);
    CHECK_INVALID(qw_lut_free(lut));
    CHECK_INVALID(qw_port_close(port));
    CHECK_OK(qw_crc_free(crc));

    /* Free functions accept NULL. */
    CHECK_OK(qw_port_free(NULL));
    CHECK_OK(qw_async_free(NULL));
    CHECK_OK(qw_boot_free(NULL));
    CHECK_OK(qw_crc_free(NULL));
    CHECK_OK(qw_lut_free(NULL));
    CHECK_OK(qw_strings_free(NULL));
    CHECK_OK(qw_ini_records_free(NULL));
    CHECK(qw_last_error_message()[0] == '\0');
    qw_free(NULL);

    /* Constructors refuse a null out-pointer. */
    CHECK_INVALID(qw_port_new(NULL));
    CHECK_INVALID(qw_async_new(NULL));
    CHECK_INVALID(qw_crc_new(0, NULL));
    CHECK_INVALID(qw_lut_new(NULL));
    CHECK_INVALID(qw_port_list(NULL));
    CHECK_INVALID(qw_boot_new(NULL, 1000, 0, NULL));
    CHECK_INVALID(qw_boot_new("COM1", 1000, 0, NULL));
    CHECK_INVALID(qw_boot_new("COM1", 5, 0, (qw_boot**)&strings));
    CHECK(strings == NULL);

    /* Many create/free cycles reuse slots without confusing generations. */
    {
        qw_lut* first = NULL;
        qw_lut* again = NULL;
        int i;
        CHECK_OK(qw_lut_new(&first));
        CHECK_OK(qw_lut_free(first));
        for (i = 0; i < 10000; ++i) {
            CHECK_OK(qw_lut_new(&again));
            CHECK_INVALID(qw_lut_add(first, 0.0f, 0.0f));
            CHECK_OK(qw_lut_free(again));
        }
    }
}

static void test_handle_arguments(void) {
    qw_port* port = NULL;
    qw_async* link = NULL;
    uint8_t bytes[4] = {0};
    uint8_t* data = NULL;
    char* line = NULL;
    int32_t n = 0;

    CHECK_OK(qw_port_new(&port));
    CHECK_INVALID(qw_port_get_baud_rate(port, NULL));
    CHECK_INVALID(qw_port_is_open(port, NULL));
    CHECK_INVALID(qw_port_set_baud_rate(port, 0));
    CHECK_INVALID(qw_port_set_line_terminator(port, NULL));
    CHECK_INVALID(qw_port_set_line_terminator(port, ""));
    CHECK_INVALID(qw_port_open(port, NULL));
    CHECK_INVALID(qw_port_open(port, ""));
    CHECK_INVALID(qw_port_send(port, NULL, 4));
    CHECK_INVALID(qw_port_send(port, bytes, -1));
    CHECK_INVALID(qw_port_send_text(port, NULL));
    CHECK_INVALID(qw_port_receive(port, bytes, -4, 10));
    CHECK_INVALID(qw_port_receive(port, NULL, 4, 10));
    CHECK_INVALID(qw_port_receive(port, bytes, 4, -1));
    CHECK_INVALID(qw_port_receive(port, bytes, 4, 0));
    CHECK_INVALID(qw_port_receive_until_quiet(port, 0, &data, &n));
    CHECK_INVALID(qw_port_receive_until_quiet(port, 10, NULL, &n));
    CHECK_INVALID(qw_port_receive_line(port, 10, &line, NULL));
    /* A closed port: operations that need the line say so. */
    CHECK_STATUS(qw_port_send(port, bytes, 4), QW_ERR_NOT_OPEN);
    CHECK_STATUS(qw_port_receive(port, bytes, 4, 10), QW_ERR_NOT_OPEN);
    CHECK_STATUS(qw_port_receive_until_quiet(port, 10, &data, &n), QW_ERR_NOT_OPEN);
    CHECK_STATUS(qw_port_open(port, "/nonexistent/qw-port"), QW_ERR_FAILED);
    CHECK(strstr(qw_last_error_message(), "qw-port") != NULL);
    CHECK_OK(qw_port_close(port));
    CHECK_OK(qw_port_close(port)); /* closing twice */
    CHECK_OK(qw_port_is_open(port, &n));
    CHECK(n == 0);
    CHECK_OK(qw_port_free(port));

    CHECK_OK(qw_async_new(&link));
    CHECK_INVALID(qw_async_send(link, bytes, -1));
    CHECK_INVALID(qw_async_send(link, NULL, 1));
    CHECK_INVALID(qw_async_add_command(link, 0x11, 0, NULL));
    CHECK_INVALID(qw_async_set_terminator(link, NULL));
    CHECK_INVALID(qw_async_queue_length(link, NULL));
    CHECK_STATUS(qw_async_send(link, bytes, 4), QW_ERR_NOT_OPEN);
    CHECK_STATUS(qw_async_open(link, "/nonexistent/qw-port"), QW_ERR_FAILED);
    CHECK_OK(qw_async_add_command(link, 0x11, 3, &n));
    CHECK(n == 1);
    CHECK_OK(qw_async_add_command(link, 0x11, 3, &n));
    CHECK(n == 0);
    CHECK_OK(qw_async_close(link));
    CHECK_OK(qw_async_close(link));
    CHECK_OK(qw_async_free(link));
}

static void test_strings_out(void) {
    char buffer[16];
    int32_t needed = 0;
    qw_strings* list = NULL;

    /* Too small: nothing written, the size needed reported. */
    memset(buffer, 'x', sizeof buffer);
    CHECK_STATUS(qw_convert_int_to_text(-12345, buffer, 6, &needed), QW_ERR_BUFFER_TOO_SMALL);
    CHECK(needed == 7 && buffer[0] == 'x');
    CHECK(strstr(qw_last_error_message(), "7") != NULL);
    CHECK_STATUS(qw_convert_int_to_text(-12345, NULL, 0, &needed), QW_ERR_BUFFER_TOO_SMALL);
    CHECK(needed == 7);
    CHECK_OK(qw_convert_int_to_text(-12345, buffer, 7, &needed));
    CHECK(strcmp(buffer, "-12345") == 0);
    CHECK_OK(qw_convert_int_to_text(5, buffer, sizeof buffer, NULL));
    CHECK_INVALID(qw_convert_int_to_text(5, buffer, -1, &needed));
    CHECK_INVALID(qw_convert_int_to_text(5, NULL, 4, &needed));

    CHECK_OK(qw_convert_float_to_text(0.1f, buffer, sizeof buffer, NULL));
    CHECK(strcmp(buffer, "0.1") == 0);
    CHECK_OK(qw_convert_bool_to_text(7, buffer, sizeof buffer, NULL));
    CHECK(strcmp(buffer, "1") == 0);
    {
        int32_t i = 0;
        float f = 0.0f;
        CHECK_OK(qw_convert_text_to_int("42abc", &i));
        CHECK(i == 42);
        CHECK_OK(qw_convert_text_to_float("2.5", &f));
        CHECK(f == 2.5f);
        CHECK_OK(qw_convert_text_to_bool("1", &i));
        CHECK(i == 0); /* only the exact word "true" reads as true */
        CHECK_OK(qw_convert_text_to_bool("true", &i));
        CHECK(i == 1);
        CHECK_INVALID(qw_convert_text_to_int(NULL, &i));
        CHECK_INVALID(qw_convert_text_to_float("1", NULL));
    }

    /* A string list: index checks. */
    CHECK_OK(qw_port_list(&list));
    {
        int32_t count = -1;
        CHECK_OK(qw_strings_count(list, &count));
        CHECK(count >= 0);
        CHECK_INVALID(qw_strings_get(list, count, buffer, sizeof buffer, &needed));
        CHECK_INVALID(qw_strings_get(list, -1, buffer, sizeof buffer, &needed));
        CHECK_INVALID(qw_strings_count(list, NULL));
    }
    CHECK_OK(qw_strings_free(list));
    CHECK_INVALID(qw_strings_free(list));
}

static void test_version(void) {
    int32_t major = -1, minor = -1, patch = -1;
    const char* text = qw_version(&major, &minor, &patch);
    CHECK(major == QW_VERSION_MAJOR && minor == QW_VERSION_MINOR && patch == QW_VERSION_PATCH);
    CHECK(strcmp(text, QW_VERSION_STRING) == 0);
    CHECK(qw_version(NULL, NULL, NULL) == text);
    CHECK(strcmp(qw_status_text(QW_ERR_TIMEOUT), "QW_ERR_TIMEOUT") == 0);
    CHECK(strcmp(qw_status_text(12345), "unknown status") == 0);
}

static void test_crc(void) {
    /* The CRC-16 of "123456789" from 0xFFFF is 0x29B1, from 0 it is 0x31C3. */
    const uint8_t check[] = "123456789";
    /* Bytes after a zero byte count when a length is given. */
    const uint8_t zeros[] = {0x00, 0x31, 0x00, 0x32};
    uint16_t crc = 0, again = 0;
    qw_crc* engine = NULL;

    CHECK_OK(qw_crc16(QW_CRC_INIT_ALL_ONES, check, 9, &crc));
    CHECK(crc == 0x29B1);
    CHECK_OK(qw_crc16(QW_CRC_INIT_ZEROS, check, 9, &crc));
    CHECK(crc == 0x31C3);
    CHECK_OK(qw_crc16(QW_CRC_INIT_ALL_ONES, zeros, 4, &crc));
    CHECK_OK(qw_crc16(QW_CRC_INIT_ALL_ONES, zeros, 3, &again));
    CHECK(crc != again);
    CHECK_OK(qw_crc16(QW_CRC_INIT_ALL_ONES, NULL, 0, &crc));
    CHECK(crc == 0xFFFF);
    CHECK_INVALID(qw_crc16(QW_CRC_INIT_ALL_ONES, check, -1, &crc));
    CHECK_INVALID(qw_crc16(QW_CRC_INIT_ALL_ONES, NULL, 9, &crc));
    CHECK_INVALID(qw_crc16(QW_CRC_INIT_ALL_ONES, check, 9, NULL));

    CHECK_OK(qw_crc_new(QW_CRC_INIT_ALL_ONES, &engine));
    CHECK_OK(qw_crc_compute(engine, check, 9, &crc));
    CHECK(crc == 0x29B1);
    CHECK_INVALID(qw_crc_compute(engine, check, -9, &crc));
    CHECK_OK(qw_crc_free(engine));
}

static int write_text(const char* name, const char* text) {
    return write_file(name, text, strlen(text));
}

static void test_lut(void) {
    const char* name = "qw-capi-table.txt";
    qw_lut* lut = NULL;
    float v = -1.0f, max_x = 0, min_x = 0, max_y = 0, min_y = 0;

    CHECK(write_text(name, "0;0\n10;100\n20;400\n"));
    CHECK_OK(qw_lut_new(&lut));
    CHECK_OK(qw_lut_get_y(lut, 5.0f, 1, &v));
    CHECK(v == 0.0f);
    CHECK_OK(qw_lut_load(lut, name, 1.0f, 1.0f, &max_x, &min_x, &max_y, &min_y));
    CHECK(max_x == 20.0f && min_x == 0.0f && max_y == 400.0f && min_y == 0.0f);
    CHECK_OK(qw_lut_get_y(lut, 15.0f, 1, &v));
    CHECK(v == 250.0f);
    CHECK_OK(qw_lut_get_x(lut, 50.0f, 1, &v));
    CHECK(v == 5.0f);
    CHECK_INVALID(qw_lut_get_x(lut, 50.0f, 1, NULL));
    CHECK_INVALID(qw_lut_load(lut, NULL, 1.0f, 1.0f, NULL, NULL, NULL, NULL));
    CHECK(write_text(name, "0;0\nbroken\n"));
    CHECK_STATUS(qw_lut_load(lut, name, 1.0f, 1.0f, NULL, NULL, NULL, NULL), QW_ERR_FORMAT);
    /* A table under a non-ASCII name. */
    {
        const char* unicode = "qw-capi-Tabelle-\xC3\xA4\xE6\xB8\xAC.txt";
        CHECK(write_text(unicode, "0;0\n10;100\n"));
        CHECK_OK(qw_lut_load(lut, unicode, 1.0f, 1.0f, &max_x, NULL, NULL, NULL));
        CHECK(max_x == 10.0f);
        CHECK(utf8_remove(unicode) == 0);
    }
    CHECK_OK(qw_lut_free(lut));
    remove(name);
}

static void test_geometry(void) {
    /* A closed square; its first vertex is repeated at the end. */
    const qw_point square[] = {{0, 0}, {100, 0}, {100, 100}, {0, 100}, {0, 0}};
    qw_point grid[400];
    uint8_t inside[400];
    int32_t single = -1;
    int i;
    qw_rectf box;
    qw_rectf area = {0, 0, 100, 100};
    qw_rectf* rects = NULL;
    int32_t rect_count = 0;
    qw_segment* segments = NULL;
    int32_t segment_count = 0, group_count = 0, sum = 0;
    int32_t* group_sizes = NULL;

    for (i = 0; i < 400; ++i) {
        grid[i].x = (float)(i % 20) * 10.0f - 45.0f;
        grid[i].y = (float)(i / 20) * 10.0f - 45.0f;
    }
    CHECK_OK(qw_geo_points_in_polygon(square, 5, grid, 400, inside));
    for (i = 0; i < 400; ++i) {
        CHECK_OK(qw_geo_point_in_polygon(square, 5, grid[i].x, grid[i].y, &single));
        CHECK(single == inside[i]);
    }
    CHECK_OK(qw_geo_point_in_polygon(square, 5, 50.0f, 50.0f, &single));
    CHECK(single == 1);
    CHECK_OK(qw_geo_point_in_polygon(square, 5, 150.0f, 50.0f, &single));
    CHECK(single == 0);
    CHECK_INVALID(qw_geo_point_in_polygon(square, 0, 1.0f, 1.0f, &single));
    CHECK_INVALID(qw_geo_point_in_polygon(NULL, 5, 1.0f, 1.0f, &single));
    CHECK_INVALID(qw_geo_point_in_polygon(square, -5, 1.0f, 1.0f, &single));
    CHECK_INVALID(qw_geo_points_in_polygon(square, 5, grid, -1, inside));
    CHECK_INVALID(qw_geo_points_in_polygon(square, 5, grid, 4, NULL));
    CHECK_OK(qw_geo_points_in_polygon(square, 5, NULL, 0, NULL));

    CHECK_OK(qw_geo_bounding_box(square, 5, &box));
    CHECK(box.x == 0 && box.y == 0 && box.width == 100 && box.height == 100);
    CHECK_OK(qw_geo_bounding_box(NULL, 0, &box));
    CHECK(box.x == 0 && box.y == 0 && box.width == 1 && box.height == 1);
    CHECK_INVALID(qw_geo_bounding_box(square, -1, &box));

    CHECK_OK(qw_geo_cover_polygon(square, 5, &area, 0, NULL, 0, &rects, &rect_count));
    CHECK(rect_count > 0 && rects != NULL);
    for (i = 0; i < rect_count; ++i)
        CHECK(rects[i].x >= 0 && rects[i].y >= 0 && rects[i].x + rects[i].width <= 100 &&
              rects[i].y + rects[i].height <= 100);
    qw_free(rects);
    CHECK_INVALID(qw_geo_cover_polygon(square, 0, &area, 0, NULL, 0, &rects, &rect_count));
    CHECK_INVALID(qw_geo_cover_polygon(square, 5, NULL, 0, NULL, 0, &rects, &rect_count));
    CHECK_INVALID(qw_geo_cover_polygon(square, 5, &area, 0, NULL, 3, &rects, &rect_count));

    CHECK_OK(qw_geo_hatch(square, 4, 10, &segments, &segment_count, &group_sizes, &group_count));
    CHECK(group_count > 5 && segment_count >= group_count);
    for (i = 0; i < group_count; ++i) sum += group_sizes[i];
    CHECK(sum == segment_count);
    for (i = 0; i < segment_count; ++i)
        CHECK(segments[i].start.y == segments[i].end.y && segments[i].start.x <= segments[i].end.x);
    qw_free(segments);
    qw_free(group_sizes);
    CHECK_OK(qw_geo_hatch(square, 2, 10, &segments, &segment_count, &group_sizes, &group_count));
    CHECK(segment_count == 0 && group_count == 0 && segments == NULL && group_sizes == NULL);
    CHECK_INVALID(qw_geo_hatch(square, 4, 10, NULL, &segment_count, &group_sizes, &group_count));

    {
        /* Three calibration points: device = camera * 2 + (5, -5). */
        const qw_calibration_point cal[] = {
            {{0, 0}, {5, -5}}, {{10, 0}, {25, -5}}, {{0, 10}, {5, 15}}};
        qw_point one, many[3];
        const qw_point camera[] = {{1, 1}, {3, 7}, {-2, 4}};
        CHECK_OK(qw_geo_transform(cal, 3, 3.0f, 7.0f, &one));
        CHECK(fabsf(one.x - 11.0f) < 1e-4f && fabsf(one.y - 9.0f) < 1e-4f);
        CHECK_OK(qw_geo_transform_many(cal, 3, camera, 3, many));
        for (i = 0; i < 3; ++i) {
            CHECK_OK(qw_geo_transform(cal, 3, camera[i].x, camera[i].y, &one));
            CHECK(memcmp(&one, &many[i], sizeof one) == 0);
        }
        CHECK_OK(qw_geo_transform(cal, 2, 3.0f, 7.0f, &one)); /* any other count: (0, 0) */
        CHECK(one.x == 0.0f && one.y == 0.0f);
        CHECK_INVALID(qw_geo_transform(cal, -3, 3.0f, 7.0f, &one));
        CHECK_INVALID(qw_geo_transform_many(cal, 3, camera, 3, NULL));
    }
}

/* INI files, here under a name with non-ASCII letters given in UTF-8. */
static void test_ini(void) {
    const char* name =
        "qw-capi-Pr\xC3\xBC"
        "fung-Ger\xC3\xA4t.ini";
    char buffer[256];
    int32_t needed = 0, exists = -1, count = -1;
    qw_strings* names = NULL;
    qw_ini_records* records = NULL;

    utf8_remove(name);
    CHECK_STATUS(qw_ini_set_value(name, "Main", "Port", "COM3"), QW_ERR_FAILED); /* not created */
    CHECK_OK(qw_ini_create(name));
    CHECK_OK(qw_ini_add_section(name, "Main"));
    CHECK_OK(qw_ini_set_value(name, "Main", "Port", "COM3"));
    CHECK_OK(qw_ini_set_value(name, "Main", "Baud", "115200"));
    CHECK_OK(qw_ini_set_value(name, "Extra", "Name", "Ger\xC3\xA4t 1"));
    CHECK_OK(qw_ini_get_value(name, "Main", "Port", buffer, sizeof buffer, &needed));
    CHECK(strcmp(buffer, "COM3") == 0 && needed == 5);
    CHECK_OK(qw_ini_get_value(name, "Extra", "Name", buffer, sizeof buffer, NULL));
    CHECK(strcmp(buffer, "Ger\xC3\xA4t 1") == 0);
    CHECK_OK(qw_ini_get_value(name, "Main", "Missing", buffer, sizeof buffer, &needed));
    CHECK(buffer[0] == '\0' && needed == 1);
    CHECK_OK(qw_ini_record_exists(name, "Main", "Missing", &exists));
    CHECK(exists == 0);
    CHECK_OK(qw_ini_section_exists(name, "Extra", &exists));
    CHECK(exists == 1);

    CHECK_OK(qw_ini_section_names(name, &names));
    CHECK_OK(qw_strings_count(names, &count));
    CHECK(count == 2);
    CHECK_OK(qw_strings_get(names, 1, buffer, sizeof buffer, NULL));
    CHECK(strcmp(buffer, "Extra") == 0);
    CHECK_OK(qw_strings_free(names));

    CHECK_OK(qw_ini_set_record_comments(name, "Main", "Baud", "# line rate\n"));
    CHECK_OK(qw_ini_comment_record(name, "Main", "Port", ';'));
    CHECK_INVALID(qw_ini_comment_record(name, "Main", "Port", 'x'));
    CHECK_OK(qw_ini_get_section(name, "Main", &records));
    CHECK_OK(qw_ini_records_count(records, &count));
    CHECK(count == 2); /* the keys, the commented-out one included; not the header */
    /* A new key goes to the top of its section: Baud, then Port. */
    CHECK_OK(qw_ini_records_get(records, 1, QW_INI_FIELD_KEY, buffer, sizeof buffer, NULL));
    CHECK(strcmp(buffer, "Port") == 0);
    CHECK_OK(qw_ini_records_get(records, 1, QW_INI_FIELD_COMMENTED, buffer, sizeof buffer, NULL));
    CHECK(strcmp(buffer, ";") == 0);
    CHECK_OK(qw_ini_records_get(records, 0, QW_INI_FIELD_COMMENTS, buffer, sizeof buffer, NULL));
    CHECK(strcmp(buffer, "# line rate\n") == 0);
    CHECK_OK(qw_ini_records_get(records, 0, QW_INI_FIELD_SECTION, buffer, sizeof buffer, NULL));
    CHECK(strcmp(buffer, "Main") == 0);
    CHECK_INVALID(qw_ini_records_get(records, 1, 99, buffer, sizeof buffer, NULL));
    CHECK_INVALID(qw_ini_records_get(records, 2, QW_INI_FIELD_KEY, buffer, sizeof buffer, NULL));
    CHECK_OK(qw_ini_records_free(records));
    CHECK_OK(qw_ini_uncomment_record(name, "Main", "Port"));
    CHECK_OK(qw_ini_get_record(name, "Main", "Port", &records));
    CHECK_OK(qw_ini_records_get(records, 0, QW_INI_FIELD_VALUE, buffer, sizeof buffer, NULL));
    CHECK(strcmp(buffer, "COM3") == 0);
    CHECK_OK(qw_ini_records_free(records));

    /* A whole section commented out and back, with comments of its own. */
    CHECK_OK(qw_ini_set_section_comments(name, "Extra", "; extra settings\n"));
    CHECK_OK(qw_ini_comment_section(name, "Extra", '#'));
    CHECK_OK(qw_ini_get_record(name, "Extra", "Name", &records));
    CHECK_OK(qw_ini_records_get(records, 0, QW_INI_FIELD_COMMENTED, buffer, sizeof buffer, NULL));
    CHECK(strcmp(buffer, "#") == 0);
    CHECK_OK(qw_ini_records_free(records));
    CHECK_INVALID(qw_ini_comment_section(name, "Extra", 0));
    CHECK_OK(qw_ini_uncomment_section(name, "Extra"));
    CHECK_OK(qw_ini_get_section(name, "Extra", &records));
    CHECK_OK(qw_ini_records_get(records, 0, QW_INI_FIELD_COMMENTED, buffer, sizeof buffer, NULL));
    CHECK(strcmp(buffer, " ") == 0);
    CHECK_OK(qw_ini_records_free(records));
    CHECK_OK(qw_ini_content(name, buffer, sizeof buffer, NULL));
    CHECK(strstr(buffer, "; extra settings\n[Extra]\n") != NULL);
    CHECK_OK(qw_ini_set_section_comments(name, "Extra", ""));

    CHECK_OK(qw_ini_rename_section(name, "Extra", "Other"));
    CHECK_OK(qw_ini_delete_record(name, "Main", "Baud"));
    CHECK_OK(qw_ini_sort(name, 1));
    CHECK_STATUS(qw_ini_content(name, buffer, 4, &needed), QW_ERR_BUFFER_TOO_SMALL);
    CHECK(needed > 4 && needed < (int32_t)sizeof buffer);
    CHECK_OK(qw_ini_content(name, buffer, needed, NULL));
    CHECK(strcmp(buffer, "[Other]\nName=Ger\xC3\xA4t 1\n[Main]\nPort=COM3\n") == 0);
    {
        /* The file exists under its real (Unicode) name. */
        long size = 0;
        unsigned char* bytes = read_file(name, &size);
        CHECK(bytes != NULL && size > 20 && memcmp(bytes, " [Other]", 8) == 0);
        free(bytes);
    }
    CHECK_OK(qw_ini_delete_section(name, "Other"));
    CHECK_OK(qw_ini_section_exists(name, "Other", &exists));
    CHECK(exists == 0);

    CHECK_INVALID(qw_ini_get_value(NULL, "Main", "Port", buffer, sizeof buffer, NULL));
    CHECK_INVALID(qw_ini_get_value(name, NULL, "Port", buffer, sizeof buffer, NULL));
    CHECK_INVALID(qw_ini_set_value(name, "Main", "Port", NULL));
    CHECK_INVALID(qw_ini_section_names(name, NULL));

    /* A malformed line makes reading fail with QW_ERR_FORMAT, and an edit writes nothing. */
    CHECK(write_text(name, " [Main\n Port=COM3\n"));
    CHECK_STATUS(qw_ini_get_value(name, "Main", "Port", buffer, sizeof buffer, NULL),
                 QW_ERR_FORMAT);
    CHECK_STATUS(qw_ini_set_value(name, "Main", "Port", "COM4"), QW_ERR_FORMAT);
    CHECK(utf8_remove(name) == 0);
}

static void test_port_details(void) {
    /* The details come in the listing's order, a whole number of fields per port, each port's
     * first field its name. */
    qw_strings* names = NULL;
    qw_strings* details = NULL;
    int32_t fields = 0, count = 0, detailCount = 0, i;
    char name[256], detail[256];
    CHECK_INVALID(qw_port_list_details(NULL, &details));
    CHECK_INVALID(qw_port_list_details(&fields, NULL));
    CHECK_OK(qw_port_list(&names));
    CHECK_OK(qw_port_list_details(&fields, &details));
    CHECK(fields >= 9);
    CHECK_OK(qw_strings_count(names, &count));
    CHECK_OK(qw_strings_count(details, &detailCount));
    CHECK(detailCount == count * fields);
    for (i = 0; i < count && detailCount == count * fields; ++i) {
        CHECK_OK(qw_strings_get(names, i, name, sizeof name, NULL));
        CHECK_OK(
            qw_strings_get(details, i * fields + QW_PORT_FIELD_NAME, detail, sizeof detail, NULL));
        CHECK(strcmp(name, detail) == 0);
        CHECK_OK(qw_strings_get(details, i * fields + QW_PORT_FIELD_VENDOR_ID, detail,
                                sizeof detail, NULL));
        CHECK(strlen(detail) == 0 || strlen(detail) == 4);
    }
    CHECK_OK(qw_strings_free(details));
    CHECK_OK(qw_strings_free(names));
}

int main(void) {
    test_version();
    test_port_details();
    test_handles();
    test_handle_arguments();
    test_strings_out();
    test_crc();
    test_lut();
    test_geometry();
    test_ini();
    return check_report("capi_test");
}
