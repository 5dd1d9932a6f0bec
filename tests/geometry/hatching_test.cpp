#include "quelworks/geometry/hatching.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "geometry/hatching_internal.h"
#include "geometry/outline_index.h"
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
        // The plain containment test and the outline index the hatching uses on the midpoints,
        // also with odd vertex coordinates.
        if (round % 7 == 6) outline[0].x = oddValue(rng);
        const quelworks::detail::OutlineIndex index(outline);
        for (int k = 0; k < 20; ++k) {
            const Vector2f q(k % 4 ? coord(rng) : std::round(coord(rng)), coord(rng));
            const bool expected = reference::IsPointInOutline(q, outline);
            ASSERT_EQ(IsPointInOutline(q, outline), expected)
                << "round " << round << ": " << q.x << "," << q.y;
            ASSERT_EQ(index.contains(q), expected)
                << "round " << round << ": " << q.x << "," << q.y;
        }
    }
}

namespace {

// Points that probe the outline index where its shortcuts have edges: on whole units, just
// below them (where q.x - xA can round up to the next whole unit), on halves, at the midpoints
// of the segments hatching would test, and anywhere.
std::vector<Vector2f> probePoints(std::mt19937& rng, const std::vector<Vector2f>& outline, float lo,
                                  float hi, int count, bool hatched) {
    std::vector<Vector2f> points;
    std::uniform_real_distribution<float> coord(lo, hi);
    std::uniform_int_distribution<int> whole(static_cast<int>(lo), static_cast<int>(hi));
    const float below[] = {0.0f, 0.5f, 1.0f / 1024, 1.0f / 512, 1.0f / 256, 1.0f / 128, 0.1f};
    for (int k = 0; k < count; ++k) {
        const float x = static_cast<float>(whole(rng));
        const float y = k % 3 == 0 ? coord(rng) : static_cast<float>(whole(rng)) + 0.5f * (k % 2);
        const float offset = below[rng() % 7];
        points.push_back(Vector2f(offset == 0 ? x : std::nextafter(x - offset, x), y));
        points.push_back(Vector2f(x - offset, y));
        // One step below a whole unit: q.x - xA rounds up to the whole unit when xA lies far
        // enough left.
        points.push_back(Vector2f(std::nextafter(x, lo - 1), y));
        points.push_back(Vector2f(coord(rng), coord(rng)));
    }
    if (!hatched) return points;
    for (const auto& group : FragmentToLines(outline, 1)) {
        for (LineSegment s : group) points.push_back(s.Mid());
    }
    return points;
}

void expectIndexMatchesPlainTest(std::mt19937& rng, const std::vector<Vector2f>& outline, float lo,
                                 float hi, int count, bool hatched = true) {
    const quelworks::detail::OutlineIndex index(outline);
    for (const Vector2f& q : probePoints(rng, outline, lo, hi, count, hatched)) {
        ASSERT_EQ(index.contains(q), reference::IsPointInOutline(q, outline))
            << q.x << "," << q.y << " in an outline of " << outline.size();
    }
}

}  // namespace

// Small self-crossing outlines on a half-unit grid, every other one shifted by 0.4: points just
// below a whole unit, whole units and the columns' last unit are where the index's per-column
// answers must agree with the plain test (and the hatching built on them with the reference).
TEST(OutlineIndex, MatchesThePlainTestOnSelfCrossingHalfUnitOutlines) {
    std::mt19937 rng(15);
    int withColumns = 0;
    for (int round = 0; round < 3000; ++round) {
        std::vector<pointf> chain = randomChain(rng, 3 + round % 6, 6, false);
        std::vector<Vector2f> outline;
        for (const pointf& p : chain) {
            const float x = std::round(p.x * 2) * 0.5f + (round % 2 ? 0.4f : 0.0f) - 3.0f;
            outline.push_back(Vector2f(x, std::round(p.y * 2) * 0.5f));
        }
        const quelworks::detail::OutlineIndex index(outline);
        withColumns += index.hasColumns();
        expectIndexMatchesPlainTest(rng, outline, -4, 5, 12);
        ASSERT_TRUE(sameGroups(FragmentToLines(outline, 1), reference::FragmentToLines(outline, 1)))
            << "round " << round;
    }
    EXPECT_GT(withColumns, 2500);
}

// Near the largest coordinates the columns take (+-16383), just beyond them, and where the plain
// test's int products wrap; outlines straddling the limit, or spanning from one end to the other.
TEST(OutlineIndex, MatchesThePlainTestNearTheColumnLimit) {
    std::mt19937 rng(16);
    int withColumns = 0;
    for (int round = 0; round < 400; ++round) {
        const float sign = round % 2 ? 1.0f : -1.0f;
        // Beyond 23170 the plain test's products can wrap; the columns must not be used there.
        const float centres[] = {16370.0f, 16000.0f, 23200.0f};
        const float centre = sign * centres[(round / 2) % 3];
        const float extent = round % 12 < 11 ? 24.0f : 32760.0f;
        std::uniform_real_distribution<float> offset(-extent / 2, extent / 2);
        std::vector<Vector2f> outline;
        for (int k = 0; k < 3 + round % 7; ++k) {
            float x = std::round(centre + offset(rng));
            float y = std::round(centre * (round % 3 ? 1.0f : -1.0f) + offset(rng));
            if (extent > 100) {
                // From one end to the other, in x and in y.
                const float reach = std::fabs(centre) - std::round(offset(rng) / extent * 20);
                x = (k % 2 ? reach : -reach);
                y = std::round(offset(rng) / extent * 2 * std::fabs(centre));
            }
            if (round % 5 == 4) y += 0.5f;
            outline.push_back(Vector2f(x, y));
        }
        const quelworks::detail::OutlineIndex index(outline);
        withColumns += index.hasColumns();
        float lo = outline[0].x, hi = lo;
        for (const Vector2f& v : outline) {
            lo = std::min({lo, v.x, v.y});
            hi = std::max({hi, v.x, v.y});
        }
        expectIndexMatchesPlainTest(rng, outline, lo - 2, hi + 2, 40, extent < 100);
    }
    EXPECT_GT(withColumns, 100);
    EXPECT_LT(withColumns, 380);
}
