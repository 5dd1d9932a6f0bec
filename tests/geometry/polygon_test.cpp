#include "quelworks/geometry/polygon.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

#include "geometry/polygon_internal.h"
#include "geometry/polygon_reference.h"
#include "geometry/polygon_test_support.h"

using namespace polygon_test;
using quelworks::detail::MergeRectangles;
using quelworks::detail::PolygonIndex;
using quelworks::detail::PolygonScratch;

namespace {

const std::vector<pointf> kSquare = {pointf(0, 0), pointf(10, 0), pointf(10, 10), pointf(0, 10),
                                     pointf(0, 0)};

// Query points that exercise the special cases: vertices, edge midpoints, vertex rows, and
// random points around the polygon.
std::vector<pointf> queryPoints(std::mt19937& rng, const std::vector<pointf>& poly, int random) {
    std::vector<pointf> q;
    float lo = 0, hi = 10;
    for (const pointf& p : poly) {
        if (std::isfinite(p.x) && std::isfinite(p.y) && std::fabs(p.x) < 1e6f &&
            std::fabs(p.y) < 1e6f) {
            lo = std::min({lo, p.x, p.y});
            hi = std::max({hi, p.x, p.y});
        }
    }
    std::uniform_real_distribution<float> coord(lo - 5, hi + 5);
    for (std::size_t i = 0; i < poly.size(); ++i) {
        q.push_back(poly[i]);
        q.push_back(pointf(coord(rng), poly[i].y));
        if (i + 1 < poly.size()) {
            q.push_back(
                pointf((poly[i].x + poly[i + 1].x) * 0.5f, (poly[i].y + poly[i + 1].y) * 0.5f));
        }
    }
    for (int i = 0; i < random; ++i) q.push_back(pointf(coord(rng), coord(rng)));
    for (int i = 0; i < random / 4; ++i)
        q.push_back(pointf(std::round(coord(rng)), std::round(coord(rng))));
    return q;
}

void expectContainmentMatches(std::mt19937& rng, const std::vector<pointf>& poly, int random) {
    PolygonIndex index(poly);
    PolygonScratch scratch;
    for (const pointf& q : queryPoints(rng, poly, random)) {
        const bool expected = reference::IsPointInPolygon(q, poly);
        ASSERT_EQ(IsPointInPolygon(q, poly), expected) << q.x << "," << q.y;
        ASSERT_EQ(index.contains(q, scratch), expected) << q.x << "," << q.y;
    }
}

}  // namespace

TEST(IsPointInPolygon, SquareExamples) {
    EXPECT_TRUE(IsPointInPolygon(pointf(5, 5), kSquare));
    EXPECT_FALSE(IsPointInPolygon(pointf(15, 5), kSquare));
    EXPECT_TRUE(IsPointInPolygon(pointf(10, 10), kSquare));
    EXPECT_TRUE(IsPointInPolygon(pointf(0, 5), kSquare));  // on the boundary
    EXPECT_FALSE(IsPointInPolygon(pointf(-0.5f, 5), kSquare));
}

TEST(IsPointInPolygon, OpenChainHasNoClosingEdge) {
    // Without the repeated first vertex the left side (0,10)-(0,0) is missing, so a row through
    // the square only crosses the side x = 10: points left of it count as inside, even outside
    // the square.
    const std::vector<pointf> open(kSquare.begin(), kSquare.end() - 1);
    EXPECT_TRUE(IsPointInPolygon(pointf(5, 5), open));
    EXPECT_TRUE(IsPointInPolygon(pointf(-5, 5), open));
    EXPECT_FALSE(IsPointInPolygon(pointf(15, 5), open));
    // The last vertex is never tested as a vertex hit of its own.
    const std::vector<pointf> chain = {pointf(0, 0), pointf(10, 0)};
    EXPECT_TRUE(IsPointInPolygon(pointf(0, 0), chain));
    EXPECT_FALSE(IsPointInPolygon(pointf(10, 0), chain));
    EXPECT_FALSE(IsPointInPolygon(pointf(5, 5), chain));
}

TEST(IsPointInPolygon, DegeneratePolygons) {
    EXPECT_FALSE(IsPointInPolygon(pointf(1, 1), {pointf(1, 1)}));
    EXPECT_THROW(IsPointInPolygon(pointf(1, 1), {}), std::out_of_range);
    std::vector<pointf> empty;
    PolygonIndex index(empty);
    PolygonScratch scratch;
    EXPECT_THROW(index.contains(pointf(0, 0), scratch), std::out_of_range);
}

