// Reads arbitrary bytes as an INI file: the only exception that may come out is the
// std::out_of_range of a header line without ']', and the rendering must match the plain
// line-by-line reader of the tests, byte for byte, throwing on exactly the same inputs.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>

#include "../tests/ini/ini_reference.h"
#include "quelworks/ini/ini_file.h"

namespace {

const std::string& scratchFile() {
    // A memory-backed folder where there is one: saving flushes to disk, which is slow elsewhere.
    static const std::filesystem::path folder = std::filesystem::is_directory("/dev/shm")
                                                    ? std::filesystem::path("/dev/shm")
                                                    : std::filesystem::temp_directory_path();
    static const std::string path =
        (folder / ("qw-fuzz-ini-load-" + std::to_string(std::random_device{}()) + ".ini")).string();
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string& path = scratchFile();
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    std::string content;
    bool threw = false;
    try {
        content = CIniFile::Content(path);
    } catch (const std::out_of_range&) {
        threw = true;
    }
    std::string expected;
    bool expectedThrow = false;
    try {
        expected = ini_reference::content(path);
    } catch (const std::out_of_range&) {
        expectedThrow = true;
    }
    if (threw != expectedThrow || content != expected) std::abort();
    if (!threw) {
        // The queries read the file the same way.
        std::vector<std::string> names = CIniFile::GetSectionNames(path);
        if (names != ini_reference::getSectionNames(path)) std::abort();
        const std::string section = names.empty() ? std::string() : names.back();
        if (CIniFile::GetSection(section, path).size() !=
            ini_reference::getSection(section, path).size()) {
            std::abort();
        }
    }
    std::filesystem::remove(path);
    return 0;
}
