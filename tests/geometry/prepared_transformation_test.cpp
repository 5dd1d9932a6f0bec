// The prepared transformation against the static operation, bit for bit: random and adversarial
// camera positions over many calibrations (grids of 2 x 2 to 30 x 30, three-point lists, unordered
// and duplicated points, non-finite and extreme coordinates, unusable sizes).
//
// QW_TRANSFORM_POINTS sets the number of random points of the differential run (default about
// 20 s of the static operation in a debug build, less under the sanitizers).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "geometry/reference_transform.h"
#include "quelworks/geometry/coordinate_transformation.h"
#include "quelworks/geometry/prepared_transformation.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QW_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QW_SANITIZED 1
#endif
#endif

namespace {

using Points = std::vector<CalibrationPoint>;

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

std::uint64_t bits(Vector2f v) {
    std::uint32_t x, y;
    std::memcpy(&x, &v.x, 4);
    std::memcpy(&y, &v.y, 4);
    return (static_cast<std::uint64_t>(x) << 32) | y;
}

std::string show(Vector2f v) {
    char text[96];
    std::snprintf(text, sizeof text, "(%a, %a)", static_cast<double>(v.x),
                  static_cast<double>(v.y));
    return text;
}

long pointBudget() {
    if (const char* text = std::getenv("QW_TRANSFORM_POINTS")) return std::max(1L, std::atol(text));
#ifdef QW_SANITIZED
    return 40000;
#else
    return 400000;
#endif
}

// Device positions that follow no affine map, so that a wrong triangle changes the result.
Vector2f warp(Vector2f c) {
    return Vector2f(c.x * 0.31f + c.y * 0.02f + c.x * c.y * 1e-4f + 100,
                    c.y * 0.33f - c.x * 0.01f + c.x * c.x * 2e-5f + 50);
}

// A k x k grid, row by row, scaled by pitch, each coordinate moved by up to jitter.
Points grid(int k, float pitch, float jitter, std::mt19937& rng) {
    std::uniform_real_distribution<float> j(-jitter, jitter);
    Points points;
    for (int row = 0; row < k; ++row) {
        for (int column = 0; column < k; ++column) {
            const Vector2f c(column * pitch + (jitter > 0 ? j(rng) : 0.0f),
                             row * pitch + (jitter > 0 ? j(rng) : 0.0f));
            points.push_back(CalibrationPoint(c, warp(c)));
        }
    }
    return points;
}

// The calibrations of one differential round, picked by round number and randomness.
Points calibration(long round, std::mt19937& rng) {
    std::uniform_int_distribution<int> side(2, 30);
    const int k = side(rng);
    switch (round % 12) {
        case 0:  // jittered grid of an ordinary camera
            return grid(k, 640.0f / k, 640.0f / k / 5, rng);
        case 1:  // integer grid: exact ties between neighbours, midpoints and cell centres
            return grid(k, 10, 0, rng);
        case 2: {  // the same, listed in random order
            Points points = grid(k, 10, 2, rng);
            std::shuffle(points.begin(), points.end(), rng);
            return points;
        }
        case 3: {  // duplicated camera positions
            Points points = grid(k, 8, 1, rng);
            std::uniform_int_distribution<std::size_t> pick(0, points.size() - 1);
            for (int i = 0; i < k; ++i) points[pick(rng)].camera = points[pick(rng)].camera;
            return points;
        }
        case 4: {  // three points, sometimes collinear or with equal x
            std::uniform_real_distribution<float> c(-100, 100);
            Points points;
            for (int i = 0; i < 3; ++i) {
                const Vector2f v(c(rng), c(rng));
                points.push_back(CalibrationPoint(v, warp(v)));
            }
            if (round % 5 == 0) points[2].camera = points[0].camera * 2.0f - points[1].camera;
            if (round % 7 == 0) points[1].camera.x = points[2].camera.x = points[0].camera.x;
            return points;
        }
        case 5: {  // one camera coordinate NaN or infinite
            Points points = grid(k, 10, 1, rng);
            std::uniform_int_distribution<std::size_t> pick(0, points.size() - 1);
            const float bad[] = {kNaN, kInf, -kInf};
            points[pick(rng)].camera.x = bad[round % 3];
            if (round % 2) points[pick(rng)].camera.y = bad[(round / 3) % 3];
            return points;
        }
        case 6:  // huge coordinates: squares overflow to +inf
            return grid(k, 1e37f, 1e36f, rng);
        case 7:  // tiny coordinates: squares underflow
            return grid(k, 1e-30f, 1e-31f, rng);
        case 8: {  // every camera position on one row (collinear), or all the same
            Points points = grid(k, 10, 0, rng);
            for (std::size_t i = 0; i < points.size(); ++i) {
                points[i].camera =
                    round % 24 == 8 ? Vector2f(5, 5) : Vector2f(static_cast<float>(i), 3.0f);
            }
            return points;
        }
        case 9: {  // unusable sizes, some of them one off a square
            std::uniform_int_distribution<int> size(0, 40);
            int n = size(rng);
            while (n == 3 || n == 4 || n == 9 || n == 16 || n == 25 || n == 36) ++n;
            Points points = grid(7, 10, 1, rng);
            points.resize(static_cast<std::size_t>(n));
            return points;
        }
        case 10:  // a rotated, strongly distorted grid far from the origin
        {
            Points points = grid(k, 50, 10, rng);
            for (CalibrationPoint& c : points) {
                const float r = c.camera.x * 0.8f - c.camera.y * 0.6f + 1e5f;
                c.camera.y = c.camera.x * 0.6f + c.camera.y * 0.8f - 3e4f;
                c.camera.x = r;
            }
            return points;
        }
        default:  // a coarse grid with a mistyped point
        {
            Points points = grid(k, 100, 5, rng);
            std::uniform_int_distribution<std::size_t> pick(0, points.size() - 1);
            points[pick(rng)].camera.x += 170;
            return points;
        }
    }
}

// A camera position for a calibration: mostly random within and around it, often exactly on a
// calibration point, its x or its y, halfway between two points, or extreme.
Vector2f query(const Points& points, std::mt19937& rng) {
    std::uniform_int_distribution<int> kind(0, 19);
    const int what = kind(rng);
    if (points.empty()) return Vector2f(3, 4);
    std::uniform_int_distribution<std::size_t> pick(0, points.size() - 1);
    const Vector2f a = points[pick(rng)].camera, b = points[pick(rng)].camera;
    float x0 = a.x, x1 = a.x, y0 = a.y, y1 = a.y;
    for (const CalibrationPoint& c : points) {
        if (std::isfinite(c.camera.x)) x0 = std::min(x0, c.camera.x), x1 = std::max(x1, c.camera.x);
        if (std::isfinite(c.camera.y)) y0 = std::min(y0, c.camera.y), y1 = std::max(y1, c.camera.y);
    }
    if (!std::isfinite(x0 - x1) || !std::isfinite(y0 - y1)) x0 = y0 = -1, x1 = y1 = 1;
    const float mx = (x1 - x0) * 0.1f + 1e-3f, my = (y1 - y0) * 0.1f + 1e-3f;
    std::uniform_real_distribution<float> rx(x0 - mx, x1 + mx), ry(y0 - my, y1 + my);
    const Vector2f r(rx(rng), ry(rng));
    switch (what) {
        case 0:
            return a;
        case 1:
            return Vector2f(a.x, r.y);
        case 2:
            return Vector2f(r.x, a.y);
        case 3:
            return Vector2f((a.x + b.x) * 0.5f, (a.y + b.y) * 0.5f);
        case 4:
            return Vector2f(a.x, b.y);
        case 5: {
            const float odd[] = {kNaN, kInf, -kInf, 1e38f, -3e38f, 1e20f, 1e-40f, 0.0f, -0.0f};
            std::uniform_int_distribution<int> o(0, 8);
            return Vector2f(o(rng) < 4 ? odd[o(rng)] : r.x, o(rng) < 4 ? odd[o(rng)] : r.y);
        }
        case 6:
            return Vector2f(r.x * 1e6f, r.y * -1e6f);
        case 7:
            return Vector2f(std::nextafter(a.x, kInf), std::nextafter(a.y, -kInf));
        default:
            return r;
    }
}

TEST(PreparedTransformation, SameBitsAsTheStaticOperation) {
    const long budget = pointBudget();
    std::mt19937 rng(20261125);
    long done = 0, mismatches = 0;
    for (long round = 0; done < budget; ++round) {
        const Points points = calibration(round, rng);
        const RList<CalibrationPoint> list = reference::toList(points);
        const PreparedTransformation prepared(list);
        const PreparedTransformation fromArray(points.data(), points.size());
        // Fewer points on big grids, where the static operation is slow.
        const long count = std::min<long>(budget - done, 2000000 / (points.size() + 50) + 20);
        std::vector<Vector2f> in, out(static_cast<std::size_t>(count));
        for (long i = 0; i < count; ++i) in.push_back(query(points, rng));
        prepared.Transform(in.data(), out.data(), in.size());
        for (long i = 0; i < count; ++i) {
            const Vector2f p = in[i];
            const Vector2f expected =
                CoordinateTransformation::TransformCameraToDeviceCoordinates(p, list);
            const Vector2f single = fromArray.Transform(p);
            if (bits(single) != bits(expected) || bits(out[i]) != bits(expected)) {
                if (++mismatches <= 10) {
                    ADD_FAILURE() << "round " << round << " (" << points.size() << " points) p "
                                  << show(p) << ": static " << show(expected) << ", prepared "
                                  << show(single) << ", array " << show(out[i]);
                }
            }
        }
        done += count;
    }
    EXPECT_EQ(mismatches, 0) << "of " << done << " points";
    std::printf("compared %ld points\n", done);
}

TEST(PreparedTransformation, ExhaustiveTiesOnAnIntegerGrid) {
    // Every quarter-integer position over and around a 5 x 5 integer grid: on points, on grid
    // lines, at midpoints and cell centres (four-way ties), in every order of the list.
    std::mt19937 rng(9);
    Points points = grid(5, 4, 0, rng);
    for (int order = 0; order < 3; ++order) {
        const RList<CalibrationPoint> list = reference::toList(points);
        const PreparedTransformation prepared(list);
        for (int y = -8; y <= 72; ++y) {
            for (int x = -8; x <= 72; ++x) {
                const Vector2f p(x * 0.25f, y * 0.25f);
                ASSERT_EQ(
                    bits(prepared.Transform(p)),
                    bits(CoordinateTransformation::TransformCameraToDeviceCoordinates(p, list)))
                    << "order " << order << " p " << show(p);
            }
        }
        if (order == 0) std::reverse(points.begin(), points.end());
        if (order == 1) std::shuffle(points.begin(), points.end(), rng);
    }
}

TEST(PreparedTransformation, SizesAndEmptyInput) {
    std::mt19937 rng(1);
    const Points points = grid(3, 10, 0, rng);
    EXPECT_FALSE(PreparedTransformation(points.data(), 0).IsUsable());
    EXPECT_FALSE(PreparedTransformation(points.data(), 5).IsUsable());
    EXPECT_TRUE(PreparedTransformation(points.data(), 3).IsUsable());
    const PreparedTransformation nine(reference::toList(points));
    EXPECT_TRUE(nine.IsUsable());
    EXPECT_EQ(nine.Size(), 9u);
    EXPECT_EQ(bits(PreparedTransformation(points.data(), 8).Transform(Vector2f(1, 2))),
              bits(Vector2f(0, 0)));
    // In-place array mapping, and a copy that shares the prepared data.
    std::vector<Vector2f> ps{Vector2f(1, 2), Vector2f(15, 3), Vector2f(kNaN, 4)};
    const std::vector<Vector2f> original = ps;
    const PreparedTransformation copy = nine;
    copy.Transform(ps.data(), ps.data(), ps.size());
    for (std::size_t i = 0; i < ps.size(); ++i) {
        EXPECT_EQ(bits(ps[i]), bits(CoordinateTransformation::TransformCameraToDeviceCoordinates(
                                   original[i], reference::toList(points))));
    }
}

TEST(PreparedTransformationThreads, ConcurrentMappingGivesTheSameResults) {
    std::mt19937 rng(4);
    const Points points = grid(12, 50, 8, rng);
    const PreparedTransformation prepared(points.data(), points.size());
    std::vector<Vector2f> in;
    for (int i = 0; i < 2000; ++i) in.push_back(query(points, rng));
    std::vector<Vector2f> expected(in.size());
    prepared.Transform(in.data(), expected.data(), in.size());
    std::vector<int> wrong(4, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const PreparedTransformation mine = prepared;  // copies share the data
            for (int round = 0; round < 5; ++round) {
                for (std::size_t i = 0; i < in.size(); ++i) {
                    const Vector2f r = (t % 2 ? mine : prepared).Transform(in[i]);
                    wrong[t] += bits(r) != bits(expected[i]);
                }
            }
        });
    }
    for (std::thread& t : threads) t.join();
    for (int t = 0; t < 4; ++t) EXPECT_EQ(wrong[t], 0) << "thread " << t;

    // A large array is mapped in parts on several threads, also in place: every point exactly
    // once, the same as one at a time.
    std::vector<Vector2f> big;
#ifdef QW_SANITIZED
    const int count = 70001;  // just above the size that is split over threads
#else
    const int count = 200003;
#endif
    for (int i = 0; i < count; ++i) big.push_back(query(points, rng));
    std::vector<Vector2f> mapped(big.size());
    prepared.Transform(big.data(), mapped.data(), big.size());
    std::vector<Vector2f> inPlace = big;
    prepared.Transform(inPlace.data(), inPlace.data(), inPlace.size());
    std::size_t same = 0;
    for (std::size_t i = 0; i < big.size(); ++i) {
        const std::uint64_t one = bits(prepared.Transform(big[i]));
        same += one == bits(mapped[i]) && one == bits(inPlace[i]);
    }
    EXPECT_EQ(same, big.size());
}

}  // namespace
