/* The header compiles as C99 with pedantic warnings, and its types are what binders rely on. */
#include "quelworks/quelworks_c.h"

typedef char qw_point_is_two_floats[sizeof(qw_point) == 2 * sizeof(float) ? 1 : -1];
typedef char qw_segment_is_two_points[sizeof(qw_segment) == 2 * sizeof(qw_point) ? 1 : -1];
typedef char qw_status_is_32_bits[sizeof(qw_status) == 4 ? 1 : -1];

int qw_header_c99_version(void) {
    return QW_VERSION_NUMBER;
}
