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
using quelworks::detail::PolygonIndex;
using quelworks::detail::PolygonScratch;

namespace {

const std::vector<pointf> kSquare = {pointf(0, 0), pointf(10, 0), pointf(10, 10), pointf(0, 10),
                                     pointf(0, 0)};

// Compares the plain and the prepared containment with the reference at the vertices, the edge
// midpoints, points on the vertex rows and random points in [lo, hi] on both axes.
void expectSameContainment(std::mt19937& rng, const std::vector<pointf>& poly, float lo, float hi,
                           int random) {
    const PolygonIndex index(poly);
    PolygonScratch scratch;
    auto check = [&](pointf q) {
        const bool expected = reference::IsPointInPolygon(q, poly);
        ASSERT_EQ(IsPointInPolygon(q, poly), expected) << q.x << "," << q.y;
        ASSERT_EQ(index.contains(q, scratch), expected) << q.x << "," << q.y;
    };
    // Two points at once, one pass over their row when they share it.
    auto checkBoth = [&](pointf p, pointf q) {
        const bool expected =
            reference::IsPointInPolygon(p, poly) && reference::IsPointInPolygon(q, poly);
        ASSERT_EQ(index.bothContained(p, q, scratch), expected)
            << p.x << "," << p.y << " " << q.x << "," << q.y;
    };
    std::uniform_real_distribution<float> coord(lo, hi);
    for (std::size_t i = 0; i < poly.size(); ++i) {
        check(poly[i]);
        check(pointf(coord(rng), poly[i].y));
        checkBoth(poly[i], pointf(coord(rng), poly[i].y));
        checkBoth(pointf(coord(rng), poly[i].y), poly[i]);
        const pointf b = poly[i + 1 < poly.size() ? i + 1 : 0];
        check(pointf((poly[i].x + b.x) * 0.5f, (poly[i].y + b.y) * 0.5f));
    }
    for (int i = 0; i < random; ++i) {
        const pointf q(coord(rng), coord(rng));
        check(i % 4 ? q : pointf(std::round(q.x), std::round(q.y)));
        checkBoth(q, pointf(i % 3 ? coord(rng) : -q.x, i % 5 ? q.y : coord(rng)));
    }
}

}  // namespace

TEST(IsPointInPolygon, Examples) {
    auto in = [](float x, float y, const std::vector<pointf>& polygon) {
        return IsPointInPolygon(pointf(x, y), polygon);
    };
    EXPECT_TRUE(in(5, 5, kSquare));
    EXPECT_FALSE(in(15, 5, kSquare));
    EXPECT_TRUE(in(10, 10, kSquare));
    EXPECT_TRUE(in(0, 5, kSquare));  // the boundary counts as inside
    EXPECT_FALSE(in(-0.5f, 5, kSquare));
    // Without the closing edge a row through the square crosses only the side x = 10.
    const std::vector<pointf> open(kSquare.begin(), kSquare.end() - 1);
    EXPECT_TRUE(in(-5, 5, open));
    EXPECT_FALSE(in(15, 5, open));
    // The last vertex is not tested as a vertex hit of its own.
    EXPECT_TRUE(in(0, 0, {pointf(0, 0), pointf(10, 0)}));
    EXPECT_FALSE(in(10, 0, {pointf(0, 0), pointf(10, 0)}));
    // The den of the short step at x = 50 truncates to 0, so the step counts to the left only:
    // the parities differ and (20, 10), outside, is taken for a boundary point.
    const std::vector<pointf> step = {pointf(0, 0),      pointf(100, 0),   pointf(100, 10.4f),
                                      pointf(50, 10.4f), pointf(50, 9.8f), pointf(0, 9.8f),
                                      pointf(0, 0)};
    EXPECT_TRUE(in(20, 10, step));
    EXPECT_FALSE(in(20, 20, step));
    // The documented example: every point level with the gently sloping roof counts as inside,
    // however far left or right of the polygon it lies.
    const std::vector<pointf> roof = {pointf(0, 0),       pointf(100, 0), pointf(100, 100),
                                      pointf(50, 100.5f), pointf(0, 100), pointf(0, 0)};
    EXPECT_TRUE(in(-300, 100, roof));
    EXPECT_TRUE(in(1000, 100.3f, roof));
    EXPECT_FALSE(in(-300, 99.9f, roof));
    EXPECT_FALSE(in(1, 1, {pointf(1, 1)}));
    EXPECT_THROW(in(1, 1, {}), std::out_of_range);
    PolygonScratch scratch;
    EXPECT_THROW(PolygonIndex(std::vector<pointf>()).contains(pointf(0, 0), scratch),
                 std::out_of_range);
}

