/* A program built the way Visual Studio builds one (Microsoft ABI object, Microsoft-format
 * import library, no mingw runtime), calling the DLL. No C runtime either: its own entry point,
 * the verdict as the exit code. */
#include "quelworks/quelworks_c.h"

__declspec(dllimport) void __stdcall ExitProcess(unsigned int code);

void __stdcall start(void) {
    uint16_t crc = 0;
    int32_t major = 0;
    char text[16];
    int32_t needed = 0;
    int ok = 1;
    qw_version(&major, 0, 0);
    ok &= major == QW_VERSION_MAJOR;
    ok &= qw_crc16(QW_CRC_INIT_ALL_ONES, (const uint8_t*)"123456789", 9, &crc) == QW_OK;
    ok &= crc == 0x29B1;
    ok &= qw_convert_int_to_text(-7, text, 1, &needed) == QW_ERR_BUFFER_TOO_SMALL && needed == 3;
    ok &= qw_port_close((qw_port*)0) == QW_ERR_INVALID_ARGUMENT;
    ExitProcess(ok ? 0 : 1);
}
