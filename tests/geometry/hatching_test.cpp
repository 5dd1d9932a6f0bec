#include "quelworks/geometry/hatching.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "geometry/hatching_internal.h"
#include "geometry/polygon_reference.h"
#include "geometry/polygon_test_support.h"

using namespace polygon_test;
using quelworks::detail::IntersectSegments;
using quelworks::detail::IsPointInOutline;

namespace {

using Groups = std::vector<std::vector<LineSegment>>;

// One line per group: "y: x0-x1 x0-x1", a '!' after a segment not lying on the group's y (-0
// is shown as 0).
std::string describe(const Groups& groups) {
    std::ostringstream s;
    for (const std::vector<LineSegment>& group : groups) {
        const float y = group.front().start.y;
        s << y << ":";
        for (const LineSegment& l : group) {
            s << " " << l.start.x + 0.0f << "-" << l.end.x + 0.0f
              << (l.start.y == y && l.end.y == y ? "" : "!");
        }
        s << "\n";
    }
    return s.str();
}

bool sameGroups(const Groups& a, const Groups& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t g = 0; g < a.size(); ++g) {
        if (!sameBits(a[g], b[g])) return false;
    }
    return true;
}

}  // namespace

TEST(FragmentToLines, Examples) {
    const std::vector<Vector2f> square = {Vector2f(0, 0), Vector2f(10, 0), Vector2f(10, 10),
                                          Vector2f(0, 10)};
    // The line y = 10 gives no group: its midpoint (5, 10) is not inside.
    EXPECT_EQ(describe(FragmentToLines(square, 2)),
              "0: 0-10\n2: 0-10\n4: 0-10\n6: 0-10\n8: 0-10\n");
    EXPECT_EQ(describe(FragmentToLines(square, 50)), "0: 0-10\n");
    const std::vector<Vector2f> u = {Vector2f(0, 0),   Vector2f(30, 0),  Vector2f(30, 30),
                                     Vector2f(20, 30), Vector2f(20, 10), Vector2f(10, 10),
                                     Vector2f(10, 30), Vector2f(0, 30)};
    EXPECT_EQ(describe(FragmentToLines(u, 5)),
              "0: 0-30\n5: 0-30\n10: 0-10 20-30\n15: 0-10 20-30\n20: 0-10 20-30\n25: 0-10 20-30\n");
    EXPECT_TRUE(FragmentToLines({}, 3).empty());
    EXPECT_TRUE(FragmentToLines({Vector2f(1, 1), Vector2f(5, 5)}, 1).empty());
    EXPECT_TRUE(FragmentToLines(square, 0).empty());
    EXPECT_TRUE(FragmentToLines(square, -2).empty());
}

TEST(FragmentToLines, IntersectionAndContainmentQuirks) {
    // An extended line through an end point of the other segment counts, even outside its range.
    Vector2f hit;
    ASSERT_TRUE(
        IntersectSegments(Vector2f(-2, 10), Vector2f(12, 10), Vector2f(8, 6), Vector2f(9, 7), hit));
    EXPECT_TRUE(hit.x == 12 && hit.y == 10);
    // Containment works on truncated vertices: this square's right side lies at x = 10.
    const std::vector<Vector2f> square = {Vector2f(0, 0), Vector2f(10.9f, 0), Vector2f(10.9f, 10),
                                          Vector2f(0, 10)};
    EXPECT_TRUE(IsPointInOutline(Vector2f(5, 5), square));
    EXPECT_FALSE(IsPointInOutline(Vector2f(10.5f, 5), square));
}

TEST(FragmentToLines, MatchesReferenceOnRandomOutlines) {
    std::mt19937 rng(12);
    std::uniform_real_distribution<float> coord(-60, 100);
    for (int round = 0; round < 2000; ++round) {
        // Stars closed implicitly, on and off the integer grid; any chain from a single point on,
        // sometimes with a repeated end; small integer outlines, where scan lines through
        // vertices and extended edges reaching the ends of the scan segment are common.
        std::vector<pointf> p =
            round % 4 == 0   ? starPolygon(rng, 50, 40, 5, 45, 3 + round % 30)
            : round % 4 == 1 ? starPolygon(rng, -20, 10, 2, 35, 3 + round % 11, false)
            : round % 4 == 2 ? randomChain(rng, 1 + round % 12, 60, round % 8 == 2)
                             : randomChain(rng, 3 + round % 8, 12, false);
        if (round % 4 < 2) p.pop_back();
        if (round % 4 == 3) {
            for (pointf& v : p) v = pointf(std::floor(v.x), std::floor(v.y));
        }
        if (round % 13 == 12) p[0].y = round % 2 ? 1e3f : -0.0f;
        std::vector<Vector2f> outline(p.begin(), p.end());
        const int spacing = 1 + round % 7;
        ASSERT_TRUE(sameGroups(FragmentToLines(outline, spacing),
                               reference::FragmentToLines(outline, spacing)))
            << "round " << round;
        // The containment used on the midpoints, also with odd vertex coordinates.
        if (round % 7 == 6) outline[0].x = oddValue(rng);
        for (int k = 0; k < 20; ++k) {
            const Vector2f q(k % 4 ? coord(rng) : std::round(coord(rng)), coord(rng));
            ASSERT_EQ(IsPointInOutline(q, outline), reference::IsPointInOutline(q, outline))
                << "round " << round << ": " << q.x << "," << q.y;
        }
    }
}