TEST(IsPointInPolygon, MatchesReferenceOnRandomPolygons) {
    std::mt19937 rng(1234);
    // Small polygons of every kind (open, self-intersecting, off the integer grid, odd values).
    for (int round = 0; round < 300; ++round) {
        const int n = std::uniform_int_distribution<int>(1, 40)(rng);
        std::vector<pointf> poly = round % 3 == 0
                                       ? starPolygon(rng, 20, 20, 3, 20, n, round % 2 == 0)
                                       : randomChain(rng, n, 40, round % 3 == 1);
        if (round % 10 == 9) {
            poly[rng() % poly.size()].x = oddValue(rng);
            poly[rng() % poly.size()].y = oddValue(rng);
        }
        expectSameContainment(rng, poly, -5, 45, 60);
    }
    // Hundreds of edges (rows crossing many spikes), closed and open.
    for (int round = 0; round < 4; ++round) {
        std::vector<pointf> poly = regularStar(150 + 150 * round, 300.5f, 200.25f, 290, 120);
        if (round % 2) poly.pop_back();
        expectSameContainment(rng, poly, -10, 600, 1000);
    }
    // Cross products beyond the int range convert to INT_MIN and change the counts.
    for (int round = 0; round < 30; ++round) {
        expectSameContainment(rng, starPolygon(rng, 60000, -40000, 1000, 50000, 12), -90000, 110000,
                              100);
    }
}

TEST(IsPointInPolygon, AgreesWithGeometryAwayFromEdges) {
    // For closed polygons the counts give the even-odd containment for any point at least 1.5
    // units from every edge.
    std::mt19937 rng(99);
    std::uniform_real_distribution<float> coord(-20, 1020);
    int checked = 0;
    for (int round = 0; round < 40; ++round) {
        const std::vector<pointf> poly = round % 2
                                             ? starPolygon(rng, 500, 500, 50, 450, 8 + round * 7)
                                             : randomChain(rng, 5 + round % 17, 1000, true);
        for (int k = 0; k < 300; ++k) {
            const double x = coord(rng), y = coord(rng);
            bool far = true, inside = false;
            for (std::size_t i = 0; i + 1 < poly.size(); ++i) {
                const double ax = poly[i].x, ay = poly[i].y;
                const double dx = poly[i + 1].x - ax, dy = poly[i + 1].y - ay;
                const double len2 = dx * dx + dy * dy;
                const double t = len2 > 0 ? ((x - ax) * dx + (y - ay) * dy) / len2 : 0;
                const double u = std::max(0.0, std::min(1.0, t));
                far = far && std::hypot(x - ax - u * dx, y - ay - u * dy) >= 1.5;
                if ((ay > y) != (ay + dy > y) && x < dx * (y - ay) / dy + ax) inside = !inside;
            }
            if (!far) continue;
            ++checked;
            const pointf q(static_cast<float>(x), static_cast<float>(y));
            ASSERT_EQ(IsPointInPolygon(q, poly), inside) << round << ": " << x << "," << y;
        }
    }
    EXPECT_GT(checked, 8000);
}

TEST(GetBoundingBox, TruncatesTowardZero) {
    const struct {
        std::vector<pointf> points;
        rectanglef box;
    } cases[] = {
        {{}, rectanglef(0, 0, 1, 1)},
        {{pointf(1.7f, 2.2f), pointf(4.9f, 8.1f)}, rectanglef(1, 2, 3, 6)},
        {{pointf(3.5f, -2.5f)}, rectanglef(3, -2, 0, 0)},
        {{pointf(-0.5f, 0), pointf(2.7f, 0)}, rectanglef(0, 0, 2, 0)},
        // The minimum holds a truncated value: -1.5 does not lower -1 (from -1.9).
        {{pointf(-1.9f, 0), pointf(-1.5f, 0), pointf(-2.2f, 0)}, rectanglef(-2, 0, 1, 0)},
        // The extent is an int difference and wraps.
        {{pointf(-2e9f, 0), pointf(2e9f, 0)}, rectanglef(-2e9f, 0, -294967296.0f, 0)},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(sameBits<rectanglef>({GetBoundingBox(c.points)}, {c.box})) << c.points.size();
        const std::vector<Vector2f> vectors(c.points.begin(), c.points.end());
        EXPECT_TRUE(sameBits<rectanglef>({GetBoundingBox(vectors)}, {c.box}));
    }
}

