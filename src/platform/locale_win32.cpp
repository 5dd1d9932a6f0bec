// The user's decimal separator on Windows: the user-default locale's LOCALE_SDECIMAL.
#include "platform/windows_include.h"

#include "platform/locale.h"

namespace quelworks::platform {

std::string userDecimalSeparator() {
    wchar_t buffer[8] = {};
    if (GetLocaleInfoW(LOCALE_USER_DEFAULT, LOCALE_SDECIMAL, buffer, 8) == 0 || buffer[0] == 0) {
        return ".";
    }
    // The low byte of the first character, as a one-character string.
    return std::string(1, static_cast<char>(static_cast<unsigned>(buffer[0]) & 0xFF));
}

}  // namespace quelworks::platform
