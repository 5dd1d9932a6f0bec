#include "quelworks/util/conversions.h"

#include <sstream>

std::string convertInt(int value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

std::string convertFloat(float value) {
    std::ostringstream out;
    out << static_cast<double>(value);
    return out.str();
}

std::string convertBool(bool value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

// An empty or all-blank text stores nothing in the stream; the target starts at 0 so the result is
// 0 then rather than an indeterminate value.
int convertStringToInt(std::string text) {
    std::istringstream in(text);
    int value = 0;
    in >> value;
    return value;
}

float convertStringToFloat(std::string text) {
    std::istringstream in(text);
    float value = 0.0f;
    in >> value;
    return value;
}

bool convertStringToBool(std::string text) {
    static const char kTrue[] = "true";
    const std::size_t n = text.size() < 4 ? text.size() : 4;
    if (text.compare(0, n, kTrue, n) != 0) return false;
    return text.size() == 4;
}
