// Random polygons for the polygon tests and benchmarks, and a bitwise comparison of results.
#ifndef QUELWORKS_TESTS_GEOMETRY_POLYGON_TEST_SUPPORT_H
#define QUELWORKS_TESTS_GEOMETRY_POLYGON_TEST_SUPPORT_H

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "quelworks/geometry/shapes.h"
#include "quelworks/geometry/vector2f.h"

namespace polygon_test {

// A star-shaped polygon around (cx, cy), closed by repeating the first vertex; with `integral`
// the vertices are rounded to integers.
inline std::vector<pointf> starPolygon(std::mt19937& rng, float cx, float cy, float rmin,
                                       float rmax, int n, bool integral = true) {
    std::uniform_real_distribution<float> radius(rmin, rmax);
    std::vector<pointf> p;
    for (int i = 0; i < n; ++i) {
        const double angle = 2.0 * 3.14159265358979 * i / n;
        const float x = cx + radius(rng) * static_cast<float>(std::cos(angle));
        const float y = cy + radius(rng) * static_cast<float>(std::sin(angle));
        p.push_back(integral ? pointf(std::round(x), std::round(y)) : pointf(x, y));
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

// Any chain of points (self-intersecting, open or closed) on a grid of quarter units, so that
// exact vertex hits, shared y values and horizontal edges are common.
inline std::vector<pointf> randomChain(std::mt19937& rng, int n, int extent, bool closed) {
    std::uniform_int_distribution<int> coord(0, extent * 4);
    std::vector<pointf> p;
    for (int i = 0; i < n; ++i) p.push_back(pointf(coord(rng) * 0.25f, coord(rng) * 0.25f));
    if (closed && !p.empty()) p.push_back(p.front());
    return p;
}

// Unusual coordinates: NaN, infinities, -0, values beyond the int range.
inline float oddValue(std::mt19937& rng) {
    const float inf = std::numeric_limits<float>::infinity();
    const float values[] = {std::numeric_limits<float>::quiet_NaN(),
                            inf,
                            -inf,
                            -0.0f,
                            1e10f,
                            -3e9f,
                            46341.0f,
                            2147483648.0f};
    return values[rng() % 8];
}

// Bitwise equality of two arrays of float-only values (rectanglef, LineSegment): -0 differs
// from 0, and NaNs compare by their bits.
template <typename T>
bool sameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

}  // namespace polygon_test

#endif  // QUELWORKS_TESTS_GEOMETRY_POLYGON_TEST_SUPPORT_H
