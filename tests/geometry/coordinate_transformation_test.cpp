#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "geometry/reference_transform.h"
#include "quelworks/geometry/coordinate_transformation.h"

namespace {

using Points = std::vector<CalibrationPoint>;
using Triangle = std::array<int, 3>;

Vector2f transform(Vector2f p, const Points& points) {
    return CoordinateTransformation::TransformCameraToDeviceCoordinates(p,
                                                                        reference::toList(points));
}

// The selection written plainly: a scan for the first point at the smallest camera distance (no
// sort), then its neighbours on p's side.
Triangle referenceTriangle(Vector2f p, const Points& points) {
    const int n = static_cast<int>(points.size());
    auto distance = [&](int i) {
        const float dx = points[i].camera.x - p.x, dy = points[i].camera.y - p.y;
        return std::sqrt(dy * dy + dx * dx);
    };
    int m = 0;
    for (int i = 1; i < n; ++i) m = distance(i) < distance(m) ? i : m;
    const int k = static_cast<int>(std::lround(std::sqrt(n)));
    return reference::neighbours(m, p, points[m].camera, n, k);
}

// The library's result when it is handed exactly the three calibration points t.
Vector2f viaTriangle(Vector2f p, const Points& points, Triangle t) {
    return transform(p, Points{points[t[0]], points[t[1]], points[t[2]]});
}

// Exact equality, with both vectors in the message.
#define EXPECT_SAME(a, b) \
    EXPECT_TRUE(Vector2f(a) == (b)) << Vector2f(a).ToString() << " vs " << Vector2f(b).ToString()

// A k x k grid, row by row: camera (10 i, 10 j), each coordinate moved by jitter(), and the
// device position computed from the camera position.
Points makeGrid(
    int k, std::function<Vector2f(Vector2f)> device,
    std::function<float()> jitter = [] { return 0.0f; }) {
    Points points;
    for (int j = 0; j < k; ++j) {
        for (int i = 0; i < k; ++i) {
            const Vector2f camera(i * 10.0f + jitter(), j * 10.0f + jitter());
            points.push_back(CalibrationPoint(camera, device(camera)));
        }
    }
    return points;
}

// Device positions that follow no affine map, so that a wrong choice of calibration points shows.
Vector2f warp(Vector2f c) {
    return Vector2f(c.x * c.x * 0.3f + c.y + c.x * c.y * 0.05f,
                    c.y * c.y * 0.2f - c.x - c.x * c.y * 0.03f);
}

TEST(TransformSize, OnlyThreeAndSquaresFromFourAreUsed) {
    Points points;
    for (int n = 0; n <= 101; ++n) {
        const int k = static_cast<int>(std::lround(std::sqrt(n)));
        const bool usable = n == 3 || (n >= 4 && k * k == n);
        const Vector2f r = transform(Vector2f(3, 4), points);
        EXPECT_EQ(!(r.x == 0.0f && r.y == 0.0f), usable) << n;
        const Vector2f c(static_cast<float>(n), static_cast<float>(n * n % 7));
        points.push_back(CalibrationPoint(c, c + 100.0f));
    }
}

TEST(Transform, Examples) {
    // Three points with device = 2 camera + (10, 20); a 2 x 2 grid with device = 10 camera + 100.
    Points three = makeGrid(2, [](Vector2f c) { return c * 2.0f + Vector2f(10, 20); });
    three.resize(3);
    EXPECT_SAME(transform(Vector2f(7.5f, -3), three), Vector2f(25, 14));
    const Points grid = makeGrid(2, [](Vector2f c) { return c * 10.0f + 100.0f; });
    EXPECT_SAME(transform(Vector2f(2, 3), grid), Vector2f(120, 130));
    EXPECT_SAME(transform(Vector2f(9, 8), grid), Vector2f(190, 180));
    // Three collinear camera points: B = D = 0, the result follows camera x only.
    const Points line{CalibrationPoint(Vector2f(0, 0), Vector2f(0, 0)),
                      CalibrationPoint(Vector2f(1, 1), Vector2f(10, 20)),
                      CalibrationPoint(Vector2f(2, 2), Vector2f(20, 40))};
    EXPECT_SAME(transform(Vector2f(5, -100), line), Vector2f(50, 100));
    EXPECT_SAME(transform(Vector2f(5, 1e6f), line), Vector2f(50, 100));
}

TEST(TransformGrid, GlobalAffineImageIsExactWhateverTheTriangle) {
    // Integer camera positions and coefficients keep every step of the fit exact, so the result
    // must be the affine image rounded once, whichever three points were chosen (none of them
    // collinear on these grids). k = 1 stands for a three-point calibration.
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> coef(-5, 5), jit(-3, 3);
    for (int k = 1; k <= 8; ++k) {
        int A, B, C, D;
        do {
            A = coef(rng), B = coef(rng), C = coef(rng), D = coef(rng);
        } while (A * D == B * C);
        const int E = coef(rng) * 17, F = coef(rng) * 13;
        Points grid = makeGrid(
            k < 2 ? 2 : k,
            [&](Vector2f c) { return Vector2f(A * c.x + B * c.y + E, C * c.x + D * c.y + F); },
            [&] { return static_cast<float>(jit(rng)); });
        if (k == 1) grid.resize(3);
        std::uniform_int_distribution<int> quarter(-80, (k * 10 + 20) * 4);
        for (int i = 0; i < 400; ++i) {
            Vector2f p(quarter(rng) * 0.25f, quarter(rng) * 0.25f);
            const double x = p.x, y = p.y;
            ASSERT_TRUE(transform(p, grid) == Vector2f(static_cast<float>(A * x + B * y + E),
                                                       static_cast<float>(C * x + D * y + F)))
                << k << " " << p.ToString();
        }
    }
}

TEST(TransformGrid, WarpedGridMatchesReferenceSelection) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> jit(-4, 4);
    for (int k : {2, 3, 4, 5, 10}) {
        const Points grid = makeGrid(k, warp, [&] { return jit(rng); });
        std::uniform_real_distribution<float> coord(-15, k * 10.0f + 5);
        std::uniform_int_distribution<int> pick(0, k * k - 1);
        for (int i = 0; i < 500; ++i) {
            Vector2f p(coord(rng), coord(rng));
            // Every fourth point sits exactly on a calibration point's x, its y, or on it.
            if (i % 4 == 1) p.x = grid[pick(rng)].camera.x;
            if (i % 4 == 2) p.y = grid[pick(rng)].camera.y;
            if (i % 4 == 3) p = grid[pick(rng)].camera;
            const Vector2f r = transform(p, grid);
            EXPECT_SAME(r, viaTriangle(p, grid, referenceTriangle(p, grid)));
            EXPECT_SAME(r, reference::literalTransform(p, reference::toList(grid)));
        }
    }
    // Non-finite input: no crash, and the same rule throughout.
    const Points grid = makeGrid(4, warp);
    EXPECT_TRUE(std::isnan(transform(Vector2f(NAN, NAN), grid).x));
    const Vector2f far(1e30f, -1e30f);
    EXPECT_SAME(transform(far, grid), reference::literalTransform(far, reference::toList(grid)));
}

