// Runs a fuzz harness over files and folders of inputs, without the fuzzing engine, so that the
// seed corpus serves as a regression test in every build.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fs = std::filesystem;

static int runFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", path.string().c_str());
        return 1;
    }
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    return 0;
}

int main(int argc, char** argv) {
    int failures = 0;
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        fs::path arg(argv[i]);
        if (fs::is_directory(arg)) {
            for (const auto& entry : fs::recursive_directory_iterator(arg)) {
                if (!entry.is_regular_file()) continue;
                failures += runFile(entry.path());
                ++count;
            }
        } else {
            failures += runFile(arg);
            ++count;
        }
    }
    std::printf("replayed %d inputs\n", count);
    return failures == 0 && count > 0 ? 0 : 1;
}
