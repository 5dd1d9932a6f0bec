// Temporary folders and whole-file helpers for the INI tests.
#ifndef QUELWORKS_TESTS_INI_INI_TEST_UTIL_H
#define QUELWORKS_TESTS_INI_INI_TEST_UTIL_H

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

namespace ini_test {

// The line end that saved files use.
#if defined(_WIN32)
inline const std::string kLineEnd = "\r\n";
#else
inline const std::string kLineEnd = "\n";
#endif

// A fresh folder under the system's temporary folder, removed with everything in it.
class TempDir {
public:
    TempDir() {
        std::random_device random;
        for (;;) {
            auto candidate = std::filesystem::temp_directory_path() /
                             ("qw-ini-" + std::to_string(random()) + std::to_string(random()));
            if (std::filesystem::create_directory(candidate)) {
                path_ = candidate.string();
                break;
            }
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    std::string path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace ini_test

#endif  // QUELWORKS_TESTS_INI_INI_TEST_UTIL_H
