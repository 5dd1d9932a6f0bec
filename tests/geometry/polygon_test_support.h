// Random polygons and rectangles for the polygon tests.
#ifndef QUELWORKS_TESTS_GEOMETRY_POLYGON_TEST_SUPPORT_H
#define QUELWORKS_TESTS_GEOMETRY_POLYGON_TEST_SUPPORT_H

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "quelworks/geometry/shapes.h"
#include "quelworks/geometry/vector2f.h"

namespace polygon_test {

// A star-shaped polygon around (cx, cy) with integer vertices, closed by repeating the first.
inline std::vector<pointf> starPolygon(std::mt19937& rng, float cx, float cy, float rmin,
                                       float rmax, int n, bool integral = true) {
    std::uniform_real_distribution<float> radius(rmin, rmax);
    std::vector<pointf> p;
    for (int i = 0; i < n; ++i) {
        const double angle = 2.0 * 3.14159265358979 * i / n;
        float x = cx + radius(rng) * static_cast<float>(std::cos(angle));
        float y = cy + radius(rng) * static_cast<float>(std::sin(angle));
        if (integral) {
            x = std::round(x);
            y = std::round(y);
        }
        p.push_back(pointf(x, y));
    }
    p.push_back(p.front());
    return p;
}

// The regular star used by the benchmarks: alternating outer and inner radius.
inline std::vector<pointf> regularStar(int vertices, float cx, float cy, float outer, float inner) {
    std::vector<pointf> p;
    for (int i = 0; i < vertices; ++i) {
        const double angle = 2.0 * 3.14159265358979 * i / vertices;
        const float r = i % 2 == 0 ? outer : inner;
        p.push_back(pointf(cx + r * static_cast<float>(std::cos(angle)),
                           cy + r * static_cast<float>(std::sin(angle))));
    }
    p.push_back(p.front());
    return p;
}

// Any chain of points (self-intersecting, open or closed), on a coarse grid so that exact hits of
// vertices, shared y values and horizontal edges are common.
inline std::vector<pointf> randomChain(std::mt19937& rng, int n, float extent, bool closed) {
    std::uniform_int_distribution<int> coord(0, static_cast<int>(extent));
    std::uniform_int_distribution<int> frac(0, 3);
    std::vector<pointf> p;
    for (int i = 0; i < n; ++i) {
        p.push_back(pointf(static_cast<float>(coord(rng)) + 0.25f * static_cast<float>(frac(rng)),
                           static_cast<float>(coord(rng)) + 0.25f * static_cast<float>(frac(rng))));
    }
    if (closed && !p.empty()) p.push_back(p.front());
    return p;
}

// Unusual coordinates mixed in: NaN, infinities, -0, huge values.
inline float oddValue(std::mt19937& rng) {
    static const float values[] = {std::numeric_limits<float>::quiet_NaN(),
                                   std::numeric_limits<float>::infinity(),
                                   -std::numeric_limits<float>::infinity(),
                                   -0.0f,
                                   0.0f,
                                   1e10f,
                                   -3e9f,
                                   46341.0f,
                                   2147483648.0f};
    return values[std::uniform_int_distribution<int>(0, 8)(rng)];
}

inline bool sameBits(float a, float b) {
    std::uint32_t x, y;
    std::memcpy(&x, &a, 4);
    std::memcpy(&y, &b, 4);
    return x == y;
}

inline bool sameRects(const std::vector<rectanglef>& a, const std::vector<rectanglef>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (!sameBits(a[i].x, b[i].x) || !sameBits(a[i].y, b[i].y) ||
            !sameBits(a[i].width, b[i].width) || !sameBits(a[i].height, b[i].height)) {
            return false;
        }
    }
    return true;
}

}  // namespace polygon_test

#endif  // QUELWORKS_TESTS_GEOMETRY_POLYGON_TEST_SUPPORT_H
