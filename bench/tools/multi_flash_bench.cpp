// One quelworks process flashing N simulated devices at once, each on its own pty with an
// emulated 115200-baud line (quelworks-devsim --line-rate 115200), against one device in the same
// run. Reports the aggregate throughput (all devices' bytes over the wall time), its ratio to one
// device's, and the flasher's own CPU time (user + system of the quelworks process) as a share of
// the wall time.
//
//   build/bench/bench/tools/bench_multi_flash --benchmark_repetitions=3
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kImageSize = 16 * 1024;

std::string writeImage() {
    std::string path = "/tmp/qw_bench_multi_" + std::to_string(::getpid()) + ".bin";
    std::mt19937 random(7);
    std::vector<unsigned char> image(kImageSize);
    for (auto& b : image) b = static_cast<unsigned char>(random());
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f != nullptr) {
        std::fwrite(image.data(), 1, image.size(), f);
        std::fclose(f);
    }
    return path;
}

// A quelworks-devsim program; its first output line is its port.
class Devsim {
public:
    Devsim() {
        pipe_ =
            ::popen("echo $$; exec " QW_DEVSIM_PATH " --line-rate 115200 --block-size 256", "r");
        char line[256] = {};
        if (pipe_ != nullptr && std::fgets(line, sizeof line, pipe_) != nullptr)
            pid_ = std::atoi(line);
        if (pid_ > 0 && std::fgets(line, sizeof line, pipe_) != nullptr) port_ = line;
        if (!port_.empty() && port_.back() == '\n') port_.pop_back();
    }
    ~Devsim() {
        if (pid_ > 0) ::kill(pid_, SIGTERM);
        if (pipe_ != nullptr) ::pclose(pipe_);
    }
    const std::string& port() const { return port_; }

private:
    std::FILE* pipe_ = nullptr;
    pid_t pid_ = -1;
    std::string port_;
};

// Runs the command to its end; false unless it exits with 0. `cpuSeconds` gets its user and
// system time.
bool run(const std::vector<std::string>& args, double* cpuSeconds) {
    pid_t child = ::fork();
    if (child == 0) {
        std::vector<char*> argv;
        for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        std::freopen("/dev/null", "w", stdout);
        std::freopen("/dev/null", "w", stderr);
        ::execv(argv[0], argv.data());
        std::_Exit(127);
    }
    int status = 0;
    struct rusage usage = {};
    if (child < 0 || ::wait4(child, &status, 0, &usage) != child) return false;
    *cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                  1e-6 * static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void BM_FlashDevicesAtOnce(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    std::vector<std::unique_ptr<Devsim>> devices;
    std::vector<std::string> args = {QW_CLI_PATH,  "flash", writeImage(),
                                     "--progress", "none",  "--json"};
    for (int i = 0; i < count; ++i) {
        devices.push_back(std::make_unique<Devsim>());
        if (devices.back()->port().empty()) {
            state.SkipWithError("a simulated device did not start");
            return;
        }
        args.push_back("--port");
        args.push_back(devices.back()->port());
    }
    double wall = 0, cpu = 0;
    for (auto _ : state) {
        double cpuSeconds = 0;
        auto start = std::chrono::steady_clock::now();
        if (!run(args, &cpuSeconds)) {
            state.SkipWithError("the flash failed");
            break;
        }
        double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        state.SetIterationTime(seconds);
        wall += seconds;
        cpu += cpuSeconds;
    }
    std::remove(args[2].c_str());
    if (wall <= 0) return;
    double iterations = static_cast<double>(state.iterations());
    state.counters["devices"] = count;
    state.counters["aggregate_B/s"] = count * kImageSize * iterations / wall;
    state.counters["per_device_B/s"] = kImageSize * iterations / wall;
    state.counters["cpu_share_%"] = 100.0 * cpu / wall;
}
BENCHMARK(BM_FlashDevicesAtOnce)
    ->Arg(1)
    ->Arg(16)
    ->Arg(32)
    ->Arg(64)
    ->Arg(128)
    ->UseManualTime()
    ->Unit(benchmark::kSecond)
    ->Iterations(2);

}  // namespace

BENCHMARK_MAIN();