TEST(IsPointInPolygon, DenominatorQuirkIsKept) {
    // Row y = 10 crosses the side x = 100 (upward) and the short downward step at x = 50, whose
    // den truncates to 0: the step counts to the left only, the parities differ, and (20, 10),
    // geometrically outside, is reported as on the boundary.
    const std::vector<pointf> step = {pointf(0, 0),      pointf(100, 0),   pointf(100, 10.4f),
                                      pointf(50, 10.4f), pointf(50, 9.8f), pointf(0, 9.8f),
                                      pointf(0, 0)};
    EXPECT_TRUE(IsPointInPolygon(pointf(20, 10), step));
    EXPECT_TRUE(reference::IsPointInPolygon(pointf(20, 10), step));
    EXPECT_TRUE(IsPointInPolygon(pointf(75, 10), step));
    EXPECT_FALSE(IsPointInPolygon(pointf(20, 20), step));
    // Clockwise polygons work as well.
    const std::vector<pointf> clockwise = {pointf(0, 0), pointf(0, 10), pointf(10, 10),
                                           pointf(10, 0), pointf(0, 0)};
    EXPECT_TRUE(IsPointInPolygon(pointf(5, 5), clockwise));
    EXPECT_FALSE(IsPointInPolygon(pointf(-5, 5), clockwise));
}

TEST(IsPointInPolygon, MatchesReferenceOnRandomPolygons) {
    std::mt19937 rng(1234);
    for (int round = 0; round < 400; ++round) {
        const int n = std::uniform_int_distribution<int>(1, 40)(rng);
        std::vector<pointf> poly;
        switch (round % 4) {
            case 0:
                poly = starPolygon(rng, 50, 50, 5, 45, n);
                break;
            case 1:
                poly = starPolygon(rng, 50, 50, 5, 45, n, false);
                break;
            case 2:
                poly = randomChain(rng, n, 30, true);
                break;
            default:
                poly = randomChain(rng, n, 30, false);
                break;
        }
        if (round % 10 == 9) {
            // Odd values in a few coordinates.
            std::uniform_int_distribution<std::size_t> at(0, poly.size() - 1);
            for (int k = 0; k < 2; ++k) {
                pointf& p = poly[at(rng)];
                (k == 0 ? p.x : p.y) = oddValue(rng);
            }
        }
        expectContainmentMatches(rng, poly, 60);
    }
}

TEST(IsPointInPolygon, ManyVerticesMatchReference) {
    // Rows crossing many spikes, and coordinates off the integer grid.
    std::mt19937 rng(3);
    for (int round = 0; round < 6; ++round) {
        std::vector<pointf> poly = regularStar(100 + 80 * round, 300.5f, 200.25f, 290, 120);
        if (round % 2) poly.pop_back();  // left open
        expectContainmentMatches(rng, poly, 3000);
    }
}

TEST(IsPointInPolygon, LargeCoordinatesFollowTheTruncation) {
    // Cross products beyond the int range convert to INT_MIN (negative) and change the counts.
    std::mt19937 rng(77);
    for (int round = 0; round < 50; ++round) {
        std::vector<pointf> poly = starPolygon(rng, 60000, -40000, 1000, 50000, 12);
        expectContainmentMatches(rng, poly, 100);
    }
}

TEST(IsPointInPolygon, AgreesWithGeometryAwayFromEdges) {
    // For closed polygons with integer vertices the counts give the even-odd containment for any
    // point at least 1.5 units from every edge.
    std::mt19937 rng(99);
    auto distanceToSegment = [](double px, double py, pointf a, pointf b) {
        const double dx = b.x - a.x, dy = b.y - a.y;
        const double len2 = dx * dx + dy * dy;
        double t = len2 > 0 ? ((px - a.x) * dx + (py - a.y) * dy) / len2 : 0;
        t = std::max(0.0, std::min(1.0, t));
        return std::hypot(px - (a.x + t * dx), py - (a.y + t * dy));
    };
    int checked = 0;
    for (int round = 0; round < 100; ++round) {
        const std::vector<pointf> poly = round % 2
                                             ? starPolygon(rng, 500, 500, 50, 450, 8 + round * 3)
                                             : randomChain(rng, 5 + round % 17, 1000, true);
        std::uniform_real_distribution<float> coord(-20, 1020);
        PolygonIndex index(poly);
        PolygonScratch scratch;
        for (int k = 0; k < 300; ++k) {
            const pointf q(coord(rng), coord(rng));
            bool far = true;
            bool inside = false;
            for (std::size_t i = 0; i + 1 < poly.size(); ++i) {
                const pointf a = poly[i], b = poly[i + 1];
                if (distanceToSegment(q.x, q.y, a, b) < 1.5) far = false;
                if ((a.y > q.y) != (b.y > q.y) &&
                    q.x < (double(b.x) - a.x) * (double(q.y) - a.y) / (double(b.y) - a.y) + a.x) {
                    inside = !inside;
                }
            }
            if (!far) continue;
            ++checked;
            ASSERT_EQ(IsPointInPolygon(q, poly), inside) << round << ": " << q.x << "," << q.y;
            ASSERT_EQ(index.contains(q, scratch), inside);
        }
    }
    EXPECT_GT(checked, 20000);
}

