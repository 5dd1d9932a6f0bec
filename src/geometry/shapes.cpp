#include "quelworks/geometry/shapes.h"

#include <cmath>

#include "geometry/float_to_int.h"

Vector2f LineSegment::Mid() {
    return Vector2f((end.x - start.x) * 0.5f + start.x, (end.y - start.y) * 0.5f + start.y);
}

int LineSegment::Length() {
    const float dx = end.x - start.x;
    const float dy = end.y - start.y;
    return quelworks::detail::truncateToInt(std::sqrt(dx * dx + dy * dy));
}

CalibrationPoint CalibrationPoint::Clone() {
    return CalibrationPoint(camera, device);
}

QUELWORKS_TEMPLATE RList<CalibrationPoint>;
