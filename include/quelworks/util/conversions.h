/// \file
/// Conversions between numbers, booleans and narrow text, with the semantics of a
/// default-configured string stream: "%g"-style floats with 6 significant digits, lenient prefix
/// parsing, and booleans written as "1"/"0" but read back as true only from the exact word "true".
#ifndef QUELWORKS_UTIL_CONVERSIONS_H
#define QUELWORKS_UTIL_CONVERSIONS_H

#include <string>

#include "quelworks/export.h"

/// The decimal text of value ("-42").
QUELWORKS_API std::string convertInt(int value);
/// value with 6 significant digits, as "%g" writes it ("3.14159", "1e+07").
QUELWORKS_API std::string convertFloat(float value);
/// "1" for true, "0" for false (which convertStringToBool does not read back as true).
QUELWORKS_API std::string convertBool(bool value);
/// The int at the start of text (leading blanks skipped, the rest ignored); 0 when none.
QUELWORKS_API int convertStringToInt(std::string text);
/// The float at the start of text (leading blanks skipped, the rest ignored); 0 when none.
QUELWORKS_API float convertStringToFloat(std::string text);
/// True only for the exact word "true"; "1", "TRUE" and everything else give false.
QUELWORKS_API bool convertStringToBool(std::string text);

#endif  // QUELWORKS_UTIL_CONVERSIONS_H
