// The C++ reference for the Python batch benchmark (python/bench/batch_bench.py): one million
// points through point-in-polygon and the camera-to-device transformation, called point by point
// from C++, and through the C batch calls from C++ (the crossing without Python). The points and
// shapes are made by the same generator as in the Python script, so both measure the same work.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "quelworks/geometry/coordinate_transformation.h"
#include "quelworks/geometry/polygon.h"
#include "quelworks/quelworks_c.h"

#include "capi_bench_data.h"

namespace {

using qwbench::points;
using qwbench::polygon;

constexpr int kPoints = 1000000;

// A 3 x 3 calibration grid, row by row: camera (10x, 10y) to device (21x + y, 19y - x).
std::vector<qw_calibration_point> grid() {
    std::vector<qw_calibration_point> g;
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 3; ++x)
            g.push_back(qw_calibration_point{
                {static_cast<float>(x) * 80.0f, static_cast<float>(y) * 80.0f},
                {static_cast<float>(x * 21 + y), static_cast<float>(y * 19 - x)}});
    return g;
}

const std::vector<qw_point>& cameraPoints() {
    static const std::vector<qw_point> q = points(kPoints);
    return q;
}

void BM_PointInPolygon1M_Cpp(benchmark::State& state) {
    std::vector<pointf> shape;
    for (const qw_point& p : polygon()) shape.emplace_back(p.x, p.y);
    const std::vector<qw_point>& q = cameraPoints();
    std::vector<std::uint8_t> inside(kPoints);
    for (auto _ : state) {
        for (int i = 0; i < kPoints; ++i)
            inside[i] = IsPointInPolygon(pointf(q[i].x, q[i].y), shape) ? 1 : 0;
        benchmark::DoNotOptimize(inside[0]);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kPoints);
}
BENCHMARK(BM_PointInPolygon1M_Cpp)->Unit(benchmark::kMillisecond);

void BM_PointInPolygon1M_C_Batch(benchmark::State& state) {
    const std::vector<qw_point> shape = polygon();
    const std::vector<qw_point>& q = cameraPoints();
    std::vector<std::uint8_t> inside(kPoints);
    for (auto _ : state) {
        qw_geo_points_in_polygon(shape.data(), static_cast<std::int32_t>(shape.size()), q.data(),
                                 kPoints, inside.data());
        benchmark::DoNotOptimize(inside[0]);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kPoints);
}
BENCHMARK(BM_PointInPolygon1M_C_Batch)->Unit(benchmark::kMillisecond);

void BM_Transform1M_Cpp(benchmark::State& state) {
    RList<CalibrationPoint> calibration;
    for (const qw_calibration_point& c : grid())
        calibration.push_back(
            CalibrationPoint(Vector2f(c.camera.x, c.camera.y), Vector2f(c.device.x, c.device.y)));
    const std::vector<qw_point>& q = cameraPoints();
    std::vector<Vector2f> device(kPoints);
    for (auto _ : state) {
        for (int i = 0; i < kPoints; ++i)
            device[i] = CoordinateTransformation::TransformCameraToDeviceCoordinates(
                Vector2f(q[i].x, q[i].y), calibration);
        benchmark::DoNotOptimize(device[0].x);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kPoints);
}
BENCHMARK(BM_Transform1M_Cpp)->Unit(benchmark::kMillisecond);

void BM_Transform1M_C_Batch(benchmark::State& state) {
    const std::vector<qw_calibration_point> calibration = grid();
    const std::vector<qw_point>& q = cameraPoints();
    std::vector<qw_point> device(kPoints);
    for (auto _ : state) {
        qw_geo_transform_many(calibration.data(), static_cast<std::int32_t>(calibration.size()),
                              q.data(), kPoints, device.data());
        benchmark::DoNotOptimize(device[0].x);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kPoints);
}
BENCHMARK(BM_Transform1M_C_Batch)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
