#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <type_traits>

#if defined(_WIN32)
// The real POINT, which the library's header only declares there.
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#endif

#include "quelworks/geometry/vector2f.h"

namespace {

// The library's single-precision cosine and sine: the double result rounded to float, the same
// bits on every platform.
float cosF(float x) {
    return static_cast<float>(std::cos(static_cast<double>(x)));
}
float sinF(float x) {
    return static_cast<float>(std::sin(static_cast<double>(x)));
}

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

#define EXPECT_VEC_EQ(v, ex, ey) \
    do {                         \
        const Vector2f got = v;  \
        EXPECT_EQ(got.x, ex);    \
        EXPECT_EQ(got.y, ey);    \
    } while (0)

static_assert(std::is_trivially_copyable<pointf>::value, "pointf is a plain pair of floats");
static_assert(!std::is_trivially_copyable<Vector2f>::value,
              "Vector2f declares its own copy constructor and destructor");
static_assert(sizeof(Vector2f) == 8 && sizeof(pointf) == 8 && sizeof(POINT) == 8,
              "two 32-bit coordinates each");

TEST(Vector2fConstruction, FromFloatsPointsAndPOINT) {
    EXPECT_VEC_EQ(Vector2f(), 0.0f, 0.0f);
    EXPECT_VEC_EQ(Vector2f(1.5f, -2.0f), 1.5f, -2.0f);
    EXPECT_VEC_EQ(Vector2f(pointf(3, 4)), 3.0f, 4.0f);
    POINT p{-3, 7};
    EXPECT_VEC_EQ(Vector2f(p), -3.0f, 7.0f);
    // Integers beyond 2^24 round to the nearest float (ties to even).
    POINT big{16777217, -16777219};
    EXPECT_VEC_EQ(Vector2f(big), 16777216.0f, -16777220.0f);
    POINT extremes{INT_MIN, INT_MAX};
    EXPECT_VEC_EQ(Vector2f(extremes), -2147483648.0f, 2147483648.0f);
}

TEST(Vector2fOperators, ArithmeticAndExactEquality) {
    Vector2f a(1, 2);
    const Vector2f b(3, -4);
    EXPECT_VEC_EQ(a + b, 4.0f, -2.0f);
    EXPECT_VEC_EQ(a + 0.5f, 1.5f, 2.5f);
    EXPECT_VEC_EQ(a - b, -2.0f, 6.0f);
    EXPECT_VEC_EQ(a - 1.0f, 0.0f, 1.0f);
    EXPECT_EQ(a * b, -5.0f);
    EXPECT_VEC_EQ(a * 3.0f, 3.0f, 6.0f);
    EXPECT_VEC_EQ(a / 2.0f, 0.5f, 1.0f);
    EXPECT_VEC_EQ(a / 0.0f, kInf, kInf);

    EXPECT_TRUE(a == Vector2f(1, 2));
    EXPECT_FALSE(a == Vector2f(1, 2.0000002f));
    EXPECT_TRUE(Vector2f(0.0f, 0.0f) == Vector2f(-0.0f, -0.0f));
    const Vector2f n(kNaN, 0);
    EXPECT_FALSE(n == n);
}

TEST(Vector2fOperators, NegateLengthNormalize) {
    Vector2f a(3, -4);
    EXPECT_VEC_EQ(a.Negate(), -3.0f, 4.0f);
    EXPECT_VEC_EQ(a, 3.0f, -4.0f);
    EXPECT_EQ(a.Length(), 5.0f);

    Vector2f b(3, 4);
    b.Normalize();
    EXPECT_VEC_EQ(b, 0.6f, 0.8f);
    Vector2f zero;
    zero.Normalize();
    EXPECT_VEC_EQ(zero, 0.0f, 0.0f);

    // The static form leaves its argument alone.
    const Vector2f c(0, -2);
    EXPECT_VEC_EQ(Vector2f::Normalize(c), 0.0f, -1.0f);
    EXPECT_VEC_EQ(c, 0.0f, -2.0f);
    EXPECT_VEC_EQ(Vector2f::Normalize(Vector2f()), 0.0f, 0.0f);
    // Infinite length: inf / inf.
    Vector2f big(kInf, 1);
    big.Normalize();
    EXPECT_TRUE(std::isnan(big.x));
    EXPECT_EQ(big.y, 0.0f);
}

TEST(Vector2fStatic, PerpendicularsAndNormals) {
    const Vector2f v(3, 4);
    EXPECT_VEC_EQ(Vector2f::GetLeftPerp(v), -4.0f, 3.0f);
    EXPECT_VEC_EQ(Vector2f::GetRightPerp(v), 4.0f, -3.0f);
    EXPECT_VEC_EQ(Vector2f::GetLeftNormal(v), -0.8f, 0.6f);
    EXPECT_VEC_EQ(Vector2f::GetRightNormal(v), 0.8f, -0.6f);
    EXPECT_VEC_EQ(Vector2f::GetLeftNormal(Vector2f()), -0.0f, 0.0f);
    EXPECT_VEC_EQ(Vector2f::GetRightNormal(Vector2f()), 0.0f, -0.0f);
}

TEST(Vector2fStatic, Projections) {
    const Vector2f a(2, 3);
    const Vector2f b(4, 0);
    EXPECT_EQ(Vector2f::ScalarProjection(a, b), 2.0f);
    EXPECT_VEC_EQ(Vector2f::VectorProjection(a, b), 2.0f, 0.0f);
    EXPECT_EQ(Vector2f::ScalarProjection(Vector2f(-1, 1), Vector2f(1, 1)), 0.0f);
    // |b| is a rounded square root that is squared again: (1,1) gives 2.0000002, not 2.
    const float len = std::sqrt(2.0f);
    const float factor = 3.0f / (len * len);
    EXPECT_VEC_EQ(Vector2f::VectorProjection(Vector2f(1, 2), Vector2f(1, 1)), factor, factor);
    // Unguarded zero-length b.
    EXPECT_TRUE(std::isinf(Vector2f::ScalarProjection(a, Vector2f(0, 0))) ||
                std::isnan(Vector2f::ScalarProjection(a, Vector2f(0, 0))));
    EXPECT_TRUE(std::isnan(Vector2f::VectorProjection(a, Vector2f()).x));
}

TEST(Vector2fStatic, Rotate) {
    const Vector2f r = Vector2f::Rotate(90, Vector2f(1, 1), Vector2f(2, 1));
    EXPECT_NEAR(r.x, 1.0f, 1e-6f);
    EXPECT_NEAR(r.y, 2.0f, 1e-6f);
    const Vector2f cw = Vector2f::Rotate(-90, Vector2f(0, 0), Vector2f(1, 0));
    EXPECT_NEAR(cw.x, 0.0f, 1e-6f);
    EXPECT_NEAR(cw.y, -1.0f, 1e-6f);
    EXPECT_VEC_EQ(Vector2f::Rotate(0, Vector2f(5, 5), Vector2f(-3, 8)), -3.0f, 8.0f);

    // The radians are (float)(angle * pi in double) / 180: for these angles that differs from
    // forming the product in float, and the result must follow the double product.
    int differing = 0;
    for (float angle : {33.3f, 77.7f, 123.456f, -200.1f, 271.9f, 1000.5f}) {
        const float rad =
            static_cast<float>(static_cast<double>(angle) * 3.141592653589793) / 180.0f;
        const float radFloat = angle * 3.14159265f / 180.0f;
        if (rad != radFloat) ++differing;
        const float c = cosF(rad);
        const float s = sinF(rad);
        const Vector2f got = Vector2f::Rotate(angle, Vector2f(10, -20), Vector2f(110, 30));
        EXPECT_EQ(got.x, 100.0f * c - 50.0f * s + 10.0f) << angle;
        EXPECT_EQ(got.y, 100.0f * s + 50.0f * c + -20.0f) << angle;
    }
    EXPECT_GT(differing, 0);
}

TEST(Vector2fStatic, LocationIsTruncatedCrossProduct) {
    const Vector2f a(0, 0);
    const Vector2f b(10, 0);
    EXPECT_EQ(Vector2f::Location(a, b, Vector2f(5, 3)), 30);
    EXPECT_EQ(Vector2f::Location(a, b, Vector2f(5, -3)), -30);
    EXPECT_EQ(Vector2f::Location(a, b, Vector2f(5, 0.05f)), 0);
    EXPECT_EQ(Vector2f::Location(a, b, Vector2f(5, -0.05f)), 0);
    // Truncation toward zero on both sides: 2.9 -> 2, -2.9 -> -2.
    EXPECT_EQ(Vector2f::Location(a, Vector2f(1, 0), Vector2f(0, 2.9f)), 2);
    EXPECT_EQ(Vector2f::Location(a, Vector2f(1, 0), Vector2f(0, -2.9f)), -2);
    // Out of the int range, either sign, and NaN: INT_MIN.
    EXPECT_EQ(Vector2f::Location(a, Vector2f(1e10f, 0), Vector2f(0, 1)), INT_MIN);
    EXPECT_EQ(Vector2f::Location(a, Vector2f(1e10f, 0), Vector2f(0, -1)), INT_MIN);
    EXPECT_EQ(Vector2f::Location(a, Vector2f(2147483648.0f, 0), Vector2f(0, 1)), INT_MIN);
    EXPECT_EQ(Vector2f::Location(a, Vector2f(2147483520.0f, 0), Vector2f(0, 1)), 2147483520);
    EXPECT_EQ(Vector2f::Location(a, Vector2f(2147483648.0f, 0), Vector2f(0, -1)), INT_MIN);
    EXPECT_EQ(Vector2f::Location(a, b, Vector2f(kNaN, 1)), INT_MIN);
    EXPECT_EQ(Vector2f::Location(a, b, Vector2f(0, kInf)), INT_MIN);
}

TEST(Vector2fStatic, PointNearbyLineAndPoint) {
    const Vector2f a(0, 0);
    const Vector2f b(10, 0);
    EXPECT_TRUE(Vector2f::IsPointNearbyLine(Vector2f(5, 5), a, b));
    EXPECT_TRUE(Vector2f::IsPointNearbyLine(Vector2f(5, -5), a, b));
    EXPECT_FALSE(Vector2f::IsPointNearbyLine(Vector2f(5, 5.01f), a, b));
    EXPECT_FALSE(Vector2f::IsPointNearbyLine(Vector2f(-1, 0), a, b));
    EXPECT_FALSE(Vector2f::IsPointNearbyLine(Vector2f(10.5f, 1), a, b));
    EXPECT_TRUE(Vector2f::IsPointNearbyLine(Vector2f(10, 0), a, b));
    EXPECT_TRUE(Vector2f::IsPointNearbyLine(Vector2f(0, 0), a, b));
    // A slanted segment: 3 units off a 3-4-5 line.
    EXPECT_TRUE(
        Vector2f::IsPointNearbyLine(Vector2f(3 - 3 * 0.8f, 4 + 3 * 0.6f), a, Vector2f(6, 8)));
    // A zero-length segment: the foot is 0/0.
    EXPECT_FALSE(Vector2f::IsPointNearbyLine(a, a, a));

    EXPECT_TRUE(Vector2f::IsPointNearbyPoint(Vector2f(0, 0), Vector2f(3, 4), 5));
    EXPECT_FALSE(Vector2f::IsPointNearbyPoint(Vector2f(0, 0), Vector2f(3, 4), 4));
    EXPECT_TRUE(Vector2f::IsPointNearbyPoint(Vector2f(1, 1), Vector2f(1, 1), 0));
    EXPECT_FALSE(Vector2f::IsPointNearbyPoint(Vector2f(1, 1), Vector2f(1, 1), -1));
}

TEST(Vector2fStatic, Distances) {
    const Vector2f a(1, 7);
    const Vector2f b(4, 3);
    EXPECT_EQ(Vector2f::GetDistanceF(a, b), 5.0f);
    EXPECT_EQ(Vector2f::GetDistanceF(b, a), 5.0f);
    EXPECT_EQ(Vector2f::GetXDistanceF(a, b), -3.0f);
    EXPECT_EQ(Vector2f::GetYDistanceF(a, b), 4.0f);
}

TEST(Vector2fStatic, AngleSignedDegrees) {
    EXPECT_EQ(Vector2f::Angle(Vector2f(1, 0), Vector2f(0, 1)), 90.0f);
    EXPECT_EQ(Vector2f::Angle(Vector2f(0, 1), Vector2f(1, 0)), -90.0f);
    // Collinear or zero vectors take the fallback: 0 for the same direction, 180 otherwise.
    EXPECT_EQ(Vector2f::Angle(Vector2f(1, 0), Vector2f(2, 0)), 0.0f);
    EXPECT_EQ(Vector2f::Angle(Vector2f(1, 0), Vector2f(-1, 0)), 180.0f);
    EXPECT_EQ(Vector2f::Angle(Vector2f(0, 0), Vector2f(1, 0)), 180.0f);
    EXPECT_EQ(Vector2f::Angle(Vector2f(0, 0), Vector2f(0, 0)), 0.0f);
    EXPECT_EQ(Vector2f::Angle(Vector2f(-2, -2), Vector2f(-5, -5)), 0.0f);
    EXPECT_NEAR(Vector2f::Angle(Vector2f(1, 0), Vector2f(1, 1)), 45.0f, 1e-4f);
    EXPECT_NEAR(Vector2f::Angle(Vector2f(1, 0), Vector2f(-1, -1)), -135.0f, 1e-4f);

    // Against atan2 over many random vectors, and within (-180, 180].
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> coord(-100, 100);
    for (int i = 0; i < 2000; ++i) {
        Vector2f a(coord(rng), coord(rng));
        Vector2f b(coord(rng), coord(rng));
        const float got = Vector2f::Angle(a, b);
        // Nearly opposite vectors can push the cosine ratio past -1 and take the 180 fallback,
        // so compare on the circle.
        double diff =
            got - (std::atan2(b.y, b.x) - std::atan2(a.y, a.x)) * 180.0 / 3.141592653589793;
        diff = std::remainder(diff, 360.0);
        ASSERT_NEAR(diff, 0.0, 0.1) << a.ToString() << " " << b.ToString();
    }
}

TEST(Vector2fStatic, AngleEXAppliesTheCosine) {
    // cos(1) * 360 / 2pi, not the angle between equal vectors (0).
    const float same = Vector2f::AngleEX(Vector2f(1, 0), Vector2f(1, 0));
    EXPECT_NEAR(same, 30.957f, 1e-3f);
    EXPECT_EQ(same,
              static_cast<float>(static_cast<double>(cosF(1.0f) * 360.0f) / 6.283185307179586));
    // Perpendicular: cos(0) * 360 / 2pi = 57.29578; opposite: cos(-1) as for equal ones.
    EXPECT_NEAR(Vector2f::AngleEX(Vector2f(0, 3), Vector2f(2, 0)), 57.29578f, 1e-4f);
    EXPECT_EQ(Vector2f::AngleEX(Vector2f(0, 3), Vector2f(0, -2)), same);
    EXPECT_TRUE(std::isnan(Vector2f::AngleEX(Vector2f(), Vector2f(1, 0))));
}

TEST(Vector2fStatic, Flips) {
    EXPECT_VEC_EQ(Vector2f::FlipH(Vector2f(1, 0), Vector2f(3, 5)), -1.0f, 5.0f);
    EXPECT_VEC_EQ(Vector2f::FlipV(Vector2f(0, 1), Vector2f(3, 5)), 3.0f, -3.0f);
    // Computed as a - (b - a), which rounds differently from 2a - b: 0.1 - (0.3 - 0.1).
    EXPECT_VEC_EQ(Vector2f::FlipH(Vector2f(0.1f, 0), Vector2f(0.3f, 0)), 0.1f - (0.3f - 0.1f),
                  0.0f);
}

TEST(Vector2fText, ToStringUsesSixSignificantDigits) {
    EXPECT_EQ(Vector2f(1.5f, -2.0f).ToString(), "{1.5 ; -2}");
    EXPECT_EQ(Vector2f(0.1f, 1234567.0f).ToString(), "{0.1 ; 1.23457e+06}");
    EXPECT_EQ(Vector2f(-0.0f, 1e-5f).ToString(), "{-0 ; 1e-05}");
    EXPECT_EQ(Vector2f(kInf, kNaN).ToString().substr(0, 5), "{inf ");
}

TEST(PointF, OperatorsAndDistances) {
    const pointf a(1, 2);
    const pointf b(4, 6);
    EXPECT_FALSE(pointf(kNaN, 0) == pointf(kNaN, 0));
    EXPECT_TRUE(a - b + b == a);
    EXPECT_EQ(a * b, 16.0f);
    EXPECT_EQ((b / 2.0f * 3.0f).y, 9.0f);
    pointf c = a;
    EXPECT_EQ(c.Distancef(b), 5.0f);
    EXPECT_EQ(c.XDistance(b), -3.0f);
    EXPECT_EQ(c.YDistance(b), -4.0f);
}

}  // namespace
