#include "quelworks/geometry/hatching.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "geometry/hatching_internal.h"
#include "geometry/polygon_reference.h"
#include "geometry/polygon_test_support.h"
#include "quelworks/geometry/polygon.h"

using namespace polygon_test;
using quelworks::detail::IntersectSegments;
using quelworks::detail::IsPointInOutline;

namespace {

using Groups = std::vector<std::vector<LineSegment>>;

bool sameGroups(const Groups& a, const Groups& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t g = 0; g < a.size(); ++g) {
        if (a[g].size() != b[g].size()) return false;
        for (std::size_t i = 0; i < a[g].size(); ++i) {
            const LineSegment& s = a[g][i];
            const LineSegment& t = b[g][i];
            if (!sameBits(s.start.x, t.start.x) || !sameBits(s.start.y, t.start.y) ||
                !sameBits(s.end.x, t.end.x) || !sameBits(s.end.y, t.end.y)) {
                return false;
            }
        }
    }
    return true;
}

std::vector<Vector2f> toVectors(const std::vector<pointf>& p, bool dropClosing) {
    std::vector<Vector2f> v(p.begin(), p.end() - (dropClosing && !p.empty() ? 1 : 0));
    return v;
}

}  // namespace

TEST(FragmentToLines, Square) {
    const std::vector<Vector2f> square = {Vector2f(0, 0), Vector2f(10, 0), Vector2f(10, 10),
                                          Vector2f(0, 10)};
    const Groups groups = FragmentToLines(square, 2);
    ASSERT_EQ(groups.size(), 5u);  // y = 0, 2, 4, 6, 8; the line y = 10 gives no group
    for (std::size_t g = 0; g < groups.size(); ++g) {
        ASSERT_EQ(groups[g].size(), 1u);
        EXPECT_EQ(groups[g][0].start.x, 0);
        EXPECT_EQ(groups[g][0].end.x, 10);
        EXPECT_EQ(groups[g][0].start.y, 2.0f * g);
        EXPECT_EQ(groups[g][0].end.y, 2.0f * g);
    }
}

TEST(FragmentToLines, UShape) {
    const std::vector<Vector2f> u = {Vector2f(0, 0),   Vector2f(30, 0),  Vector2f(30, 30),
                                     Vector2f(20, 30), Vector2f(20, 10), Vector2f(10, 10),
                                     Vector2f(10, 30), Vector2f(0, 30)};
    const Groups groups = FragmentToLines(u, 5);
    ASSERT_EQ(groups.size(), 6u);  // y = 0, 5, 10, 15, 20, 25
    for (int g = 0; g < 2; ++g) {
        ASSERT_EQ(groups[g].size(), 1u);
        EXPECT_EQ(groups[g][0].start.x, 0);
        EXPECT_EQ(groups[g][0].end.x, 30);
    }
    for (int g = 2; g < 6; ++g) {
        ASSERT_EQ(groups[g].size(), 2u) << g;
        EXPECT_EQ(groups[g][0].start.x, 0);
        EXPECT_EQ(groups[g][0].end.x, 10);
        EXPECT_EQ(groups[g][1].start.x, 20);
        EXPECT_EQ(groups[g][1].end.x, 30);
        EXPECT_EQ(groups[g][1].start.y, 5.0f * g);
    }
}

TEST(FragmentToLines, DegenerateInputs) {
    EXPECT_TRUE(FragmentToLines({}, 3).empty());
    EXPECT_TRUE(FragmentToLines({Vector2f(1, 1), Vector2f(5, 5)}, 1).empty());
    const std::vector<Vector2f> square = {Vector2f(0, 0), Vector2f(10, 0), Vector2f(10, 10),
                                          Vector2f(0, 10)};
    EXPECT_TRUE(FragmentToLines(square, 0).empty());
    EXPECT_TRUE(FragmentToLines(square, -2).empty());
    // A spacing beyond the height: at most two scan lines.
    EXPECT_LE(FragmentToLines(square, 50).size(), 2u);
}

TEST(IntersectSegments, EndPointsAndRanges) {
    Vector2f hit;
    ASSERT_TRUE(
        IntersectSegments(Vector2f(0, 0), Vector2f(10, 10), Vector2f(0, 10), Vector2f(10, 0), hit));
    EXPECT_EQ(hit.x, 5);
    EXPECT_EQ(hit.y, 5);
    EXPECT_FALSE(
        IntersectSegments(Vector2f(0, 0), Vector2f(1, 1), Vector2f(0, 10), Vector2f(10, 0), hit));
    EXPECT_FALSE(
        IntersectSegments(Vector2f(0, 0), Vector2f(10, 0), Vector2f(0, 1), Vector2f(10, 1), hit));
    // An extended line through an end point of the other segment counts, even outside its range.
    ASSERT_TRUE(
        IntersectSegments(Vector2f(-2, 10), Vector2f(12, 10), Vector2f(8, 6), Vector2f(9, 7), hit));
    EXPECT_EQ(hit.x, 12);
    EXPECT_EQ(hit.y, 10);
}

