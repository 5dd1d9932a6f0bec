// Reading outline files: the reader's time per line stays flat as files grow. Beside it, the
// per-line zero-byte check the reader used to make (searching from the line to the end of the
// whole text), which alone made reading quadratic in the file's length.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "polygon_file.h"

namespace {

std::string outlineText(int lines) {
    std::string text;
    text.reserve(static_cast<std::size_t>(lines) * 20);
    for (int i = 0; i < lines; ++i) {
        text += std::to_string(i % 1000) + ".25 " + std::to_string(i / 1000) + ".5\n";
    }
    return text;
}

void Read_Outline(benchmark::State& state) {
    const std::string text = outlineText(static_cast<int>(state.range(0)));
    std::vector<pointf> vertices;
    std::string error;
    for (auto _ : state) {
        bool ok = quelworks::cli::parsePolygonText(text, vertices, error);
        benchmark::DoNotOptimize(ok);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Read_Outline)->Arg(25000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void Read_OldZeroByteCheckOnly(benchmark::State& state) {
    const std::string text = outlineText(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        std::size_t found = 0;
        for (std::size_t start = 0; start < text.size();) {
            std::size_t end = text.find('\n', start);
            if (text.find('\0', start) < end) ++found;
            start = end + 1;
        }
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Read_OldZeroByteCheckOnly)->Arg(25000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
