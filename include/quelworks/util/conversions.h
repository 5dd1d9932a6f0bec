// Conversions between numbers, booleans and narrow text, with the semantics of a default-configured
// string stream: "%g"-style floats with 6 significant digits, lenient prefix parsing, and booleans
// written as "1"/"0" but read back as true only from the exact word "true".
#ifndef QUELWORKS_UTIL_CONVERSIONS_H
#define QUELWORKS_UTIL_CONVERSIONS_H

#include <string>

#include "quelworks/export.h"

QUELWORKS_API std::string convertInt(int value);
QUELWORKS_API std::string convertFloat(float value);
QUELWORKS_API std::string convertBool(bool value);
QUELWORKS_API int convertStringToInt(std::string text);
QUELWORKS_API float convertStringToFloat(std::string text);
QUELWORKS_API bool convertStringToBool(std::string text);

#endif  // QUELWORKS_UTIL_CONVERSIONS_H
