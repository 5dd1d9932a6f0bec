// The C interface against the C++ classes it translates, on calls small enough that the crossing
// itself shows: a CRC of 16 bytes, and point-in-polygon tests one by one and in a batch.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "quelworks/geometry/polygon.h"
#include "quelworks/quelworks_c.h"
#include "quelworks/serial/crc_ccitt.h"

#include "capi_bench_data.h"

namespace {

using qwbench::points;
using qwbench::polygon;

unsigned char* block16() {
    static unsigned char data[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    return data;
}

// C++: one CRC object, ComputeChecksum per call.
void BM_Crc16_Cpp(benchmark::State& state) {
    CRC_CCITT crc(CRC_CCITT::AllOnes);
    unsigned char* data = block16();
    for (auto _ : state) {
        unsigned short value = crc.ComputeChecksum(data, 16);
        benchmark::DoNotOptimize(value);
    }
    state.SetBytesProcessed(state.iterations() * 16);
}
BENCHMARK(BM_Crc16_Cpp);

// C: one qw_crc handle, qw_crc_compute per call (handle look-up, guard, status).
void BM_Crc16_C_Handle(benchmark::State& state) {
    qw_crc* crc = nullptr;
    if (qw_crc_new(QW_CRC_INIT_ALL_ONES, &crc) != QW_OK) state.SkipWithError("qw_crc_new");
    const std::uint8_t* data = block16();
    for (auto _ : state) {
        std::uint16_t value = 0;
        qw_crc_compute(crc, data, 16, &value);
        benchmark::DoNotOptimize(value);
    }
    qw_crc_free(crc);
    state.SetBytesProcessed(state.iterations() * 16);
}
BENCHMARK(BM_Crc16_C_Handle);

// C++: a fresh CRC object (table built) per call.
void BM_Crc16_Cpp_OneShot(benchmark::State& state) {
    unsigned char* data = block16();
    for (auto _ : state) {
        CRC_CCITT crc(CRC_CCITT::AllOnes);
        unsigned short value = crc.ComputeChecksum(data, 16);
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_Crc16_Cpp_OneShot);

// C: qw_crc16, which builds the table per call as well.
void BM_Crc16_C_OneShot(benchmark::State& state) {
    const std::uint8_t* data = block16();
    for (auto _ : state) {
        std::uint16_t value = 0;
        qw_crc16(QW_CRC_INIT_ALL_ONES, data, 16, &value);
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_Crc16_C_OneShot);

constexpr int kPoints = 10000;

void BM_PointInPolygon_Cpp(benchmark::State& state) {
    std::vector<pointf> shape;
    for (const qw_point& p : polygon()) shape.emplace_back(p.x, p.y);
    std::vector<qw_point> q = points(kPoints);
    std::vector<std::uint8_t> inside(kPoints);
    for (auto _ : state) {
        for (int i = 0; i < kPoints; ++i)
            inside[i] = IsPointInPolygon(pointf(q[i].x, q[i].y), shape) ? 1 : 0;
        benchmark::DoNotOptimize(inside[0]);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kPoints);
}
BENCHMARK(BM_PointInPolygon_Cpp);

void BM_PointInPolygon_C_Single(benchmark::State& state) {
    std::vector<qw_point> shape = polygon();
    std::vector<qw_point> q = points(kPoints);
    std::vector<std::uint8_t> inside(kPoints);
    for (auto _ : state) {
        for (int i = 0; i < kPoints; ++i) {
            std::int32_t in = 0;
            qw_geo_point_in_polygon(shape.data(), static_cast<std::int32_t>(shape.size()), q[i].x,
                                    q[i].y, &in);
            inside[i] = static_cast<std::uint8_t>(in);
        }
        benchmark::DoNotOptimize(inside[0]);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kPoints);
}
BENCHMARK(BM_PointInPolygon_C_Single);

void BM_PointInPolygon_C_Batch(benchmark::State& state) {
    std::vector<qw_point> shape = polygon();
    std::vector<qw_point> q = points(kPoints);
    std::vector<std::uint8_t> inside(kPoints);
    for (auto _ : state) {
        qw_geo_points_in_polygon(shape.data(), static_cast<std::int32_t>(shape.size()), q.data(),
                                 kPoints, inside.data());
        benchmark::DoNotOptimize(inside[0]);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * kPoints);
}
BENCHMARK(BM_PointInPolygon_C_Batch);

}  // namespace

BENCHMARK_MAIN();
