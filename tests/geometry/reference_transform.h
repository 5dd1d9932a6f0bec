// Straightforward versions of the camera-to-device transformation, for comparing the library's
// results against (tests) and its speed (benchmarks).
//
// - nearestIndex / neighbourTriangle: the choice of the three calibration points written as a
//   plain scan over a vector, independent of the list sort the library uses.
// - literalTransform: the whole procedure done the obvious way with the library's list: a second
//   copy of the calibration list for the selection, a ranking list sorted with msort, indexed
//   access with operator[], and the three chosen points returned as a list of their own.
#ifndef QUELWORKS_TESTS_GEOMETRY_REFERENCE_TRANSFORM_H
#define QUELWORKS_TESTS_GEOMETRY_REFERENCE_TRANSFORM_H

#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include "quelworks/geometry/coordinate_transformation.h"
#include "quelworks/geometry/shapes.h"
#include "quelworks/geometry/vector2f.h"
#include "quelworks/util/rlist.h"

namespace reference {

inline float cameraDistance(const CalibrationPoint& c, Vector2f p) {
    const float dy = c.camera.y - p.y;
    const float dx = c.camera.x - p.x;
    return std::sqrt(dy * dy + dx * dx);
}

// The first calibration point at the smallest distance (finite coordinates only).
inline int nearestIndex(Vector2f p, const std::vector<CalibrationPoint>& points) {
    int best = 0;
    for (int i = 1; i < static_cast<int>(points.size()); ++i) {
        if (cameraDistance(points[i], p) < cameraDistance(points[best], p)) best = i;
    }
    return best;
}

// Positions of (nearest, horizontal neighbour, vertical neighbour) in a k x k grid list.
inline std::array<int, 3> neighbourTriangle(Vector2f p,
                                            const std::vector<CalibrationPoint>& points) {
    const int n = static_cast<int>(points.size());
    const int k = static_cast<int>(std::lround(std::sqrt(static_cast<double>(n))));
    const int m = nearestIndex(p, points);
    const Vector2f c = points[m].camera;
    int h = (p.x > c.x) ? m + 1 : m - 1;
    if (h < 0) h = m + 1;
    if (h >= n) h = m - 1;
    int v = (p.y > c.y) ? m + k : m - k;
    if (v < 0) v = m + k;
    if (v >= n) v = m - k;
    return {m, h, v};
}

inline RList<CalibrationPoint> toList(const std::vector<CalibrationPoint>& points) {
    RList<CalibrationPoint> list;
    for (const CalibrationPoint& c : points) list.push_back(c);
    return list;
}

inline std::int32_t byDistance(SortObject left, SortObject right) {
    if (left.distance < right.distance) return -1;
    if (left.distance == right.distance) return 0;
    return 1;
}

inline RList<CalibrationPoint> literalSelect(Vector2f p, RList<CalibrationPoint> points) {
    RList<CalibrationPoint> result;
    const int n = points.length();
    if (n == 3) {
        result.push_back(points[0]);
        result.push_back(points[1]);
        result.push_back(points[2]);
        return result;
    }
    const int k = static_cast<int>(std::sqrt(static_cast<float>(n)));
    RList<SortObject> ranking;
    for (int i = 0; i < n; ++i) {
        const Vector2f c = points[i].camera;
        ranking.push_back(
            SortObject{i, std::sqrt((c.y - p.y) * (c.y - p.y) + (c.x - p.x) * (c.x - p.x))});
    }
    ranking.msort(CompareStruct<SortObject>{byDistance});
    const int m = ranking[0].index;
    int h = (p.x > points[m].camera.x) ? m + 1 : m - 1;
    if (h < 0) h = m + 1;
    if (h >= n) h = m - 1;
    int v = (p.y > points[m].camera.y) ? m + k : m - k;
    if (v < 0) v = m + k;
    if (v >= n) v = m - k;
    result.push_back(points[m]);
    result.push_back(points[h]);
    result.push_back(points[v]);
    return result;
}

inline Vector2f literalTransform(Vector2f p, RList<CalibrationPoint> points) {
    const int n = points.length();
    const float s = std::sqrt(static_cast<float>(n));
    if (!(n == 3 || (n >= 3 && static_cast<float>(static_cast<int>(s)) == s))) return Vector2f();
    RList<CalibrationPoint> t = literalSelect(p, points);
    const double cx0 = t[0].camera.x, cy0 = t[0].camera.y, dx0 = t[0].device.x, dy0 = t[0].device.y;
    const double cx1 = t[1].camera.x, cy1 = t[1].camera.y, dx1 = t[1].device.x, dy1 = t[1].device.y;
    const double cx2 = t[2].camera.x, cy2 = t[2].camera.y, dx2 = t[2].device.x, dy2 = t[2].device.y;
    const double u1 = cx0 - cx1;
    const double u2 = cx0 - cx2;
    const double den = (cy0 - cy2) * u1 - (cy0 - cy1) * u2;
    double B = 0;
    if (den != 0) B = ((dx0 - dx2) * u1 - (dx0 - dx1) * u2) / den;
    const double A =
        (u1 != 0) ? ((dx0 - dx1) - (cy0 - cy1) * B) / u1 : ((dx0 - dx2) - (cy0 - cy2) * B) / u2;
    double D = 0;
    if (den != 0) D = ((dy0 - dy2) * u1 - (dy0 - dy1) * u2) / den;
    const double C =
        (u1 != 0) ? ((dy0 - dy1) - (cy0 - cy1) * D) / u1 : ((dy0 - dy2) - (cy0 - cy2) * D) / u2;
    const double E = dx0 - cx0 * A - cy0 * B;
    const double F = dy0 - cx0 * C - cy0 * D;
    return Vector2f(
        static_cast<float>(static_cast<double>(p.x) * A + static_cast<double>(p.y) * B + E),
        static_cast<float>(static_cast<double>(p.x) * C + static_cast<double>(p.y) * D + F));
}

}  // namespace reference

#endif  // QUELWORKS_TESTS_GEOMETRY_REFERENCE_TRANSFORM_H
