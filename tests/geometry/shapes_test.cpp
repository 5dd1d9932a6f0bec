#include <gtest/gtest.h>

#include <climits>
#include <utility>

#include "quelworks/geometry/shapes.h"

namespace {

TEST(LineSegment, LengthIsTruncated) {
    // From (1, 1) to each end: lengths 5, 1.414, 0, 9.99 and 3e9 (beyond the int range).
    const std::pair<Vector2f, int> rows[] = {{Vector2f(4, 5), 5},
                                             {Vector2f(2, 2), 1},
                                             {Vector2f(1, 1), 0},
                                             {Vector2f(10.99f, 1), 9},
                                             {Vector2f(3e9f, 1), INT_MIN}};
    for (const auto& row : rows) {
        EXPECT_EQ(LineSegment(Vector2f(1, 1), row.first).Length(), row.second) << row.first.x;
    }
}

TEST(LineSegment, MidIsHalfTheDifferenceFromTheStart) {
    // (end - start) * 0.5 + start: 0.39999998 here, where (start + end) / 2 gives 0.4.
    const float m = (0.7f - 0.1f) * 0.5f + 0.1f;
    EXPECT_TRUE(LineSegment(Vector2f(0.1f, 0.1f), Vector2f(0.7f, 0.7f)).Mid() == Vector2f(m, m));
}

TEST(CalibrationPoint, CloneKeepsBothPositions) {
    CalibrationPoint c(Vector2f(1, 2), Vector2f(3, 4));
    const CalibrationPoint clone = c.Clone();
    EXPECT_TRUE(clone.camera == Vector2f(1, 2) && clone.device == Vector2f(3, 4));
}

}  // namespace
