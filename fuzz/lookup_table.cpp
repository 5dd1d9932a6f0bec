// Fuzzes the lookup-table file reader: the input bytes are written to a file that InitLUT loads.
// The only error allowed out of InitLUT is std::out_of_range (a line without ';'); anything else,
// a crash or a false result is a finding. After a load, lookups over the loaded range run in both
// directions, and the reported bounds must hold what any load gives (the maxima start at 0, the
// minima at FLT_MAX).
#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "quelworks/util/linear_interpolation.h"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

// One file per process, so that parallel fuzzing jobs do not share it; removed at exit.
struct TableFile {
    std::string path;
    TableFile()
        : path((std::filesystem::temp_directory_path() /
                ("qw_fuzz_lookup_table_" +
                 std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) + "_" +
                 std::to_string(reinterpret_cast<std::uintptr_t>(this)) + ".txt"))
                   .string()) {}
    ~TableFile() {
        std::error_code ec;
        std::filesystem::remove(path, ec);
    }
};

const std::string& tableFile() {
    static const TableFile file;
    return file.path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    {
        std::ofstream out(tableFile(), std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    std::string name = tableFile();
    LinearInterpolation lut;
    float maxX = -1, minX = -1, maxY = -1, minY = -1;
    bool loaded = false;
    try {
        loaded = lut.InitLUT(&name[0], 1.0f, 1.0f, &maxX, &minX, &maxY, &minY);
        check(loaded);
    } catch (const std::out_of_range&) {
    }
    std::error_code ec;
    std::filesystem::remove(name, ec);  // the fuzzer may end the process without destructors
    if (!loaded) {
        lut.GetyValue(0.5f);  // what was loaded before the bad line is still usable
        return 0;
    }
    check(maxX >= 0 && maxY >= 0);
    check(minX <= FLT_MAX && minY <= FLT_MAX);
    const float xs[] = {minX, maxX, minX / 2 + maxX / 2, std::nanf(""), 0.0f};
    const float ys[] = {minY, maxY, minY / 2 + maxY / 2, std::nanf(""), 0.0f};
    for (float x : xs) {
        lut.GetyValue(x);
        lut.GetyValue(x, false);
    }
    for (float y : ys) {
        lut.GetXValue(y);
        lut.GetXValue(y, false);
    }
    // A copy answers like the original.
    LinearInterpolation copy(lut);
    const float probe = minX / 2 + maxX / 2;
    const float a = lut.GetyValue(probe);
    const float b = copy.GetyValue(probe);
    check(a == b || (std::isnan(a) && std::isnan(b)));
    return 0;
}
