// A literal version of the camera-to-device transformation, for comparing the library's results
// against (tests) and its speed (benchmarks): a second copy of the calibration list for the
// selection, a ranking list sorted with msort, indexed access with operator[], and the three
// chosen points returned as a list of their own.
#ifndef QUELWORKS_TESTS_GEOMETRY_REFERENCE_TRANSFORM_H
#define QUELWORKS_TESTS_GEOMETRY_REFERENCE_TRANSFORM_H

#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include "quelworks/geometry/shapes.h"
#include "quelworks/util/rlist.h"

namespace reference {

inline RList<CalibrationPoint> toList(const std::vector<CalibrationPoint>& points) {
    RList<CalibrationPoint> list;
    for (const CalibrationPoint& c : points) list.push_back(c);
    return list;
}

// List positions (m, horizontal neighbour, vertical neighbour) around the nearest point m of a
// k x k grid of n points, on p's side, wrapping across row ends.
inline std::array<int, 3> neighbours(int m, Vector2f p, Vector2f nearest, int n, int k) {
    int h = p.x > nearest.x ? m + 1 : m - 1;
    if (h < 0) h = m + 1;
    if (h >= n) h = m - 1;
    int v = p.y > nearest.y ? m + k : m - k;
    if (v < 0) v = m + k;
    if (v >= n) v = m - k;
    return {m, h, v};
}

inline std::int32_t byDistance(SortObject left, SortObject right) {
    return left.distance < right.distance ? -1 : left.distance == right.distance ? 0 : 1;
}

inline RList<CalibrationPoint> literalSelect(Vector2f p, RList<CalibrationPoint> points) {
    const int n = points.length();
    std::array<int, 3> t{0, 1, 2};
    if (n != 3) {
        RList<SortObject> ranking;
        for (int i = 0; i < n; ++i) {
            const Vector2f c = points[i].camera;
            ranking.push_back(
                SortObject{i, std::sqrt((c.y - p.y) * (c.y - p.y) + (c.x - p.x) * (c.x - p.x))});
        }
        ranking.msort(CompareStruct<SortObject>{byDistance});
        const int m = ranking[0].index;
        t = neighbours(m, p, points[m].camera, n,
                       static_cast<int>(std::sqrt(static_cast<float>(n))));
    }
    RList<CalibrationPoint> result;
    for (int i : t) result.push_back(points[i]);
    return result;
}

inline Vector2f literalTransform(Vector2f p, RList<CalibrationPoint> points) {
    const int n = points.length();
    const float s = std::sqrt(static_cast<float>(n));
    if (!(n == 3 || (n >= 3 && static_cast<float>(static_cast<int>(s)) == s))) return Vector2f();
    RList<CalibrationPoint> t = literalSelect(p, points);
    const double cx0 = t[0].camera.x, cy0 = t[0].camera.y;
    const double u1 = cx0 - t[1].camera.x, u2 = cx0 - t[2].camera.x;
    const double w1 = cy0 - t[1].camera.y, w2 = cy0 - t[2].camera.y, den = w2 * u1 - w1 * u2;
    // One device coordinate: a * cx + b * cy + e through the three pairs, b = 0 when collinear.
    auto solve = [&](double d0, double d1, double d2) {
        const double b = den != 0 ? ((d0 - d2) * u1 - (d0 - d1) * u2) / den : 0;
        const double a = u1 != 0 ? ((d0 - d1) - w1 * b) / u1 : ((d0 - d2) - w2 * b) / u2;
        const double e = d0 - cx0 * a - cy0 * b;
        return static_cast<float>(static_cast<double>(p.x) * a + static_cast<double>(p.y) * b + e);
    };
    return Vector2f(solve(t[0].device.x, t[1].device.x, t[2].device.x),
                    solve(t[0].device.y, t[1].device.y, t[2].device.y));
}

}  // namespace reference

#endif  // QUELWORKS_TESTS_GEOMETRY_REFERENCE_TRANSFORM_H
