#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "geometry/polygon_reference.h"
#include "geometry/polygon_test_support.h"
#include "quelworks/geometry/polygon.h"

using namespace polygon_test;

namespace {

const std::vector<pointf> kSquare100 = {pointf(0, 0), pointf(100, 0), pointf(100, 100),
                                        pointf(0, 100), pointf(0, 0)};

// Runs the library and the reference on the same input; returns the library's result.
std::vector<rectanglef> expectSameCover(const std::vector<pointf>& polygon, rectanglef area,
                                        int tolerance, std::vector<rectanglef> out = {}) {
    std::vector<rectanglef> expected = out;
    reference::BeginSpreadPolygon(polygon, &expected, area, tolerance);
    BeginSpreadPolygon(polygon, &out, area, tolerance);
    EXPECT_TRUE(sameBits(out, expected)) << out.size() << " vs " << expected.size();
    return out;
}

// Rectangles on a coarse grid with a few sizes, so that many pairs share edges; with `odd`, also
// odd values, a duplicate, and x of -0 beside 0.
std::vector<rectanglef> randomRectangles(std::mt19937& rng, int n, bool odd) {
    const float sizes[] = {8, 16, 32, 120};
    std::vector<rectanglef> rects;
    for (int i = 0; i < n; ++i) {
        const float w = sizes[rng() % 4];
        rects.push_back(rectanglef((rng() % 7) * 8.0f, (rng() % 7) * 8.0f, w,
                                   i % 3 == 0 ? w : sizes[rng() % 4]));
    }
    if (odd && n > 0) {
        rects[rng() % n].x = oddValue(rng);
        rects[rng() % n].height = oddValue(rng);
        rects.push_back(rects[rng() % n]);
        rects.push_back(rectanglef(-0.0f, 0.0f, 0.0f, 8.0f));
        rects.push_back(rectanglef(0.0f, 0.0f, 0.0f, 8.0f));
    }
    return rects;
}

}  // namespace

TEST(BeginSpreadPolygon, SquareIsCoveredByMergedRectangles) {
    // The sixteen 25 x 25 cells are merged while the result stays under 255 on each side.
    const std::vector<rectanglef> out = expectSameCover(kSquare100, rectanglef(0, 0, 100, 100), 0);
    float area = 0;
    for (const rectanglef& r : out) area += r.width * r.height;
    EXPECT_EQ(area, 100.0f * 100.0f);
    EXPECT_LT(out.size(), 16u);
}

TEST(BeginSpreadPolygon, SmallAreasAndTheEmptyPolygon) {
    const std::vector<rectanglef> before = {rectanglef(1, 2, 3, 4)};
    std::vector<rectanglef> out = before;
    BeginSpreadPolygon(kSquare100, &out, rectanglef(0, 0, 3, 100), 0);
    BeginSpreadPolygon(kSquare100, &out, rectanglef(0, 0, 100, 2.5f), 0);
    // The first inside test, on a worker thread, fails; the error reaches the caller.
    EXPECT_THROW(BeginSpreadPolygon({}, &out, rectanglef(0, 0, 100, 100), 0), std::out_of_range);
    // With quarters of 3 or less nothing is ever tested, so nothing is thrown.
    EXPECT_NO_THROW(BeginSpreadPolygon({}, &out, rectanglef(0, 0, 6, 6), 0));
    EXPECT_TRUE(sameBits(out, before));
}

