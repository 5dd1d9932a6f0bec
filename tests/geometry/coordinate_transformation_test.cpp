#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "geometry/reference_transform.h"
#include "quelworks/geometry/coordinate_transformation.h"

namespace {

using Points = std::vector<CalibrationPoint>;

Vector2f transform(Vector2f p, const Points& points) {
    return CoordinateTransformation::TransformCameraToDeviceCoordinates(p,
                                                                        reference::toList(points));
}

// The library's result when it is handed exactly the three given calibration points.
Vector2f viaTriangle(Vector2f p, const Points& points, std::array<int, 3> t) {
    return transform(p, Points{points[t[0]], points[t[1]], points[t[2]]});
}

// ToString is a non-const member; this takes a copy so const vectors can be printed.
std::string text(Vector2f v) {
    return v.ToString();
}

bool sameBits(Vector2f a, Vector2f b) {
    return std::memcmp(&a.x, &b.x, sizeof(float)) == 0 &&
           std::memcmp(&a.y, &b.y, sizeof(float)) == 0;
}

#define EXPECT_SAME(a, b) EXPECT_TRUE(sameBits(a, b)) << text(a) << " vs " << text(b)

// A k x k grid, row by row: camera (i * step, j * step) moved by `jitter`, device from `device`.
template <typename Jitter, typename Device>
Points makeGrid(int k, float step, Jitter jitter, Device device) {
    Points points;
    for (int j = 0; j < k; ++j) {
        for (int i = 0; i < k; ++i) {
            const Vector2f camera = jitter(Vector2f(i * step, j * step));
            points.push_back(CalibrationPoint(camera, device(camera)));
        }
    }
    return points;
}

// A grid whose device positions follow no affine map, so different triangles give different
// results and a wrong choice of calibration points shows.
Points warpedGrid(int k) {
    return makeGrid(
        k, 10.0f, [](Vector2f c) { return c; },
        [](Vector2f c) {
            return Vector2f(c.x * c.x * 0.3f + c.y + c.x * c.y * 0.05f,
                            c.y * c.y * 0.2f - c.x - c.x * c.y * 0.03f);
        });
}

TEST(TransformSize, UnusableSizesGiveOrigin) {
    auto identity = [](int n) {
        Points points;
        for (int i = 0; i < n; ++i) {
            const Vector2f c(static_cast<float>(i), static_cast<float>(i * i % 7));
            points.push_back(CalibrationPoint(c, c + 100.0f));
        }
        return points;
    };
    for (int n : {0, 1, 2, 5, 8, 10, 15, 24, 99}) {
        const Vector2f r = transform(Vector2f(3, 4), identity(n));
        EXPECT_EQ(r.x, 0.0f) << n;
        EXPECT_EQ(r.y, 0.0f) << n;
    }
    // 3 and every square from 4 on are used.
    for (int n : {3, 4, 9, 16, 25, 100}) {
        const Vector2f r = transform(Vector2f(3, 4), identity(n));
        EXPECT_FALSE(r.x == 0.0f && r.y == 0.0f) << n;
    }
}

TEST(TransformThreePoints, AffineMapsAreReproduced) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> coord(-500, 500);
    std::uniform_int_distribution<int> icoord(-50, 50);
    for (int round = 0; round < 200; ++round) {
        // camera == device: the identity, exactly, whatever the three points.
        Points same;
        for (int i = 0; i < 3; ++i) {
            const Vector2f c(coord(rng), coord(rng));
            same.push_back(CalibrationPoint(c, c));
        }
        const Vector2f p(coord(rng), coord(rng));
        EXPECT_SAME(transform(p, same), p);

        // device = 2 camera + (10, 20) on integer camera points: exact as well.
        Points shifted;
        for (int i = 0; i < 3; ++i) {
            const Vector2f c(static_cast<float>(icoord(rng)), static_cast<float>(icoord(rng)));
            shifted.push_back(CalibrationPoint(c, Vector2f(2 * c.x + 10, 2 * c.y + 20)));
        }
        const Vector2f c0 = shifted[0].camera, c1 = shifted[1].camera, c2 = shifted[2].camera;
        if ((c1.x - c0.x) * (c2.y - c0.y) == (c2.x - c0.x) * (c1.y - c0.y)) continue;
        const Vector2f r = transform(p, shifted);
        EXPECT_EQ(r.x, static_cast<float>(2.0 * p.x + 10.0));
        EXPECT_EQ(r.y, static_cast<float>(2.0 * p.y + 20.0));
    }
}

