// The user's locale settings that the library needs, one implementation per OS
// (locale_posix.cpp, locale_win32.cpp).
#ifndef QUELWORKS_SRC_PLATFORM_LOCALE_H
#define QUELWORKS_SRC_PLATFORM_LOCALE_H

#include <string>

namespace quelworks::platform {

// The decimal separator of the user's locale as a one-character string: the low byte of the
// separator's first character. "." when the locale cannot be read.
std::string userDecimalSeparator();

}  // namespace quelworks::platform

#endif  // QUELWORKS_SRC_PLATFORM_LOCALE_H
