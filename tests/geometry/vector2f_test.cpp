#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <tuple>
#include <type_traits>
#include <utility>

#if defined(_WIN32)  // the real POINT, which the library's header only declares there
#include "platform/windows_include.h"
#endif

#include "quelworks/geometry/vector2f.h"

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const double kPi = 3.141592653589793;

// The library's single-precision cosine: the double result rounded to float.
float cosF(float x) {
    return static_cast<float>(std::cos(static_cast<double>(x)));
}

#define EXPECT_VEC_EQ(v, x, y) EXPECT_TRUE(Vector2f(v) == Vector2f(x, y)) << Vector2f(v).ToString()

static_assert(std::is_trivially_copyable<pointf>::value && sizeof(POINT) == 8, "plain pairs");

TEST(Vector2f, ConstructionOperatorsAndEquality) {
    EXPECT_VEC_EQ(Vector2f(POINT{-3, 7}), -3.0f, 7.0f);
    Vector2f a(1, 2);
    const Vector2f b(3, -4);
    EXPECT_VEC_EQ(a + b, 4.0f, -2.0f);
    EXPECT_VEC_EQ(a - b, -2.0f, 6.0f);
    EXPECT_VEC_EQ(a + 0.5f, 1.5f, 2.5f);
    EXPECT_VEC_EQ(a - 1.0f, 0.0f, 1.0f);
    EXPECT_EQ(a * b, -5.0f);
    EXPECT_VEC_EQ(a * 3.0f, 3.0f, 6.0f);
    EXPECT_VEC_EQ(a / 2.0f, 0.5f, 1.0f);
    EXPECT_FALSE(a == Vector2f(1, 2.0000002f) || a == Vector2f(1.0000001f, 2));
    EXPECT_TRUE(Vector2f(0.0f, 0.0f) == Vector2f(-0.0f, -0.0f) &&
                !(Vector2f(kNaN, 0) == Vector2f(kNaN, 0)));
    EXPECT_VEC_EQ(Vector2f(-3, 4).Negate(), 3.0f, -4.0f);
}

TEST(Vector2f, LengthNormalizePerpendiculars) {
    Vector2f a(3, 4);
    EXPECT_EQ(a.Length(), 5.0f);
    const Vector2f copy = a;
    EXPECT_VEC_EQ(Vector2f::Normalize(copy), 0.6f, 0.8f);
    a.Normalize();
    EXPECT_VEC_EQ(a, 0.6f, 0.8f);
    // A zero length is left alone, not divided by.
    Vector2f zero;
    zero.Normalize();
    EXPECT_VEC_EQ(zero, 0.0f, 0.0f);
    EXPECT_VEC_EQ(Vector2f::GetLeftNormal(Vector2f()), 0.0f, 0.0f);
    EXPECT_VEC_EQ(Vector2f::GetLeftPerp(copy), -4.0f, 3.0f);
    EXPECT_VEC_EQ(Vector2f::GetRightPerp(copy), 4.0f, -3.0f);
    EXPECT_VEC_EQ(Vector2f::GetLeftNormal(copy), -0.8f, 0.6f);
    EXPECT_VEC_EQ(Vector2f::GetRightNormal(copy), 0.8f, -0.6f);
}

TEST(Vector2f, Projections) {
    EXPECT_EQ(Vector2f::ScalarProjection(Vector2f(2, 3), Vector2f(4, 0)), 2.0f);
    EXPECT_VEC_EQ(Vector2f::VectorProjection(Vector2f(2, 3), Vector2f(4, 0)), 2.0f, 0.0f);
    // |b| is a rounded square root squared again: for (1, 1) that is 2.0000002, not 2.
    const float factor = 3.0f / (std::sqrt(2.0f) * std::sqrt(2.0f));
    EXPECT_VEC_EQ(Vector2f::VectorProjection(Vector2f(1, 2), Vector2f(1, 1)), factor, factor);
}

TEST(Vector2f, RotateFormsTheRadiansInDouble) {
    const Vector2f r = Vector2f::Rotate(90, Vector2f(1, 1), Vector2f(2, 1));
    EXPECT_NEAR(r.x, 1.0f, 1e-6f);
    EXPECT_NEAR(r.y, 2.0f, 1e-6f);
    // (float)(angle * pi in double) / 180 differs from the float product for these angles, and the
    // result must follow the double product.
    for (float angle : {33.3f, 77.7f, 123.456f, -200.1f, 271.9f, 1000.5f}) {
        const float rad = static_cast<float>(angle * kPi) / 180.0f;
        const float c = cosF(rad), s = static_cast<float>(std::sin(static_cast<double>(rad)));
        const Vector2f got = Vector2f::Rotate(angle, Vector2f(10, -20), Vector2f(110, 30));
        EXPECT_EQ(got.x, 100.0f * c - 50.0f * s + 10.0f) << angle;
        EXPECT_EQ(got.y, 100.0f * s + 50.0f * c + -20.0f) << angle;
    }
}

