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

float coveredArea(const std::vector<rectanglef>& rects) {
    float sum = 0;
    for (const rectanglef& r : rects) sum += r.width * r.height;
    return sum;
}

}  // namespace

TEST(BeginSpreadPolygon, SquareIsCoveredByMergedRectangles) {
    std::vector<rectanglef> out;
    BeginSpreadPolygon(kSquare100, &out, rectanglef(0, 0, 100, 100), 0);
    // Each worker's 50 x 50 quarter is divided once more into 25 x 25 quarters, all inside;
    // merging joins neighbours while the result stays under 255.
    std::vector<rectanglef> expected;
    reference::BeginSpreadPolygon(kSquare100, &expected, rectanglef(0, 0, 100, 100), 0);
    ASSERT_TRUE(sameRects(out, expected));
    EXPECT_FLOAT_EQ(coveredArea(out), 100.0f * 100.0f);
    for (const rectanglef& r : out) {
        EXPECT_LT(r.width, 255);
        EXPECT_LT(r.height, 255);
    }
    EXPECT_LT(out.size(), 16u);  // the sixteen 25 x 25 cells were merged
}

TEST(BeginSpreadPolygon, SmallAreaAddsNothing) {
    std::vector<rectanglef> out = {rectanglef(1, 2, 3, 4)};
    BeginSpreadPolygon(kSquare100, &out, rectanglef(0, 0, 3, 100), 0);
    BeginSpreadPolygon(kSquare100, &out, rectanglef(0, 0, 100, 2.5f), 0);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].width, 3);
}

TEST(BeginSpreadPolygon, EmptyPolygonThrowsOnTheCallersThread) {
    std::vector<rectanglef> out = {rectanglef(1, 2, 3, 4)};
    EXPECT_THROW(BeginSpreadPolygon({}, &out, rectanglef(0, 0, 100, 100), 0), std::out_of_range);
    EXPECT_EQ(out.size(), 1u);
    // With quarters of 3 or less nothing is ever tested, so nothing is thrown.
    EXPECT_NO_THROW(BeginSpreadPolygon({}, &out, rectanglef(0, 0, 6, 6), 0));
    EXPECT_THROW(reference::BeginSpreadPolygon({}, &out, rectanglef(0, 0, 100, 100), 0),
                 std::out_of_range);
}

TEST(BeginSpreadPolygon, MatchesReferenceOnRandomPolygons) {
    std::mt19937 rng(2024);
    const int tolerances[] = {0, 10, 50};
    for (int round = 0; round < 60; ++round) {
        std::vector<pointf> poly;
        switch (round % 4) {
            case 0:
                poly = starPolygon(rng, 64, 64, 10, 70, 5 + round % 20);
                break;
            case 1:
                poly = starPolygon(rng, 40, 90, 20, 60, 12, false);
                break;
            case 2:
                poly = randomChain(rng, 6 + round % 10, 130, true);
                break;
            default:
                poly = randomChain(rng, 4 + round % 5, 130, false);
                break;
        }
        std::uniform_real_distribution<float> offset(-20, 20);
        std::uniform_real_distribution<float> size(4, 150);
        const rectanglef area(std::round(offset(rng)), std::round(offset(rng)),
                              round % 3 == 0 ? std::round(size(rng)) : size(rng), size(rng));
        const int t = tolerances[round % 3];
        std::vector<rectanglef> out;
        if (round % 2 == 1) {
            // Rectangles already in the array take part in the merge.
            out = {rectanglef(0, 0, 8, 8), rectanglef(area.x, area.y, area.width * 0.25f, 16)};
        }
        std::vector<rectanglef> expected = out;
        reference::BeginSpreadPolygon(poly, &expected, area, t);
        BeginSpreadPolygon(poly, &out, area, t);
        ASSERT_TRUE(sameRects(out, expected))
            << "round " << round << ": " << out.size() << " vs " << expected.size();
    }
}

TEST(BeginSpreadPolygon, MatchesReferenceOnManySmallCases) {
    // Many small areas (cheap for the straightforward version), odd coordinates included.
    std::mt19937 rng(99);
    int nonEmpty = 0;
    for (int round = 0; round < 1500; ++round) {
        std::vector<pointf> poly = round % 3 == 0 ? randomChain(rng, 3 + round % 9, 40, true)
                                                  : starPolygon(rng, 20, 20, 4, 26, 3 + round % 13);
        if (round % 25 == 24) poly[round % poly.size()].y = oddValue(rng);
        if (round % 50 == 49) poly[0].x = oddValue(rng);
        std::uniform_real_distribution<float> size(3.5f, 48);
        const rectanglef area(static_cast<float>(round % 7) - 3, static_cast<float>(round % 5) - 2,
                              size(rng), size(rng));
        const int t = (round % 3) * (round % 2 ? 10 : 50) / 2;
        std::vector<rectanglef> out;
        if (round % 4 == 3)
            out = {rectanglef(area.x, area.y - 4, 4, 4), rectanglef(-0.0f, 0, 2, 2)};
        std::vector<rectanglef> expected = out;
        reference::BeginSpreadPolygon(poly, &expected, area, t);
        BeginSpreadPolygon(poly, &out, area, t);
        ASSERT_TRUE(sameRects(out, expected)) << "round " << round;
        nonEmpty += out.size() > 2;
    }
    EXPECT_GT(nonEmpty, 500);
}

TEST(BeginSpreadPolygon, LargerAreaMatchesReference) {
    // One area large enough that quarters of 240 and more are divided without being kept.
    std::mt19937 rng(7);
    const std::vector<pointf> poly = starPolygon(rng, 260, 250, 120, 250, 24);
    std::vector<rectanglef> out = {rectanglef(-16, 0, 16, 16)};
    std::vector<rectanglef> expected = out;
    reference::BeginSpreadPolygon(poly, &expected, rectanglef(0, 0, 520, 500), 10);
    BeginSpreadPolygon(poly, &out, rectanglef(0, 0, 520, 500), 10);
    ASSERT_TRUE(sameRects(out, expected));
    EXPECT_GT(out.size(), 10u);
}

TEST(BeginSpreadPolygon, SeveralCallersAtOnce) {
    std::mt19937 rng(31);
    std::vector<std::vector<pointf>> polygons;
    std::vector<std::vector<rectanglef>> expected;
    for (int k = 0; k < 4; ++k) {
        polygons.push_back(starPolygon(rng, 100, 100, 30, 95, 10 + k * 7));
        expected.emplace_back();
        BeginSpreadPolygon(polygons[k], &expected[k], rectanglef(0, 0, 200, 200), k * 10);
    }
    std::vector<std::vector<rectanglef>> results(4);
    std::vector<std::thread> callers;
    for (int k = 0; k < 4; ++k) {
        callers.emplace_back([&, k] {
            BeginSpreadPolygon(polygons[k], &results[k], rectanglef(0, 0, 200, 200), k * 10);
        });
    }
    for (std::thread& t : callers) t.join();
    for (int k = 0; k < 4; ++k) EXPECT_TRUE(sameRects(results[k], expected[k])) << k;
}
