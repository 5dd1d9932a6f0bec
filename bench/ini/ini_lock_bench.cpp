// What the edit lock costs. Uncontended: SetValue on a 1 MB file next to taking and releasing the
// lock alone on the same file (the only work the lock adds to an edit). Contended: 16 threads
// editing one small file for a while: edits per second, and the fewest and most edits any one
// writer made (a starved writer would show as a minimum near zero).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/file.h"
#include "quelworks/ini/ini_file.h"

namespace {

std::string benchFile(const std::string& name, std::size_t bytes) {
    std::string path = "/tmp/qw_bench_" + name + ".ini";
    std::ofstream out(path, std::ios::binary);
    out << "[S]\nk=0\n";
    for (std::size_t written = 8, i = 0; written < bytes; ++i) {
        std::string line = "key" + std::to_string(i) + "=" + std::string(40, 'v') + "\n";
        if (i % 20 == 0) line = "[section" + std::to_string(i) + "]\n" + line;
        out << line;
        written += line.size();
    }
    return path;
}

void SetValue_1MB(benchmark::State& state) {
    const std::string path = benchFile("setvalue", 1 << 20);
    int n = 0;
    for (auto _ : state) {
        bool ok = CIniFile::SetValue("k", std::to_string(++n), "S", path);
        benchmark::DoNotOptimize(ok);
    }
    std::remove(path.c_str());
}
BENCHMARK(SetValue_1MB)->Unit(benchmark::kMicrosecond)->UseRealTime();

void EditLockAlone_1MB(benchmark::State& state) {
    const std::string path = benchFile("lock", 1 << 20);
    for (auto _ : state) {
        quelworks::platform::EditLock lock;
        auto result = lock.acquire(path, std::chrono::milliseconds(5000));
        benchmark::DoNotOptimize(result);
    }
    std::remove(path.c_str());
}
BENCHMARK(EditLockAlone_1MB)->Unit(benchmark::kMicrosecond)->UseRealTime();

void Contended_16Writers(benchmark::State& state) {
    const std::string path = benchFile("contended", 4096);
    constexpr int kWriters = 16;
    for (auto _ : state) {
        std::vector<int> edits(kWriters, 0);
        std::atomic<bool> stop{false};
        std::vector<std::thread> writers;
        const auto start = std::chrono::steady_clock::now();
        for (int w = 0; w < kWriters; ++w) {
            writers.emplace_back([&, w] {
                for (int n = 0; !stop; ++n) {
                    if (CIniFile::SetValue("w" + std::to_string(w), std::to_string(n), "S", path)) {
                        ++edits[static_cast<std::size_t>(w)];
                    }
                }
            });
        }
        std::this_thread::sleep_for(std::chrono::seconds(2));
        stop = true;
        for (auto& t : writers) t.join();
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        int total = 0;
        for (int e : edits) total += e;
        state.counters["edits_per_s"] = total / seconds;
        state.counters["min_per_writer"] = *std::min_element(edits.begin(), edits.end());
        state.counters["max_per_writer"] = *std::max_element(edits.begin(), edits.end());
    }
    std::remove(path.c_str());
}
BENCHMARK(Contended_16Writers)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