TEST(Vector2f, LocationIsTheTruncatedCrossProductOrIntMin) {
    // c = (5, y) against the line (0, 0) -> (10, 0): the cross product is 10 y, truncated toward
    // zero; out of the int range (the first float at or above 2^31, either sign) or NaN: INT_MIN.
    const float ys[] = {3, 0.05f, 0.29f, -0.29f, 214748352.0f, 214748368.0f, -1e9f, kNaN};
    const int expected[] = {30, 0, 2, -2, 2147483520, INT_MIN, INT_MIN, INT_MIN};
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(Vector2f::Location(Vector2f(0, 0), Vector2f(10, 0), Vector2f(5, ys[i])),
                  expected[i])
            << ys[i];
    }
}

TEST(Vector2f, NearbyLineWithinFiveUnitsAndNearbyPoint) {
    // Against the segment (0, 0) - (10, 0): within 5 units, with the foot on the segment.
    const std::tuple<float, float, bool> rows[] = {
        {5, 5, true},      {5, -5, true}, {5, 5.01f, false}, {-1, 0, false},
        {10.5f, 1, false}, {10, 0, true}, {0, 0, true}};
    for (const auto& row : rows) {
        const Vector2f p(std::get<0>(row), std::get<1>(row));
        EXPECT_EQ(Vector2f::IsPointNearbyLine(p, Vector2f(0, 0), Vector2f(10, 0)), std::get<2>(row))
            << p.x << " " << p.y;
    }
    // 3 units off a slanted segment; a segment of length 0 (the foot is 0/0).
    EXPECT_TRUE(Vector2f::IsPointNearbyLine(Vector2f(0.6f, 5.8f), Vector2f(0, 0), Vector2f(6, 8)));
    EXPECT_FALSE(Vector2f::IsPointNearbyLine(Vector2f(0, 0), Vector2f(0, 0), Vector2f(0, 0)));
    EXPECT_TRUE(Vector2f::IsPointNearbyPoint(Vector2f(0, 0), Vector2f(3, 4), 5));
    EXPECT_FALSE(Vector2f::IsPointNearbyPoint(Vector2f(0, 0), Vector2f(3, 4), 4));
}

TEST(Vector2f, AngleIsSignedWithCollinearFallback) {
    EXPECT_EQ(Vector2f::Angle(Vector2f(1, 0), Vector2f(0, 1)), 90.0f);
    EXPECT_EQ(Vector2f::Angle(Vector2f(0, 1), Vector2f(1, 0)), -90.0f);
    EXPECT_EQ(Vector2f::Angle(Vector2f(1, 0), Vector2f(2, 0)), 0.0f);
    EXPECT_EQ(Vector2f::Angle(Vector2f(1, 0), Vector2f(-1, 0)), 180.0f);
    EXPECT_EQ(Vector2f::Angle(Vector2f(0, 0), Vector2f(1, 0)), 180.0f);
    EXPECT_EQ(Vector2f::Angle(Vector2f(0, 0), Vector2f(0, 0)), 0.0f);
    EXPECT_NEAR(Vector2f::Angle(Vector2f(1, 0), Vector2f(-1, -1)), -135.0f, 1e-4f);
}

TEST(Vector2f, AngleEXAppliesTheCosine) {
    // cos(1) * 360 / 2pi (about 30.957), not the angle between equal vectors (0).
    const float same = Vector2f::AngleEX(Vector2f(1, 0), Vector2f(1, 0));
    EXPECT_EQ(same, static_cast<float>(cosF(1.0f) * 360.0f / (2 * kPi)));
    EXPECT_NEAR(Vector2f::AngleEX(Vector2f(0, 3), Vector2f(2, 0)), 57.29578f, 1e-4f);
    EXPECT_TRUE(std::isnan(Vector2f::AngleEX(Vector2f(), Vector2f(1, 0))));
}

TEST(Vector2f, DistancesFlipsAndText) {
    const Vector2f a(1, 7), b(4, 3);
    EXPECT_EQ(Vector2f::GetDistanceF(a, b), 5.0f);
    EXPECT_EQ(Vector2f::GetXDistanceF(a, b), -3.0f);
    EXPECT_EQ(Vector2f::GetYDistanceF(a, b), 4.0f);
    EXPECT_VEC_EQ(Vector2f::FlipH(Vector2f(1, 0), Vector2f(3, 5)), -1.0f, 5.0f);
    EXPECT_VEC_EQ(Vector2f::FlipV(Vector2f(0, 1), Vector2f(3, 5)), 3.0f, -3.0f);
    // a - (b - a), which rounds differently from 2a - b.
    EXPECT_VEC_EQ(Vector2f::FlipH(Vector2f(0.1f, 0), Vector2f(0.3f, 0)), 0.1f - (0.3f - 0.1f),
                  0.0f);
    EXPECT_EQ(Vector2f(1.5f, -2.0f).ToString(), "{1.5 ; -2}");
    EXPECT_EQ(Vector2f(0.1f, 1234567.0f).ToString(), "{0.1 ; 1.23457e+06}");
}

TEST(PointF, OperatorsAndDistances) {
    pointf a(1, 2);
    const pointf b(4, 6);
    EXPECT_TRUE(a - b == pointf(-3, -4) && a + b == pointf(5, 8) && b / 2 * 3 == pointf(6, 9));
    EXPECT_FALSE(pointf(kNaN, 0) == pointf(kNaN, 0) || a == pointf(1, 3));
    EXPECT_EQ(a * b, 16.0f);
    EXPECT_TRUE(a.Distancef(b) == 5 && a.XDistance(b) == -3 && a.YDistance(b) == -4);
}

}  // namespace