TEST(IsPointInOutline, TruncatedCoordinates) {
    const std::vector<Vector2f> square = {Vector2f(0, 0), Vector2f(10.9f, 0), Vector2f(10.9f, 10),
                                          Vector2f(0, 10)};
    EXPECT_TRUE(IsPointInOutline(Vector2f(5, 5), square));
    EXPECT_FALSE(IsPointInOutline(Vector2f(10.5f, 5), square));  // the side lies at x = 10
    EXPECT_FALSE(IsPointInOutline(Vector2f(5, 5), {Vector2f(0, 0), Vector2f(10, 10)}));
}

TEST(IsPointInOutline, MatchesReference) {
    std::mt19937 rng(8);
    for (int round = 0; round < 300; ++round) {
        std::vector<pointf> p = round % 2 ? starPolygon(rng, 0, 0, 5, 60, 3 + round % 40, false)
                                          : randomChain(rng, 3 + round % 9, 40, false);
        if (round % 7 == 6) p[0].x = oddValue(rng);
        const std::vector<Vector2f> outline = toVectors(p, round % 2 == 1);
        std::uniform_real_distribution<float> coord(-70, 70);
        for (int k = 0; k < 100; ++k) {
            const Vector2f q(k % 10 == 0 ? std::round(coord(rng)) : coord(rng), coord(rng));
            ASSERT_EQ(IsPointInOutline(q, outline), reference::IsPointInOutline(q, outline));
        }
    }
}

TEST(FragmentToLines, MatchesReferenceOnRandomOutlines) {
    std::mt19937 rng(12);
    for (int round = 0; round < 400; ++round) {
        std::vector<pointf> p;
        switch (round % 4) {
            case 0:
                p = starPolygon(rng, 50, 40, 5, 45, 3 + round % 30);
                break;
            case 1:
                p = starPolygon(rng, -20, 10, 2, 35, 3 + round % 11, false);
                break;
            case 2:
                p = randomChain(rng, 3 + round % 12, 60, false);
                break;
            default:
                p = randomChain(rng, 1 + round % 5, 20, true);
                break;
        }
        if (round % 13 == 12) p[0].y = round % 2 ? 1e3f : -0.0f;
        const std::vector<Vector2f> outline = toVectors(p, round % 4 < 2);
        const int spacing = 1 + round % 7;
        ASSERT_TRUE(sameGroups(FragmentToLines(outline, spacing),
                               reference::FragmentToLines(outline, spacing)))
            << "round " << round;
    }
}

TEST(FragmentToLines, SmallIntegerOutlinesMatchReference) {
    // Small integer outlines make lines through vertices and extended edges that reach the ends
    // of the scan segment exactly (a spurious crossing there is part of the result) common.
    std::mt19937 rng(21);
    std::uniform_int_distribution<int> coord(0, 12);
    int spurious = 0;
    for (int round = 0; round < 3000; ++round) {
        std::vector<Vector2f> outline;
        const int n = 3 + round % 8;
        for (int i = 0; i < n; ++i) {
            outline.push_back(
                Vector2f(static_cast<float>(coord(rng)), static_cast<float>(coord(rng))));
        }
        const int spacing = 1 + round % 4;
        const Groups expected = reference::FragmentToLines(outline, spacing);
        ASSERT_TRUE(sameGroups(FragmentToLines(outline, spacing), expected)) << "round " << round;
        // Count crossings found on extended edges (beyond the edge's own y range).
        const rectanglef box = GetBoundingBox(outline);
        const float x0 = box.x - spacing, x1 = 2.0f * spacing + box.width + x0;
        for (int y = static_cast<int>(box.y); y < box.y + box.height + spacing; y += spacing) {
            for (int i = 0; i < n; ++i) {
                const Vector2f c = outline[i], d = outline[(i + 1) % n];
                Vector2f hit;
                if ((y < std::min(c.y, d.y) || y > std::max(c.y, d.y)) &&
                    reference::IntersectSegments(Vector2f(x0, y), Vector2f(x1, y), c, d, hit)) {
                    ++spurious;
                }
            }
        }
    }
    EXPECT_GT(spurious, 0);
}
