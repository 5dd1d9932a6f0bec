// Checksum throughput: CRC_CCITT next to Boost's crc_optimal with the same parameters and a plain
// byte-at-a-time table loop, on a firmware-block-sized buffer and on a large one. The program
// first checks that all three agree.
#include <benchmark/benchmark.h>

#include <boost/crc.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "quelworks/serial/crc_ccitt.h"

namespace {

std::vector<unsigned char> randomBytes(std::size_t n) {
    std::mt19937 rng(12345);
    std::vector<unsigned char> out(n);
    for (auto& b : out) b = static_cast<unsigned char>(rng());
    return out;
}

struct ByteTable {
    std::uint16_t t[256];
    ByteTable() {
        for (unsigned i = 0; i < 256; ++i) {
            std::uint16_t crc = static_cast<std::uint16_t>(i << 8);
            for (int k = 0; k < 8; ++k) {
                crc = static_cast<std::uint16_t>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
            }
            t[i] = crc;
        }
    }
    std::uint16_t compute(const unsigned char* p, std::size_t n) const {
        std::uint16_t crc = 0xFFFF;
        for (std::size_t i = 0; i < n; ++i) {
            crc = static_cast<std::uint16_t>((crc << 8) ^ t[(crc >> 8) ^ p[i]]);
        }
        return crc;
    }
};

// Tells the compiler that the buffer may have changed, so no checksum is hoisted out of the loop.
// (Google Benchmark's DoNotOptimize is kept off pointers: see the benchmarking notes.)
inline void touch(const void* p) {
    asm volatile("" : : "r"(p) : "memory");
}

using BoostCrc = boost::crc_optimal<16, 0x1021, 0xFFFF, 0, false, false>;

std::uint16_t boostCrc(const unsigned char* p, std::size_t n) {
    BoostCrc crc;
    crc.process_bytes(p, n);
    return crc.checksum();
}

void BM_CrcCcitt(benchmark::State& state) {
    auto data = randomBytes(static_cast<std::size_t>(state.range(0)));
    CRC_CCITT crc(CRC_CCITT::AllOnes);
    for (auto _ : state) {
        touch(data.data());
        unsigned short sum = crc.ComputeChecksum(data.data(), static_cast<int>(data.size()));
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

void BM_BoostCrcOptimal(benchmark::State& state) {
    auto data = randomBytes(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        touch(data.data());
        std::uint16_t sum = boostCrc(data.data(), data.size());
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

void BM_PlainByteTable(benchmark::State& state) {
    auto data = randomBytes(static_cast<std::size_t>(state.range(0)));
    ByteTable table;
    for (auto _ : state) {
        touch(data.data());
        std::uint16_t sum = table.compute(data.data(), data.size());
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}

BENCHMARK(BM_CrcCcitt)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_BoostCrcOptimal)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_PlainByteTable)->Arg(4096)->Arg(1 << 20);

// All three must agree before any number means anything.
bool agree() {
    auto data = randomBytes(100003);
    CRC_CCITT crc(CRC_CCITT::AllOnes);
    ByteTable table;
    for (std::size_t n : {std::size_t{0}, std::size_t{1}, std::size_t{15}, std::size_t{16},
                          std::size_t{4096}, std::size_t{4099}, data.size()}) {
        const unsigned short ours = crc.ComputeChecksum(data.data(), static_cast<int>(n));
        if (ours != boostCrc(data.data(), n) || ours != table.compute(data.data(), n)) {
            std::fprintf(stderr, "checksums differ for %zu bytes\n", n);
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (!agree()) return 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