// The library's result for p is the one from triangle t and, when u is given, not the one from
// the triangle u a plausible mistake would pick.
void expectTriangle(const Points& grid, Vector2f p, Triangle t, Triangle u = {0, 0, 0}) {
    const Vector2f r = transform(p, grid);
    EXPECT_SAME(r, viaTriangle(p, grid, t)) << " at " << p.ToString();
    EXPECT_TRUE(u[0] == u[1] || !(r == viaTriangle(p, grid, u))) << p.ToString();
}

TEST(TransformGrid, TiesWrapAroundAndStrictSides) {
    // Camera positions (0|10|20, 0|10|20) row by row; position 4 is (10, 10).
    Points grid = makeGrid(3, warp);
    // Ties in distance: the earlier point is the nearest. (5, 2) is as far from 0 as from 1,
    // (18, 15) from 5 as from 8, a cell centre from four points.
    expectTriangle(grid, Vector2f(5, 2), {0, 1, 3}, {1, 0, 4});
    expectTriangle(grid, Vector2f(18, 15), {5, 4, 8}, {8, 7, 5});
    expectTriangle(grid, Vector2f(15, 15), {4, 5, 7}, {5, 4, 8});
    // Neighbours by list position: across a row end, and clamped at both ends of the list.
    expectTriangle(grid, Vector2f(24, 1), {2, 3, 5}, {2, 1, 5});
    expectTriangle(grid, Vector2f(-4, 9), {3, 2, 0}, {3, 4, 0});
    expectTriangle(grid, Vector2f(-5, -5), {0, 1, 3});
    expectTriangle(grid, Vector2f(25, 25), {8, 7, 5});
    // Exactly on point 4's x or y: the tests are strict, so the lower neighbour. Points 7 and 5
    // are moved off the lines through 4 so that the choice changes the result.
    grid[7].camera.x = 12;
    grid[5].camera.y = 12;
    expectTriangle(grid, Vector2f(11, 11), {4, 5, 7});
    expectTriangle(grid, Vector2f(10, 11), {4, 3, 7}, {4, 5, 7});
    expectTriangle(grid, Vector2f(11, 10), {4, 5, 1}, {4, 5, 7});
    expectTriangle(grid, Vector2f(10, 10), {4, 3, 1});
    // Duplicate camera positions: the earlier entry.
    grid[7].camera = grid[4].camera;
    expectTriangle(grid, Vector2f(9, 9), {4, 3, 1}, {7, 6, 4});
}

}  // namespace
