// The user's decimal separator on POSIX systems: the radix character of the LC_NUMERIC category
// of the user's environment (LC_ALL, LC_NUMERIC, LANG), whatever the process's own locale is.
#include <langinfo.h>
#include <locale.h>

#include "platform/locale.h"

namespace quelworks::platform {

namespace {

// The code point of the first character of a UTF-8 text, or its first byte when that does not
// start a well-formed sequence.
unsigned firstCharacter(const unsigned char* s) {
    const unsigned lead = s[0];
    int extra = 0;
    unsigned cp = lead;
    if (lead >= 0xF0 && lead < 0xF8) {
        extra = 3;
        cp = lead & 0x07;
    } else if (lead >= 0xE0) {
        extra = 2;
        cp = lead & 0x0F;
    } else if (lead >= 0xC0) {
        extra = 1;
        cp = lead & 0x1F;
    }
    if (lead >= 0xF8 || (lead >= 0x80 && lead < 0xC0)) return lead;
    for (int i = 1; i <= extra; ++i) {
        if ((s[i] & 0xC0) != 0x80) return lead;
        cp = (cp << 6) | (s[i] & 0x3F);
    }
    return cp;
}

}  // namespace

std::string userDecimalSeparator() {
    locale_t user = newlocale(LC_NUMERIC_MASK, "", static_cast<locale_t>(0));
    if (user == static_cast<locale_t>(0)) return ".";
    std::string separator = ".";
    const char* radix = nl_langinfo_l(RADIXCHAR, user);
    if (radix != nullptr && radix[0] != '\0') {
        // Like the Windows query: the low byte of the first character.
        const unsigned cp = firstCharacter(reinterpret_cast<const unsigned char*>(radix));
        separator.assign(1, static_cast<char>(cp & 0xFF));
    }
    freelocale(user);
    return separator;
}

}  // namespace quelworks::platform
