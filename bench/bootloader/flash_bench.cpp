// Flashes a 256 KiB image through the simulated device, whose line runs at an emulated 115200
// baud (10 bit times per byte, both directions), and reports the effective throughput as a share
// of the line rate. Beside it, the share the protocol itself allows at that block size: each
// block of n bytes costs n + 2 checksum bytes out and a 3-byte reply back, one after the other.
//
//   build/<dir>/bench/bootloader/bench_flash --benchmark_repetitions=3
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "pty_server.h"
#include "quelworks/bootloader/bootloader.h"

namespace {

constexpr std::uint32_t kLineRate = 115200;
constexpr int kImageSize = 256 * 1024;

std::string writeImage() {
    std::string path = "/tmp/qw_bench_flash_" + std::to_string(::getpid()) + ".bin";
    std::mt19937 random(42);
    std::vector<unsigned char> image(kImageSize);
    for (auto& b : image) b = static_cast<unsigned char>(random());
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f != nullptr) {
        std::fwrite(image.data(), 1, image.size(), f);
        std::fclose(f);
    }
    return path;
}

void BM_FlashAt115200(benchmark::State& state) {
    const int blockSize = static_cast<int>(state.range(0));
    quelworks::devsim::DeviceConfig config;
    config.blockSize = static_cast<std::uint32_t>(blockSize);
    config.maxBaudrate = kLineRate;
    config.lineFollowsBaud = true;  // 9600 for the identity, the maximum after the switch
    quelworks::devsim::PtyServer server(config);
    std::string error;
    if (!server.open(&error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    server.start();
    std::string port = server.portPath();
    std::string image = writeImage();

    Bootloader boot(port.data(), 1000);
    if (!boot.IsDeviceInfoAvailable() || !boot.SwitchToMaxBaudrate() || !boot.EnterBootloader()) {
        state.SkipWithError("the simulated device did not come up");
        return;
    }
    double seconds = 0;
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        bool ok = boot.UpdateFirmware(0, image.data());
        auto end = std::chrono::steady_clock::now();
        if (!ok) {
            state.SkipWithError("the update failed");
            break;
        }
        double s = std::chrono::duration<double>(end - start).count();
        state.SetIterationTime(s);
        seconds += s;
    }
    bool intact = server.withDevice([](quelworks::devsim::Device& d) {
        return d.image().size() == static_cast<std::size_t>(kImageSize);
    });
    server.stop();
    std::remove(image.c_str());
    if (!intact) {
        state.SkipWithError("the device did not receive the whole image");
        return;
    }

    const double lineBytesPerSecond = kLineRate / 10.0;
    const double perIteration = seconds / static_cast<double>(state.iterations());
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kImageSize);
    state.counters["line_share"] = (kImageSize / perIteration) / lineBytesPerSecond;
    state.counters["protocol_ceiling"] =
        static_cast<double>(blockSize) / static_cast<double>(blockSize + 2 + 3);
}

BENCHMARK(BM_FlashAt115200)
    ->Arg(64)
    ->Arg(256)
    ->Arg(1024)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
