// Camera-to-device transformation: calls per second for a 3-point calibration and 5x5 and 20x20
// grids, the library side by side with a literal version of the procedure (second list copy for
// the selection, indexed list access, the triangle returned as a list), and the prepared
// transformation on a million random points, one call per point and as one array, with its
// construction time and memory for a 100x100 grid.
#include <benchmark/benchmark.h>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "geometry/reference_transform.h"
#include "quelworks/geometry/coordinate_transformation.h"
#include "quelworks/geometry/prepared_transformation.h"

namespace {

RList<CalibrationPoint> calibration(int n) {
    std::mt19937 rng(42);
    std::uniform_real_distribution<float> jitter(-2, 2);
    std::vector<CalibrationPoint> points;
    if (n == 3) {
        points = {CalibrationPoint(Vector2f(0, 0), Vector2f(100, 100)),
                  CalibrationPoint(Vector2f(640, 0), Vector2f(300, 110)),
                  CalibrationPoint(Vector2f(0, 480), Vector2f(95, 260))};
    } else {
        const int k = static_cast<int>(std::lround(std::sqrt(n)));
        for (int j = 0; j < k; ++j) {
            for (int i = 0; i < k; ++i) {
                const Vector2f c(i * 640.0f / (k - 1) + jitter(rng),
                                 j * 480.0f / (k - 1) + jitter(rng));
                points.push_back(CalibrationPoint(
                    c, Vector2f(c.x * 0.31f + 100 + c.y * 0.01f, c.y * 0.33f + 100 - c.x * 0.02f)));
            }
        }
    }
    return reference::toList(points);
}

std::vector<Vector2f> queries() {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> x(0, 640), y(0, 480);
    std::vector<Vector2f> out;
    for (int i = 0; i < 1024; ++i) out.push_back(Vector2f(x(rng), y(rng)));
    return out;
}

template <Vector2f (*Transform)(Vector2f, RList<CalibrationPoint>)>
void run(benchmark::State& state) {
    RList<CalibrationPoint> points = calibration(static_cast<int>(state.range(0)));
    const std::vector<Vector2f> ps = queries();
    std::size_t i = 0;
    for (auto _ : state) {
        Vector2f r = Transform(ps[i++ & 1023], points);
        benchmark::DoNotOptimize(r.x);
        benchmark::DoNotOptimize(r.y);
    }
    state.SetItemsProcessed(state.iterations());
}

Vector2f library(Vector2f p, RList<CalibrationPoint> points) {
    return CoordinateTransformation::TransformCameraToDeviceCoordinates(p, points);
}

Vector2f literal(Vector2f p, RList<CalibrationPoint> points) {
    return reference::literalTransform(p, points);
}

// A million random camera positions over the calibrated area.
const std::vector<Vector2f>& million() {
    static const std::vector<Vector2f> points = [] {
        std::mt19937 rng(11);
        std::uniform_real_distribution<float> x(0, 640), y(0, 480);
        std::vector<Vector2f> out;
        for (int i = 0; i < 1000000; ++i) out.push_back(Vector2f(x(rng), y(rng)));
        return out;
    }();
    return points;
}

// The static operation on the same million points, one point per iteration (items/s compare).
void staticMillion(benchmark::State& state) {
    RList<CalibrationPoint> points = calibration(static_cast<int>(state.range(0)));
    const std::vector<Vector2f>& ps = million();
    std::size_t i = 0;
    for (auto _ : state) {
        Vector2f r = CoordinateTransformation::TransformCameraToDeviceCoordinates(
            ps[i++ % ps.size()], points);
        benchmark::DoNotOptimize(r.x);
        benchmark::DoNotOptimize(r.y);
    }
    state.SetItemsProcessed(state.iterations());
}

void preparedSingle(benchmark::State& state) {
    const PreparedTransformation prepared(calibration(static_cast<int>(state.range(0))));
    const std::vector<Vector2f>& ps = million();
    for (auto _ : state) {
        for (const Vector2f& p : ps) {
            Vector2f r = prepared.Transform(p);
            benchmark::DoNotOptimize(r.x);
            benchmark::DoNotOptimize(r.y);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(ps.size()));
}

void preparedArray(benchmark::State& state) {
    const PreparedTransformation prepared(calibration(static_cast<int>(state.range(0))));
    const std::vector<Vector2f>& ps = million();
    std::vector<Vector2f> out(ps.size());
    for (auto _ : state) {
        prepared.Transform(ps.data(), out.data(), ps.size());
        float first = out[0].x, last = out.back().y;
        benchmark::DoNotOptimize(first);
        benchmark::DoNotOptimize(last);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(ps.size()));
}

// The array form in blocks small enough to stay on the calling thread.
void preparedArrayOneThread(benchmark::State& state) {
    const PreparedTransformation prepared(calibration(static_cast<int>(state.range(0))));
    const std::vector<Vector2f>& ps = million();
    std::vector<Vector2f> out(ps.size());
    const std::size_t block = 32768;
    for (auto _ : state) {
        for (std::size_t first = 0; first < ps.size(); first += block) {
            prepared.Transform(ps.data() + first, out.data() + first,
                               std::min(block, ps.size() - first));
        }
        float first = out[0].x, last = out.back().y;
        benchmark::DoNotOptimize(first);
        benchmark::DoNotOptimize(last);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(ps.size()));
}

// Preparing a k x k grid; the heap growth it keeps is reported as bytes.
void preparedConstruction(benchmark::State& state) {
    const RList<CalibrationPoint> points = calibration(static_cast<int>(state.range(0)));
    std::size_t bytes = 0;
    for (auto _ : state) {
#ifdef __GLIBC__
        const std::size_t before = mallinfo2().uordblks;
        PreparedTransformation prepared(points);
        bytes = mallinfo2().uordblks - before;
#else
        PreparedTransformation prepared(points);
#endif
        bool usable = prepared.IsUsable();
        benchmark::DoNotOptimize(usable);
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}

BENCHMARK(staticMillion)->Arg(3)->Arg(400)->Name("Static/Million");
BENCHMARK(preparedSingle)
    ->Arg(3)
    ->Arg(400)
    ->Name("Prepared/Single/Million")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(preparedArrayOneThread)
    ->Arg(3)
    ->Arg(400)
    ->Name("Prepared/ArrayOneThread/Million")
    ->Unit(benchmark::kMillisecond);
// Split over threads: CPU time of the whole process (all threads), beside the wall time.
BENCHMARK(preparedArray)
    ->Arg(3)
    ->Arg(400)
    ->Name("Prepared/Array/Million")
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(preparedConstruction)
    ->Arg(400)
    ->Arg(10000)
    ->Name("Prepared/Construct")
    ->Unit(benchmark::kMillisecond);

BENCHMARK_TEMPLATE(run, library)->Arg(3)->Arg(25)->Arg(400)->Name("Library");
BENCHMARK_TEMPLATE(run, literal)->Arg(3)->Arg(25)->Arg(400)->Name("Literal");

}  // namespace

BENCHMARK_MAIN();