TEST(TransformThreePoints, CollinearCameraPointsIgnoreY) {
    // B = D = 0: the map follows camera x only.
    const Points line{CalibrationPoint(Vector2f(0, 0), Vector2f(0, 0)),
                      CalibrationPoint(Vector2f(1, 1), Vector2f(10, 20)),
                      CalibrationPoint(Vector2f(2, 2), Vector2f(20, 40))};
    for (float y : {-100.0f, 0.0f, 5.0f, 1e6f}) {
        const Vector2f r = transform(Vector2f(5, y), line);
        EXPECT_EQ(r.x, 50.0f);
        EXPECT_EQ(r.y, 100.0f);
    }
    // Three equal camera x: the division by zero passes through unchecked.
    const Points vertical{CalibrationPoint(Vector2f(1, 0), Vector2f(0, 0)),
                          CalibrationPoint(Vector2f(1, 1), Vector2f(3, 1)),
                          CalibrationPoint(Vector2f(1, 2), Vector2f(5, 2))};
    const Vector2f r = transform(Vector2f(4, 4), vertical);
    EXPECT_FALSE(std::isfinite(r.x));
    EXPECT_FALSE(std::isfinite(r.y));
}

TEST(TransformGrid, TwoByTwoExamples) {
    const Points grid{CalibrationPoint(Vector2f(0, 0), Vector2f(100, 100)),
                      CalibrationPoint(Vector2f(10, 0), Vector2f(200, 100)),
                      CalibrationPoint(Vector2f(0, 10), Vector2f(100, 200)),
                      CalibrationPoint(Vector2f(10, 10), Vector2f(200, 200))};
    Vector2f r = transform(Vector2f(2, 3), grid);
    EXPECT_EQ(r.x, 120.0f);
    EXPECT_EQ(r.y, 130.0f);
    r = transform(Vector2f(9, 8), grid);
    EXPECT_EQ(r.x, 190.0f);
    EXPECT_EQ(r.y, 180.0f);
}

TEST(TransformGrid, GlobalAffineImageIsExactForAnyTriangle) {
    // Integer camera positions and integer coefficients keep every step of the fit exact, so the
    // result must be the affine image rounded once, whichever three points were chosen.
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> coef(-5, 5);
    std::uniform_int_distribution<int> jit(-3, 3);
    int checked = 0;
    for (int k = 2; k <= 8; ++k) {
        int A, B, C, D;
        do {
            A = coef(rng), B = coef(rng), C = coef(rng), D = coef(rng);
        } while (A * D == B * C);
        const int E = coef(rng) * 17, F = coef(rng) * 13;
        const Points grid = makeGrid(
            k, 10.0f,
            [&](Vector2f c) {
                return Vector2f(c.x + static_cast<float>(jit(rng)),
                                c.y + static_cast<float>(jit(rng)));
            },
            [&](Vector2f c) { return Vector2f(A * c.x + B * c.y + E, C * c.x + D * c.y + F); });
        std::uniform_int_distribution<int> quarter(-80, (k * 10 + 20) * 4);
        for (int i = 0; i < 400; ++i) {
            const Vector2f p(quarter(rng) * 0.25f, quarter(rng) * 0.25f);
            const std::array<int, 3> t = reference::neighbourTriangle(p, grid);
            const Vector2f c0 = grid[t[0]].camera, c1 = grid[t[1]].camera, c2 = grid[t[2]].camera;
            if ((c1.x - c0.x) * (c2.y - c0.y) == (c2.x - c0.x) * (c1.y - c0.y)) continue;
            const Vector2f r = transform(p, grid);
            ASSERT_EQ(r.x, static_cast<float>(A * static_cast<double>(p.x) +
                                              B * static_cast<double>(p.y) + E))
                << k << " " << text(p);
            ASSERT_EQ(r.y, static_cast<float>(C * static_cast<double>(p.x) +
                                              D * static_cast<double>(p.y) + F))
                << k << " " << text(p);
            ++checked;
        }
    }
    EXPECT_GT(checked, 2500);
}

