// Loads arbitrary bytes as an INI file and saves the records back (through an edit that changes
// nothing), then checks:
//  - the library reads and writes exactly what the plain reader and writer of the tests do;
//  - saving what was loaded and loading it again gives the same records, whenever the records
//    can be written back unchanged. The format loses information in a few known cases, all kept
//    on purpose: an entry line holding '[' is taken apart as a header and does not read back
//    the same, a '[a=b]' line gives a key whose header is never written, a record with an empty
//    key is written as its section's header (dropping a value, or, for a line that was neither
//    entry nor comment, starting a section with an empty name).
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "../tests/ini/ini_reference.h"
#include "quelworks/ini/ini_file.h"

namespace {

using Record = CIniFile::Record;

const std::string& scratchFile() {
    // A memory-backed folder where there is one: saving flushes to disk, which is slow elsewhere.
    static const std::filesystem::path folder = std::filesystem::is_directory("/dev/shm")
                                                    ? std::filesystem::path("/dev/shm")
                                                    : std::filesystem::temp_directory_path();
    static const std::string path =
        (folder / ("qw-fuzz-ini-roundtrip-" + std::to_string(std::random_device{}()) + ".ini"))
            .string();
    return path;
}

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool sameRecords(const std::vector<Record>& a, const std::vector<Record>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i].Comments != b[i].Comments || a[i].Commented != b[i].Commented ||
            a[i].Section != b[i].Section || a[i].Key != b[i].Key || a[i].Value != b[i].Value) {
            return false;
        }
    }
    return true;
}

// Whether writing these records and reading them again must give them back.
bool writesBackUnchanged(const std::vector<Record>& records) {
    std::string current;
    for (const Record& r : records) {
        if (r.Key.empty()) {
            if (!r.Value.empty() || r.Section.find('=') != std::string::npos) return false;
            current = r.Section;
        } else {
            if (r.Section != current) return false;
            if (r.Key.find('[') != std::string::npos || r.Value.find('[') != std::string::npos) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string& path = scratchFile();
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    std::vector<Record> loaded;
    try {
        ini_reference::load(path, loaded);
    } catch (const std::out_of_range&) {
        // Such a file cannot be loaded, so no edit may write it.
        const std::string before = readAll(path);
        bool threw = false;
        try {
            CIniFile::RenameSection("\n", "\n", path);
        } catch (const std::out_of_range&) {
            threw = true;
        }
        if (!threw || readAll(path) != before) std::abort();
        std::filesystem::remove(path);
        return 0;
    }

    // No section name holds a line feed: this edit saves the loaded records as they are.
    if (!CIniFile::RenameSection("\n", "\n", path)) std::abort();
    const std::string saved = readAll(path);
    const std::string expectedPath = path + ".expected";
    ini_reference::save(expectedPath, loaded);
    if (saved != readAll(expectedPath)) std::abort();
    std::filesystem::remove(expectedPath);

    if (writesBackUnchanged(loaded)) {
        std::vector<Record> reloaded;
        if (!ini_reference::load(path, reloaded) || !sameRecords(loaded, reloaded)) std::abort();
        if (CIniFile::Content(path) != ini_reference::content(path)) std::abort();
        // Saving again changes nothing.
        if (!CIniFile::RenameSection("\n", "\n", path) || readAll(path) != saved) std::abort();
    }
    std::filesystem::remove(path);
    return 0;
}
