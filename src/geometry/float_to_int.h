// Float to int conversion by truncation toward zero, as the x86 truncating conversion does it:
// values outside the int range (and NaN) give INT_MIN. Written with an explicit range check so the
// result never depends on the compiler or optimisation level.
#ifndef QUELWORKS_GEOMETRY_FLOAT_TO_INT_H
#define QUELWORKS_GEOMETRY_FLOAT_TO_INT_H

#include <climits>

namespace quelworks {
namespace detail {

inline int truncateToInt(float value) {
    // -2^31 and 2^31 are exact floats; NaN fails both comparisons.
    if (value >= -2147483648.0f && value < 2147483648.0f) return static_cast<int>(value);
    return INT_MIN;
}

inline int truncateToInt(double value) {
    // Anything above -2^31 - 1 and below 2^31 truncates into range.
    if (value > -2147483649.0 && value < 2147483648.0) return static_cast<int>(value);
    return INT_MIN;
}

}  // namespace detail
}  // namespace quelworks

#endif  // QUELWORKS_GEOMETRY_FLOAT_TO_INT_H