TEST(TransformGrid, GlobalAffineImageWithRealCoefficients) {
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> coef(-3, 3);
    std::uniform_real_distribution<float> jit(-2.5f, 2.5f);
    for (int k : {2, 3, 5, 12}) {
        const float A = coef(rng), B = coef(rng), C = coef(rng), D = coef(rng);
        const float E = coef(rng) * 100, F = coef(rng) * 100;
        const Points grid = makeGrid(
            k, 20.0f, [&](Vector2f c) { return Vector2f(c.x + jit(rng), c.y + jit(rng)); },
            [&](Vector2f c) { return Vector2f(A * c.x + B * c.y + E, C * c.x + D * c.y + F); });
        std::uniform_real_distribution<float> coord(-30, k * 20.0f + 30);
        for (int i = 0; i < 300; ++i) {
            const Vector2f p(coord(rng), coord(rng));
            const Vector2f r = transform(p, grid);
            const double wx = A * static_cast<double>(p.x) + B * static_cast<double>(p.y) + E;
            const double wy = C * static_cast<double>(p.x) + D * static_cast<double>(p.y) + F;
            ASSERT_NEAR(r.x, wx, 1e-3 * (1 + std::fabs(wx))) << k << " " << text(p);
            ASSERT_NEAR(r.y, wy, 1e-3 * (1 + std::fabs(wy))) << k << " " << text(p);
        }
    }
}

TEST(TransformGrid, WarpedGridMatchesReferenceSelection) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> jit(-4, 4);
    for (int k : {2, 3, 4, 5, 10}) {
        const Points grid = makeGrid(
            k, 10.0f, [&](Vector2f c) { return Vector2f(c.x + jit(rng), c.y + jit(rng)); },
            [&](Vector2f c) {
                return Vector2f(std::sin(c.x * 0.1f) * 50 + c.y, c.x * c.y * 0.01f - c.y);
            });
        std::uniform_real_distribution<float> coord(-15, k * 10.0f + 5);
        std::uniform_int_distribution<int> pick(0, k * k - 1);
        for (int i = 0; i < 500; ++i) {
            Vector2f p(coord(rng), coord(rng));
            // Every fourth point sits exactly on a calibration point's x or y.
            if (i % 4 == 1) p.x = grid[pick(rng)].camera.x;
            if (i % 4 == 2) p.y = grid[pick(rng)].camera.y;
            if (i % 4 == 3) p = grid[pick(rng)].camera;
            const Vector2f r = transform(p, grid);
            EXPECT_SAME(r, viaTriangle(p, grid, reference::neighbourTriangle(p, grid)));
            EXPECT_SAME(r, reference::literalTransform(p, reference::toList(grid)));
        }
    }
}

TEST(TransformGrid, StrictComparisonsTakeTheLowerNeighbour) {
    // Camera positions (0|10|20, 0|10|20), position 4 at (10, 10); points 7 and 5 are moved off
    // the lines through 4 so that the choice of neighbour changes the result.
    Points grid = warpedGrid(3);
    grid[7].camera.x = 12;
    grid[5].camera.y = 12;
    // Right of and above point 4: neighbours 5 and 7.
    EXPECT_SAME(transform(Vector2f(11, 11), grid), viaTriangle(Vector2f(11, 11), grid, {4, 5, 7}));
    // Exactly on its x: the test is strict, so the left neighbour 3.
    EXPECT_SAME(transform(Vector2f(10, 11), grid), viaTriangle(Vector2f(10, 11), grid, {4, 3, 7}));
    EXPECT_FALSE(sameBits(transform(Vector2f(10, 11), grid),
                          viaTriangle(Vector2f(10, 11), grid, {4, 5, 7})));
    // Exactly on its y: the row below, 1.
    EXPECT_SAME(transform(Vector2f(11, 10), grid), viaTriangle(Vector2f(11, 10), grid, {4, 5, 1}));
    EXPECT_FALSE(sameBits(transform(Vector2f(11, 10), grid),
                          viaTriangle(Vector2f(11, 10), grid, {4, 5, 7})));
    EXPECT_SAME(transform(Vector2f(10, 10), grid), viaTriangle(Vector2f(10, 10), grid, {4, 3, 1}));
}

