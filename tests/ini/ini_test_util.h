// Temporary folders, whole-file helpers and the text of saved files for the INI tests.
#ifndef QUELWORKS_TESTS_INI_INI_TEST_UTIL_H
#define QUELWORKS_TESTS_INI_INI_TEST_UTIL_H

#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <random>
#include <string>

namespace ini_test {

// A fresh folder under the system's temporary folder, removed with everything in it.
class TempDir {
public:
    TempDir() {
        std::random_device random;
        do {
            path_ = (std::filesystem::temp_directory_path() /
                     ("qw-ini-" + std::to_string(random()) + std::to_string(random())))
                        .string();
        } while (!std::filesystem::create_directory(path_));
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// How many names a folder holds (a save must leave nothing beside the file).
inline std::size_t entriesIn(const std::string& dir) {
    auto it = std::filesystem::directory_iterator(dir);
    return static_cast<std::size_t>(std::distance(begin(it), end(it)));
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The bytes of a saved file holding these lines: CR LF line ends on Windows, LF elsewhere.
inline std::string lines(std::initializer_list<std::string> parts) {
#if defined(_WIN32)
    const char* const end = "\r\n";
#else
    const char* const end = "\n";
#endif
    std::string s;
    for (const std::string& p : parts) s += p + end;
    return s;
}

}  // namespace ini_test

#endif  // QUELWORKS_TESTS_INI_INI_TEST_UTIL_H
