/* The C interface through the installed package, from a C program; exits non-zero on a
 * mismatch. */
#include <quelworks/quelworks_c.h>

#include <stdio.h>
#include <string.h>

int main(void) {
    int failures = 0;
    uint16_t crc = 0;
    char text[16];
    int32_t major = 0;
    if (qw_crc16(QW_CRC_INIT_ALL_ONES, (const uint8_t*)"123456789", 9, &crc) != QW_OK ||
        crc != 0x29B1)
        ++failures;
    if (qw_convert_float_to_text(3.14159265f, text, sizeof text, NULL) != QW_OK ||
        strcmp(text, "3.14159") != 0)
        ++failures;
    qw_version(&major, NULL, NULL);
    if (major != QW_VERSION_MAJOR) ++failures;
    printf("consumer (C interface): %s\n", failures == 0 ? "ok" : "FAILED");
    return failures == 0 ? 0 : 1;
}