// One scratch serves several indexes and keeps the rows it gathered: answers must not depend on
// what it holds, also for rows one float step apart (a vertex row and the row just above it).
TEST(PolygonIndex, AnswersDoNotDependOnTheRowsAScratchHolds) {
    std::mt19937 rng(77);
    PolygonScratch shared;
    for (int round = 0; round < 200; ++round) {
        // Every other polygon spans 40000 units, beyond what the slabs take, so that every row
        // is gathered.
        std::vector<pointf> first = randomChain(rng, 4 + round % 9, 20, true);
        if (round % 2) {
            for (pointf& p : first) p = pointf(p.x * 2048, p.y * 2048);
        }
        const std::vector<pointf> second = starPolygon(rng, 10, 10, 2, 12, 5 + round % 7);
        const PolygonIndex a(first);
        const PolygonIndex b(second);
        const float scale = round % 2 ? 2048.0f : 1.0f;
        std::uniform_real_distribution<float> anyX(-5 * scale, 25 * scale);
        for (const pointf& v : first) {
            // On the vertex row and one float step above and below it, at the vertex and
            // anywhere level with it, one right after the other.
            const float rows[4] = {v.y, std::nextafter(v.y, 1e9f), v.y, std::nextafter(v.y, -1e9f)};
            for (float x : {v.x, anyX(rng), anyX(rng)}) {
                for (float y : rows) {
                    const pointf q(x, y);
                    ASSERT_EQ(a.contains(q, shared), reference::IsPointInPolygon(q, first))
                        << round << ": " << q.x << "," << q.y;
                    ASSERT_EQ(b.contains(q, shared), reference::IsPointInPolygon(q, second))
                        << round << ": " << q.x << "," << q.y;
                }
            }
        }
    }
}

// A row tested at many points gets its crossings bucketed by x; its answers must stay those of
// the plain test, also right at the crossings (a few float steps either side), on vertex rows,
// beyond the bounding box and for NaN.
TEST(PolygonIndex, RowsTestedOftenKeepTheirAnswers) {
    std::mt19937 rng(99);
    for (int round = 0; round < 6; ++round) {
        SCOPED_TRACE(round);
        const std::vector<pointf> poly =
            round % 3 == 0   ? regularStar(600 + 200 * round, 300, 300, 280, 40)
            : round % 3 == 1 ? starPolygon(rng, 300, 300, 20, 280, 900, round % 2 == 0)
                             : randomChain(rng, 400, 600, true);
        const PolygonIndex index(poly);
        PolygonScratch scratch;
        std::uniform_real_distribution<float> coord(-5, 605);
        for (int row = 0; row < 12; ++row) {
            const float y = row % 3 == 0 ? poly[rng() % (poly.size() - 1)].y : coord(rng);
            std::vector<float> xs;
            for (std::size_t i = 0; i + 1 < poly.size(); ++i) {
                const pointf a = poly[i], b = poly[i + 1];
                if ((a.y > y) == (b.y > y) || xs.size() > 150) continue;
                float x = a.x + (y - a.y) * (b.x - a.x) / (b.y - a.y);
                xs.push_back(x);
                for (int step = 0; step < 3; ++step) {
                    x = std::nextafter(x, 1e9f);
                    xs.push_back(x);
                }
                xs.push_back(x + 0.01f);
            }
            for (int i = 0; i < 100; ++i) xs.push_back(coord(rng));
            xs.push_back(poly[0].x);
            xs.push_back(-1e6f);
            xs.push_back(1e6f);
            xs.push_back(std::numeric_limits<float>::quiet_NaN());
            for (std::size_t i = 0; i < xs.size(); ++i) {
                const pointf q(xs[i], y);
                ASSERT_EQ(index.contains(q, scratch), reference::IsPointInPolygon(q, poly))
                    << q.x << "," << q.y;
                if (i % 2 == 1) {
                    const pointf p(xs[i - 1], y);
                    ASSERT_EQ(index.bothContained(p, q, scratch),
                              reference::IsPointInPolygon(p, poly) &&
                                  reference::IsPointInPolygon(q, poly));
                }
            }
        }
    }
}
