// The inputs the C interface benchmarks share, so that both programs (and the Python script that
// repeats the point sequence) measure the same work.
#ifndef QUELWORKS_BENCH_CAPI_DATA_H
#define QUELWORKS_BENCH_CAPI_DATA_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "quelworks/quelworks_c.h"

namespace qwbench {

// A closed 16-gon.
inline std::vector<qw_point> polygon() {
    std::vector<qw_point> p;
    const float xs[] = {0, 40, 80, 120, 160, 160, 160, 160, 160, 120, 80, 40, 0, 0, 0, 0};
    const float ys[] = {0, 10, 0, 10, 0, 40, 80, 120, 160, 150, 160, 150, 160, 120, 80, 40};
    for (int i = 0; i < 16; ++i) p.push_back(qw_point{xs[i], ys[i]});
    p.push_back(p.front());
    return p;
}

// n points around the polygon from a linear congruential sequence (python/bench/batch_bench.py
// makes the same one).
inline std::vector<qw_point> points(int n) {
    std::vector<qw_point> out;
    out.reserve(static_cast<std::size_t>(n));
    std::uint32_t seed = 1;
    for (int i = 0; i < n; ++i) {
        seed = seed * 1103515245u + 12345u;
        float x = static_cast<float>((seed >> 8) % 2000) / 10.0f - 20.0f;
        seed = seed * 1103515245u + 12345u;
        float y = static_cast<float>((seed >> 8) % 2000) / 10.0f - 20.0f;
        out.push_back(qw_point{x, y});
    }
    return out;
}

}  // namespace qwbench

#endif
