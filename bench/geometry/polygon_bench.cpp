// Polygon containment, the rectangle cover and hatching.
//
// Containment: points per second on a 1000-vertex star, for the public IsPointInPolygon (which
// receives its polygon by value), the prepared index the cover uses, a plain crossing loop, the
// straightforward version (copying the polygon per call), GEOS prepared and unprepared `covers`,
// and Boost.Geometry `covered_by`. Cover: a 200-vertex star filling a square area, fast and
// straightforward side by side where the latter still finishes, then the fast one alone on larger
// areas. Hatching: a 1000-vertex outline at spacing 2.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "geometry/polygon_internal.h"
#include "geometry/polygon_reference.h"
#include "geometry/polygon_test_support.h"
#include "quelworks/geometry/hatching.h"
#include "quelworks/geometry/polygon.h"

#ifdef QW_BENCH_GEOS
#include <geos_c.h>
#endif
#ifdef QW_BENCH_BOOST
#include <boost/geometry.hpp>
#include <boost/geometry/geometries/point_xy.hpp>
#include <boost/geometry/geometries/polygon.hpp>
#endif

namespace {

constexpr int kStarVertices = 1000;
constexpr int kQueries = 4096;

const std::vector<pointf>& star1000() {
    static const std::vector<pointf> star =
        polygon_test::regularStar(kStarVertices, 500, 500, 480, 240);
    return star;
}

const std::vector<pointf>& queries() {
    static const std::vector<pointf> q = [] {
        std::mt19937 rng(5);
        std::uniform_real_distribution<float> coord(0, 1000);
        std::vector<pointf> v;
        for (int i = 0; i < kQueries; ++i) v.push_back(pointf(coord(rng), coord(rng)));
        return v;
    }();
    return q;
}

template <typename Test>
void runContainment(benchmark::State& state, Test&& test) {
    const std::vector<pointf>& q = queries();
    std::size_t i = 0;
    int inside = 0;
    for (auto _ : state) {
        inside += test(q[i]) ? 1 : 0;
        i = (i + 1) % q.size();
    }
    benchmark::DoNotOptimize(inside);
    state.SetItemsProcessed(state.iterations());
}

void Contains_Public(benchmark::State& state) {
    const std::vector<pointf>& star = star1000();
    runContainment(state, [&](pointf p) { return IsPointInPolygon(p, star); });
}
BENCHMARK(Contains_Public);

void Contains_PreparedIndex(benchmark::State& state) {
    const quelworks::detail::PolygonIndex index(star1000());
    quelworks::detail::PolygonScratch scratch;
    runContainment(state, [&](pointf p) { return index.contains(p, scratch); });
}
BENCHMARK(Contains_PreparedIndex);

void Contains_PlainLoop(benchmark::State& state) {
    const std::vector<pointf>& star = star1000();
    runContainment(state, [&](pointf q) {
        bool inside = false;
        for (std::size_t i = 0; i + 1 < star.size(); ++i) {
            const pointf a = star[i], b = star[i + 1];
            if ((a.y > q.y) != (b.y > q.y) && q.x < (b.x - a.x) * (q.y - a.y) / (b.y - a.y) + a.x) {
                inside = !inside;
            }
        }
        return inside;
    });
}
BENCHMARK(Contains_PlainLoop);

void Contains_Reference(benchmark::State& state) {
    const std::vector<pointf>& star = star1000();
    runContainment(state, [&](pointf p) { return reference::IsPointInPolygon(p, star); });
}
BENCHMARK(Contains_Reference);

#ifdef QW_BENCH_GEOS
struct GeosStar {
    GEOSContextHandle_t ctx = GEOS_init_r();
    GEOSGeometry* polygon = nullptr;
    const GEOSPreparedGeometry* prepared = nullptr;
    GeosStar() {
        const std::vector<pointf>& star = star1000();
        GEOSCoordSequence* seq = GEOSCoordSeq_create_r(ctx, static_cast<unsigned>(star.size()), 2);
        for (unsigned i = 0; i < star.size(); ++i)
            GEOSCoordSeq_setXY_r(ctx, seq, i, star[i].x, star[i].y);
        polygon = GEOSGeom_createPolygon_r(ctx, GEOSGeom_createLinearRing_r(ctx, seq), nullptr, 0);
        prepared = GEOSPrepare_r(ctx, polygon);
    }
    ~GeosStar() {
        GEOSPreparedGeom_destroy_r(ctx, prepared);
        GEOSGeom_destroy_r(ctx, polygon);
        GEOS_finish_r(ctx);
    }
    GEOSGeometry* point(pointf p) const { return GEOSGeom_createPointFromXY_r(ctx, p.x, p.y); }
};

void Contains_GeosPrepared(benchmark::State& state) {
    GeosStar g;
    runContainment(state, [&](pointf p) {
        GEOSGeometry* pt = g.point(p);
        const bool r = GEOSPreparedCovers_r(g.ctx, g.prepared, pt) == 1;
        GEOSGeom_destroy_r(g.ctx, pt);
        return r;
    });
}
BENCHMARK(Contains_GeosPrepared);

void Contains_GeosUnprepared(benchmark::State& state) {
    GeosStar g;
    runContainment(state, [&](pointf p) {
        GEOSGeometry* pt = g.point(p);
        const bool r = GEOSCovers_r(g.ctx, g.polygon, pt) == 1;
        GEOSGeom_destroy_r(g.ctx, pt);
        return r;
    });
}
BENCHMARK(Contains_GeosUnprepared);
#endif

#ifdef QW_BENCH_BOOST
void Contains_BoostCoveredBy(benchmark::State& state) {
    namespace bg = boost::geometry;
    using Point = bg::model::d2::point_xy<double>;
    bg::model::polygon<Point, false> poly;  // counter-clockwise
    for (const pointf& p : star1000()) bg::append(poly.outer(), Point(p.x, p.y));
    runContainment(state, [&](pointf p) { return bg::covered_by(Point(p.x, p.y), poly); });
}
BENCHMARK(Contains_BoostCoveredBy);
#endif

// The cover: a 200-vertex star filling the square area of the given side.
std::vector<pointf> coverStar(float side) {
    return polygon_test::regularStar(200, side / 2, side / 2, side * 0.48f, side * 0.24f);
}

void Cover_Fast(benchmark::State& state) {
    const float side = static_cast<float>(state.range(0));
    const std::vector<pointf> star = coverStar(side);
    std::size_t count = 0;
    for (auto _ : state) {
        std::vector<rectanglef> out;
        BeginSpreadPolygon(star, &out, rectanglef(0, 0, side, side), 0);
        count = out.size();
    }
    state.counters["rectangles"] = static_cast<double>(count);
}
BENCHMARK(Cover_Fast)
    ->Arg(500)
    ->Arg(1000)
    ->Arg(2000)
    ->Arg(4000)
    ->Arg(8000)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void Cover_Reference(benchmark::State& state) {
    const float side = static_cast<float>(state.range(0));
    const std::vector<pointf> star = coverStar(side);
    std::size_t count = 0;
    for (auto _ : state) {
        std::vector<rectanglef> out;
        reference::BeginSpreadPolygon(star, &out, rectanglef(0, 0, side, side), 0);
        count = out.size();
    }
    state.counters["rectangles"] = static_cast<double>(count);
}
// The straightforward version moves the whole queue for every rectangle it takes from the front
// and rescans all pairs after every merge: about 30 s at 1000 x 1000 here already.
BENCHMARK(Cover_Reference)
    ->Arg(500)
    ->Arg(1000)
    ->Iterations(1)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Hatching a 1000-vertex star at spacing 2.
std::vector<Vector2f> outline1000() {
    std::vector<Vector2f> v;
    const std::vector<pointf>& star = star1000();
    for (std::size_t i = 0; i + 1 < star.size(); ++i) v.push_back(Vector2f(star[i]));
    return v;
}

void Hatch_Fast(benchmark::State& state) {
    const std::vector<Vector2f> outline = outline1000();
    std::size_t groups = 0;
    for (auto _ : state) groups = FragmentToLines(outline, 2).size();
    state.counters["groups"] = static_cast<double>(groups);
}
BENCHMARK(Hatch_Fast)->Unit(benchmark::kMillisecond);

void Hatch_Reference(benchmark::State& state) {
    const std::vector<Vector2f> outline = outline1000();
    std::size_t groups = 0;
    for (auto _ : state) groups = reference::FragmentToLines(outline, 2).size();
    state.counters["groups"] = static_cast<double>(groups);
}
BENCHMARK(Hatch_Reference)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
