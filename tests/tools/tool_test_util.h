// What the tests of the quelworks and quelworks-devsim programs share: temporary files, the exit
// code of a finished program, and a quelworks-devsim program serving a pseudo-terminal.
#ifndef QUELWORKS_TESTS_TOOL_TEST_UTIL_H
#define QUELWORKS_TESTS_TOOL_TEST_UTIL_H

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace qwtest {

// A path in the test's temporary folder, unique to this process.
inline std::string tempPath(const std::string& name) {
    return ::testing::TempDir() + "qw_tools_" + std::to_string(::getpid()) + "_" + name;
}

inline std::string readFile(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// A file of `size` random bytes in the temporary folder.
inline std::string writeImage(const std::string& name, std::size_t size) {
    std::string path = tempPath(name);
    std::system(("head -c " + std::to_string(size) + " /dev/urandom >" + path).c_str());
    return path;
}

inline int exitCode(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// What a finished program gave: its exit code and its standard output and error.
struct Result {
    int code;
    std::string out, err;
};

#ifdef QW_DEVSIM_PATH
// The quelworks-devsim program with these shell words; it prints its port on its first line.
class Devsim {
public:
    explicit Devsim(const std::string& options) {
        pipe_ = ::popen(("echo $$; exec " QW_DEVSIM_PATH " " + options).c_str(), "r");
        char line[256] = {};
        if (pipe_ != nullptr && std::fgets(line, sizeof line, pipe_) != nullptr)
            pid_ = std::atoi(line);
        if (pid_ > 0 && std::fgets(line, sizeof line, pipe_) != nullptr) port_ = line;
        if (!port_.empty() && port_.back() == '\n') port_.pop_back();
    }
    ~Devsim() { stop(SIGTERM); }
    Devsim(const Devsim&) = delete;
    Devsim& operator=(const Devsim&) = delete;
    const std::string& port() const { return port_; }
    // Stops the program with a signal and returns its exit code.
    int stop(int signal) {
        if (pipe_ == nullptr) return -1;
        if (pid_ > 0) ::kill(pid_, signal);
        int status = ::pclose(pipe_);
        pipe_ = nullptr;
        return exitCode(status);
    }

private:
    std::FILE* pipe_ = nullptr;
    pid_t pid_ = -1;
    std::string port_;
};
#endif

}  // namespace qwtest

#endif
