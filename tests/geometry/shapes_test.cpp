#include <gtest/gtest.h>

#include <climits>
#include <limits>
#include <utility>

#include "quelworks/geometry/shapes.h"

namespace {

TEST(LineSegment, LengthIsTruncated) {
    EXPECT_EQ(LineSegment(Vector2f(0, 0), Vector2f(3, 4)).Length(), 5);
    EXPECT_EQ(LineSegment(Vector2f(0, 0), Vector2f(1, 1)).Length(), 1);
    EXPECT_EQ(LineSegment(Vector2f(2, 2), Vector2f(2, 2)).Length(), 0);
    EXPECT_EQ(LineSegment(Vector2f(0, 0), Vector2f(9.99f, 0)).Length(), 9);
    EXPECT_EQ(LineSegment(Vector2f(5, 0), Vector2f(0, 0)).Length(), 5);
    EXPECT_EQ(LineSegment().Length(), 0);
    // Beyond the int range the conversion gives INT_MIN, as for every truncation in the library.
    EXPECT_EQ(LineSegment(Vector2f(0, 0), Vector2f(3e9f, 0)).Length(), INT_MIN);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(LineSegment(Vector2f(0, 0), Vector2f(nan, 0)).Length(), INT_MIN);
}

TEST(LineSegment, MidAndCopies) {
    LineSegment s(Vector2f(-2, 4), Vector2f(2, 0));
    const Vector2f mid = s.Mid();
    EXPECT_EQ(mid.x, 0.0f);
    EXPECT_EQ(mid.y, 2.0f);
    // (end - start) * 0.5 + start, which is not always (start + end) / 2 in float.
    LineSegment t(Vector2f(0.1f, 1e8f), Vector2f(0.7f, 3.0f));
    EXPECT_EQ(t.Mid().x, (0.7f - 0.1f) * 0.5f + 0.1f);
    EXPECT_EQ(t.Mid().y, (3.0f - 1e8f) * 0.5f + 1e8f);

    LineSegment copy(s);
    LineSegment moved(std::move(copy));
    EXPECT_EQ(moved.start.x, -2.0f);
    EXPECT_EQ(moved.end.y, 0.0f);
    LineSegment assigned;
    assigned = s;
    EXPECT_TRUE(assigned.start == s.start && assigned.end == s.end);
    LineSegment zero;
    EXPECT_TRUE(zero.start == Vector2f() && zero.end == Vector2f());
}

TEST(Rectangles, StoreValuesInArgumentOrder) {
    static_assert(sizeof(rectangle) == 16 && sizeof(rectanglef) == 16, "four 32-bit fields");
    const rectanglef f(1, 2, 3, 4);
    EXPECT_TRUE(f.x == 1 && f.y == 2 && f.width == 3 && f.height == 4);
    rectangle r;
    EXPECT_TRUE(r.x == 0 && r.y == 0 && r.width == 0 && r.height == 0);
    r = rectangle(-1, 2, -3, 4);
    EXPECT_TRUE(r.x == -1 && r.y == 2 && r.width == -3 && r.height == 4);
}

TEST(CalibrationPoint, CloneAndCopiesInAList) {
    CalibrationPoint c(Vector2f(1, 2), Vector2f(3, 4));
    const CalibrationPoint clone = c.Clone();
    EXPECT_TRUE(clone.camera == c.camera);
    EXPECT_TRUE(clone.device == c.device);
    CalibrationPoint d;
    EXPECT_TRUE(d.camera == Vector2f() && d.device == Vector2f());
    d = c;
    EXPECT_TRUE(d.device == Vector2f(3, 4));

    RList<CalibrationPoint> list;
    for (int i = 0; i < 4; ++i) {
        list.push_back(CalibrationPoint(Vector2f(i, 0), Vector2f(0, static_cast<float>(i))));
    }
    RList<CalibrationPoint> copy(list);
    copy[0].camera.x = 99;
    EXPECT_EQ(list[0].camera.x, 0.0f);
    EXPECT_EQ(copy.length(), 4);
    int i = 0;
    for (Iter<CalibrationPoint> it = copy.begin(); it != copy.end(); ++it, ++i) {
        EXPECT_EQ((*it).device.y, static_cast<float>(i));
    }
    EXPECT_EQ(i, 4);
}

}  // namespace