TEST(GetBoundingBox, Examples) {
    const rectanglef empty = GetBoundingBox(std::vector<Vector2f>{});
    EXPECT_EQ(empty.x, 0);
    EXPECT_EQ(empty.y, 0);
    EXPECT_EQ(empty.width, 1);
    EXPECT_EQ(empty.height, 1);
    const rectanglef box =
        GetBoundingBox(std::vector<pointf>{pointf(1.7f, 2.2f), pointf(4.9f, 8.1f)});
    EXPECT_EQ(box.x, 1);
    EXPECT_EQ(box.y, 2);
    EXPECT_EQ(box.width, 3);
    EXPECT_EQ(box.height, 6);
    const rectanglef single = GetBoundingBox(std::vector<Vector2f>{Vector2f(3.5f, -2.5f)});
    EXPECT_EQ(single.x, 3);
    EXPECT_EQ(single.y, -2);
    EXPECT_EQ(single.width, 0);
    EXPECT_EQ(single.height, 0);
    // Truncation toward zero: -0.5 and 2.7 span 0 to 2.
    const rectanglef span =
        GetBoundingBox(std::vector<Vector2f>{Vector2f(-0.5f, 0), Vector2f(2.7f, 0)});
    EXPECT_EQ(span.x, 0);
    EXPECT_EQ(span.width, 2);
    // Once a minimum is set from a negative value, a value between it and zero does not lower
    // it: (float)-1 > -1.5 is false.
    const rectanglef neg = GetBoundingBox(
        std::vector<Vector2f>{Vector2f(-1.9f, 0), Vector2f(-1.5f, 0), Vector2f(-2.2f, 0)});
    EXPECT_EQ(neg.x, -2);
    EXPECT_EQ(neg.width, 1);
}

TEST(MergeRectangles, MatchesReferenceOnRandomArrays) {
    std::mt19937 rng(4321);
    for (int round = 0; round < 600; ++round) {
        std::vector<rectanglef> rects;
        const int n = std::uniform_int_distribution<int>(0, 60)(rng);
        // A coarse grid of cells, sizes from a few values, so that many pairs share edges.
        std::uniform_int_distribution<int> cell(0, 6);
        std::uniform_int_distribution<int> size(0, 3);
        const float sizes[] = {8, 16, 32, 120};
        for (int i = 0; i < n; ++i) {
            const float w = sizes[size(rng)];
            const float h = round % 3 == 0 ? w : sizes[size(rng)];
            rects.push_back(rectanglef(cell(rng) * 8.0f, cell(rng) * 8.0f, w, h));
        }
        if (round % 5 == 4 && !rects.empty()) {
            std::uniform_int_distribution<std::size_t> at(0, rects.size() - 1);
            rects[at(rng)].x = oddValue(rng);
            rects[at(rng)].height = oddValue(rng);
            rects.push_back(rects[at(rng)]);  // a duplicate
            rects.push_back(rectanglef(-0.0f, 0.0f, 0.0f, 8.0f));
            rects.push_back(rectanglef(0.0f, 0.0f, 0.0f, 8.0f));
        }
        std::vector<rectanglef> expected = rects;
        reference::Merge(expected);
        MergeRectangles(rects);
        ASSERT_TRUE(sameRects(rects, expected)) << "round " << round;
    }
}

TEST(RectangleInside, MatchesReference) {
    std::mt19937 rng(555);
    PolygonScratch scratch;
    for (int round = 0; round < 300; ++round) {
        const std::vector<pointf> poly = round % 2
                                             ? starPolygon(rng, 60, 60, 20, 55, 6 + round % 30)
                                             : randomChain(rng, 4 + round % 12, 120, true);
        PolygonIndex index(poly);
        std::uniform_real_distribution<float> pos(0, 110);
        std::uniform_real_distribution<float> ext(1, 70);
        const int tolerances[] = {0, 10, 50, -5, 100};
        for (int k = 0; k < 20; ++k) {
            const rectanglef r(std::round(pos(rng)), std::round(pos(rng)), ext(rng), ext(rng));
            const int t = tolerances[k % 5];
            ASSERT_EQ(index.rectangleInside(r, t, scratch),
                      reference::IsRectInsidePolygon(r, poly, t))
                << round << " " << k;
        }
    }
}
