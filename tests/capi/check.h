/* A few checking macros for the C tests of the C interface: each failed check is reported with
 * its place, the status text and the library's last error message, and counted. */
#ifndef QUELWORKS_TESTS_CAPI_CHECK_H
#define QUELWORKS_TESTS_CAPI_CHECK_H

#include <stdio.h>
#include <stdlib.h>

#include "quelworks/quelworks_c.h"

#if defined(_WIN32)
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#endif

static int check_failures = 0;
static int check_count = 0;

#define CHECK(cond)                                                                  \
    do {                                                                             \
        ++check_count;                                                               \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++check_failures;                                                        \
        }                                                                            \
    } while (0)

#define CHECK_STATUS(expr, expected)                                                            \
    do {                                                                                        \
        qw_status check_s_ = (expr);                                                            \
        ++check_count;                                                                          \
        if (check_s_ != (expected)) {                                                           \
            fprintf(stderr, "%s:%d: %s\n  gave %s (\"%s\"), expected %s\n", __FILE__, __LINE__, \
                    #expr, qw_status_text(check_s_), qw_last_error_message(),                   \
                    qw_status_text(expected));                                                  \
            ++check_failures;                                                                   \
        }                                                                                       \
    } while (0)

#define CHECK_OK(expr) CHECK_STATUS(expr, QW_OK)
#define CHECK_INVALID(expr) CHECK_STATUS(expr, QW_ERR_INVALID_ARGUMENT)

/* fopen and remove for UTF-8 names, as the library takes them (the C runtime's own functions
 * read narrow names in the ANSI code page on Windows). */
static FILE* utf8_fopen(const char* name, const char* mode) {
#if defined(_WIN32)
    wchar_t wname[512], wmode[8];
    if (!MultiByteToWideChar(CP_UTF8, 0, name, -1, wname, 512)) return NULL;
    if (!MultiByteToWideChar(CP_UTF8, 0, mode, -1, wmode, 8)) return NULL;
    return _wfopen(wname, wmode);
#else
    return fopen(name, mode);
#endif
}

static int utf8_remove(const char* name) {
#if defined(_WIN32)
    wchar_t wname[512];
    if (!MultiByteToWideChar(CP_UTF8, 0, name, -1, wname, 512)) return -1;
    return _wremove(wname);
#else
    return remove(name);
#endif
}

static int write_file(const char* name, const void* data, size_t size) {
    FILE* f = utf8_fopen(name, "wb");
    size_t written;
    if (!f) return 0;
    written = fwrite(data, 1, size, f);
    return fclose(f) == 0 && written == size;
}

/* The whole file in a malloc'ed block (free it), or NULL. */
static unsigned char* read_file(const char* name, long* size) {
    FILE* f = utf8_fopen(name, "rb");
    unsigned char* data;
    long n;
    if (!f) return NULL;
    fseek(f, 0, SEEK_END);
    n = ftell(f);
    fseek(f, 0, SEEK_SET);
    data = (unsigned char*)malloc(n > 0 ? (size_t)n : 1);
    if (data && n > 0 && fread(data, 1, (size_t)n, f) != (size_t)n) {
        free(data);
        data = NULL;
    }
    fclose(f);
    *size = n;
    return data;
}

/* Ends the program with the tally. */
static int check_report(const char* program) {
    if (check_failures) {
        fprintf(stderr, "%s: %d of %d checks failed\n", program, check_failures, check_count);
        return 1;
    }
    printf("%s: all %d checks passed\n", program, check_count);
    return 0;
}

#endif /* QUELWORKS_TESTS_CAPI_CHECK_H */