TEST(TransformGrid, TiesGoToTheEarlierPoint) {
    const Points grid = warpedGrid(3);
    // (5, 2) is equally far from points 0 and 1: point 0 is the nearest, with neighbours 1 and 3.
    // Had point 1 been taken, the triangle would be 1, 0, 4, which maps p elsewhere.
    EXPECT_SAME(transform(Vector2f(5, 2), grid), viaTriangle(Vector2f(5, 2), grid, {0, 1, 3}));
    EXPECT_FALSE(
        sameBits(transform(Vector2f(5, 2), grid), viaTriangle(Vector2f(5, 2), grid, {1, 0, 4})));
    // (18, 15) is equally far from 5 and 8: 5 wins, and p lies left of and above it.
    EXPECT_SAME(transform(Vector2f(18, 15), grid), viaTriangle(Vector2f(18, 15), grid, {5, 4, 8}));
    EXPECT_FALSE(sameBits(transform(Vector2f(18, 15), grid),
                          viaTriangle(Vector2f(18, 15), grid, {8, 7, 5})));
    // The centre of a cell is equally far from four points: the first of them, 4.
    EXPECT_SAME(transform(Vector2f(15, 15), grid), viaTriangle(Vector2f(15, 15), grid, {4, 5, 7}));
    // Duplicate camera positions: the earlier entry is the nearest.
    Points dup = grid;
    dup[7].camera = dup[4].camera;
    EXPECT_SAME(transform(Vector2f(9, 9), dup), viaTriangle(Vector2f(9, 9), dup, {4, 3, 1}));
    EXPECT_FALSE(
        sameBits(transform(Vector2f(9, 9), dup), viaTriangle(Vector2f(9, 9), dup, {7, 6, 4})));
}

TEST(TransformGrid, NeighboursWrapAroundRowEnds) {
    const Points grid = warpedGrid(3);
    // Right of the last point of row 0 (position 2): "right" neighbour is 3, the first of row 1.
    EXPECT_SAME(transform(Vector2f(24, 1), grid), viaTriangle(Vector2f(24, 1), grid, {2, 3, 5}));
    // Left of the first point of row 1 (position 3): "left" neighbour is 2, the end of row 0.
    EXPECT_SAME(transform(Vector2f(-4, 9), grid), viaTriangle(Vector2f(-4, 9), grid, {3, 2, 0}));
    // First point, to its lower left: -1 and -3 are replaced by 1 and 3.
    EXPECT_SAME(transform(Vector2f(-5, -5), grid), viaTriangle(Vector2f(-5, -5), grid, {0, 1, 3}));
    // Last point, to its upper right: 9 and 11 are out of the list, so 7 and 5.
    EXPECT_SAME(transform(Vector2f(25, 25), grid), viaTriangle(Vector2f(25, 25), grid, {8, 7, 5}));
}

TEST(TransformGrid, NonFiniteInputDoesNotCrash) {
    const Points grid = warpedGrid(4);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const Vector2f r = transform(Vector2f(nan, nan), grid);
    EXPECT_TRUE(std::isnan(r.x));
    const Vector2f far = transform(Vector2f(1e30f, -1e30f), grid);
    EXPECT_SAME(far, reference::literalTransform(Vector2f(1e30f, -1e30f), reference::toList(grid)));
}

}  // namespace