TEST(BeginSpreadPolygon, MatchesReferenceOnRandomPolygons) {
    std::mt19937 rng(2024);
    const int tolerances[] = {0, 10, 50, 0, -5, 100};
    int nonEmpty = 0;
    for (int round = 0; round < 600; ++round) {
        SCOPED_TRACE(round);
        // Every fourth area is large enough for the tolerance to matter (100 samples or more).
        const float extent = round % 4 == 0 ? 130.0f : 40.0f;
        std::vector<pointf> poly =
            round % 3 == 0
                ? randomChain(rng, 4 + round % 9, static_cast<int>(extent), round % 2 == 0)
                : starPolygon(rng, extent / 2, extent / 2, extent / 10, extent * 0.6f,
                              3 + round % 20, round % 3 == 1);
        if (round % 25 == 24) poly[round % poly.size()].y = oddValue(rng);
        std::uniform_real_distribution<float> size(3.5f, extent * 1.15f);
        const rectanglef area(static_cast<float>(round % 7) - 3, static_cast<float>(round % 5) - 2,
                              round % 3 ? size(rng) : std::round(size(rng)), size(rng));
        // Rectangles already in the array take part in the merge.
        std::vector<rectanglef> out =
            randomRectangles(rng, round % 5 < 3 ? round % 50 : 0, round % 10 == 7);
        if (round % 7 == 3) out.push_back(rectanglef(area.x, area.y, area.width * 0.25f, 16));
        const int tolerance = tolerances[(round / 4) % 6];
        nonEmpty += !expectSameCover(poly, area, tolerance, out).empty() && out.empty();
    }
    EXPECT_GT(nonEmpty, 100);
    // A quarter 245 across is divided although it passes the inside test; its own quarters
    // fail, as their shared corner lies in the notch.
    const std::vector<pointf> notched = {pointf(-1, -1),  pointf(981, -1),   pointf(981, 81),
                                         pointf(124, 81), pointf(122.5f, 9), pointf(121, 81),
                                         pointf(-1, 81),  pointf(-1, -1)};
    expectSameCover(notched, rectanglef(0, 0, 980, 80), 10);
}

TEST(BeginSpreadPolygon, MatchesReferenceOnSpikyOutlines) {
    // Rows through the spikes cross a share of all edges and neighbouring quarters differ in
    // their answers, so the quarters of a level are tested row by row rather than in queue
    // order; the cover must not change. Regular and random stars, dense enough that spikes are
    // thinner than the sample spacing, with areas offset so that rows fall on vertex rows too.
    std::mt19937 rng(77);
    const int tolerances[] = {0, 10, -3, 60};
    for (int round = 0; round < 16; ++round) {
        SCOPED_TRACE(round);
        const int vertices = 200 + 60 * round;
        const float outer = 60.0f + 7.0f * static_cast<float>(round % 5);
        std::vector<pointf> poly =
            round % 2 == 0
                ? regularStar(vertices, outer, outer, outer, outer * (0.2f + 0.1f * (round % 4)))
                : starPolygon(rng, outer, outer, outer * 0.3f, outer, vertices, round % 4 == 1);
        rectanglef area = GetBoundingBox(poly);
        if (round % 3 == 1)
            area = rectanglef(std::round(area.x), std::round(area.y), 2 * outer, 2 * outer);
        if (round % 3 == 2)
            area = rectanglef(area.x - 5.5f, area.y + 3.25f, area.width, area.height * 0.75f);
        expectSameCover(poly, area, tolerances[round % 4]);
    }
}

TEST(BeginSpreadPolygon, SeveralCallersAtOnce) {
    std::mt19937 rng(31);
    std::vector<std::vector<pointf>> polygons;
    std::vector<std::vector<rectanglef>> results(4);
    std::vector<std::thread> callers;
    for (int k = 0; k < 4; ++k) polygons.push_back(starPolygon(rng, 100, 100, 30, 95, 10 + k * 7));
    for (int k = 0; k < 4; ++k) {
        callers.emplace_back([&, k] {
            BeginSpreadPolygon(polygons[k], &results[k], rectanglef(0, 0, 200, 200), k * 10);
        });
    }
    for (std::thread& t : callers) t.join();
    for (int k = 0; k < 4; ++k) {
        std::vector<rectanglef> expected;
        BeginSpreadPolygon(polygons[k], &expected, rectanglef(0, 0, 200, 200), k * 10);
        EXPECT_TRUE(sameBits(results[k], expected)) << k;
    }
}
