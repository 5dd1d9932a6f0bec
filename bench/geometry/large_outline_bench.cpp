// Cover and hatching of large outlines, through the public functions only, so that the same
// program can be built against an older library to compare (see the note in CMakeLists.txt).
//
// Outlines: a circle, a circle whose radius wobbles by +-5 units from vertex to vertex (rows near
// its top and bottom cross thousands of edges), and a star of spikes (every row through the spikes
// crosses a share of all edges). Sizes from 10k to 1M vertices show how the time grows.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "quelworks/geometry/hatching.h"
#include "quelworks/geometry/polygon.h"

namespace {

enum Shape { kCircle = 0, kWobbly = 1, kSpikes = 2 };

std::vector<pointf> outline(int shape, int vertices) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> wobble(-5, 5);
    std::vector<pointf> p;
    for (int i = 0; i < vertices; ++i) {
        const double a = 2 * 3.14159265358979 * i / vertices;
        double r = 400;
        if (shape == kWobbly) r += wobble(rng);
        if (shape == kSpikes) r = i % 2 ? 150 : 400;
        p.push_back(pointf(static_cast<float>(500 + r * std::cos(a)),
                           static_cast<float>(500 + r * std::sin(a))));
    }
    p.push_back(p.front());
    return p;
}

void Cover(benchmark::State& state) {
    const std::vector<pointf> p =
        outline(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    const rectanglef area = GetBoundingBox(p);
    std::size_t count = 0;
    for (auto _ : state) {
        std::vector<rectanglef> out;
        BeginSpreadPolygon(p, &out, area, 0);
        count = out.size();
        benchmark::DoNotOptimize(count);
    }
    state.counters["rectangles"] = static_cast<double>(count);
}
BENCHMARK(Cover)
    ->ArgNames({"shape", "vertices"})
    ->Args({kCircle, 100000})
    ->Args({kCircle, 1000000})
    ->Args({kWobbly, 100000})
    ->Args({kWobbly, 1000000})
    ->Args({kSpikes, 10000})
    ->Args({kSpikes, 30000})
    ->Args({kSpikes, 100000})
    ->Args({kSpikes, 1000000})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

void Hatch(benchmark::State& state) {
    const std::vector<pointf> p =
        outline(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    const std::vector<Vector2f> v(p.begin(), p.end() - 1);
    std::size_t count = 0;
    for (auto _ : state) {
        count = 0;
        for (const auto& group : FragmentToLines(v, 1)) count += group.size();
        benchmark::DoNotOptimize(count);
    }
    state.counters["segments"] = static_cast<double>(count);
}
BENCHMARK(Hatch)
    ->ArgNames({"shape", "vertices"})
    ->Args({kCircle, 1000000})
    ->Args({kWobbly, 100000})
    ->Args({kWobbly, 1000000})
    ->Args({kSpikes, 10000})
    ->Args({kSpikes, 30000})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
