// The quelworks command end to end: the real program against the quelworks-devsim program.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Result {
    int code = -1;
    std::string out;
    std::string err;
};

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string tempPath(const std::string& name) {
    return ::testing::TempDir() + "qw_cli_" + std::to_string(::getpid()) + "_" + name;
}

[[noreturn]] void execOrDie(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    std::_Exit(127);
}

// Runs a program to its end (killed after `limit`), capturing both outputs.
Result run(const std::vector<std::string>& args,
           std::chrono::seconds limit = std::chrono::seconds(60)) {
    std::string out = tempPath("stdout"), err = tempPath("stderr");
    pid_t pid = ::fork();
    if (pid == 0) {
        int o = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int e = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int in = ::open("/dev/null", O_RDONLY);
        ::dup2(o, 1);
        ::dup2(e, 2);
        ::dup2(in, 0);
        execOrDie(args);
    }
    Result result;
    int status = 0;
    Clock::time_point deadline = Clock::now() + limit;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (Clock::now() > deadline) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            ADD_FAILURE() << args[0] << " did not finish in time";
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (WIFEXITED(status)) result.code = WEXITSTATUS(status);
    result.out = readFile(out);
    result.err = readFile(err);
    std::remove(out.c_str());
    std::remove(err.c_str());
    return result;
}

// The quelworks-devsim program, started with some options and stopped by a signal.
class Devsim {
public:
    explicit Devsim(std::vector<std::string> options) {
        int pipeFds[2];
        if (::pipe(pipeFds) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(pipeFds[1], 1);
            ::close(pipeFds[0]);
            options.insert(options.begin(), QW_DEVSIM_PATH);
            execOrDie(options);
        }
        ::close(pipeFds[1]);
        out_ = pipeFds[0];
        // The first line is the port.
        Clock::time_point deadline = Clock::now() + std::chrono::seconds(30);
        char c;
        while (Clock::now() < deadline) {
            pollfd p{out_, POLLIN, 0};
            if (::poll(&p, 1, 100) <= 0) continue;
            if (::read(out_, &c, 1) != 1 || c == '\n') break;
            port_ += c;
        }
    }
    ~Devsim() {
        if (pid_ > 0 && !stopped_) stop(SIGTERM);
        if (out_ >= 0) ::close(out_);
    }
    const std::string& port() const { return port_; }

    // Stops the program; returns its exit code (-1 if it did not exit normally in time).
    int stop(int signal) {
        stopped_ = true;
        ::kill(pid_, signal);
        int status = 0;
        Clock::time_point deadline = Clock::now() + std::chrono::seconds(30);
        while (::waitpid(pid_, &status, WNOHANG) == 0) {
            if (Clock::now() > deadline) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, &status, 0);
                return -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid_ = -1;
    int out_ = -1;
    bool stopped_ = false;
    std::string port_;
};

Result quelworks(std::vector<std::string> args) {
    args.insert(args.begin(), QW_CLI_PATH);
    return run(args);
}

std::string writeImage(const std::string& name, std::size_t size) {
    std::string path = tempPath(name);
    std::mt19937 random(static_cast<unsigned>(size));
    std::ofstream out(path, std::ios::binary);
    for (std::size_t i = 0; i < size; ++i) out.put(static_cast<char>(random() & 0xFF));
    return path;
}

TEST(Cli, FlashWritesTheImageByteForByte) {
    std::string written = tempPath("written.bin");
    std::remove(written.c_str());
    Devsim device({"--image-out", written, "--block-size", "128"});
    ASSERT_FALSE(device.port().empty());
    std::string image = writeImage("image.bin", 5000);

    Result r = quelworks({"flash", device.port(), image, "--max-baud", "--value", "0x1234"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("line: switched to 115200 baud"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("writing 5000 bytes in 40 blocks of 128 bytes"), std::string::npos);
    EXPECT_NE(r.out.find("flashed 5000 bytes to " + device.port()), std::string::npos);
    // Not a terminal: plain progress lines.
    EXPECT_NE(r.err.find("progress: 100%  5000 / 5000 bytes"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find('\r'), std::string::npos);

    EXPECT_EQ(run({"/usr/bin/cmp", image, written}).code, 0);
    EXPECT_EQ(device.stop(SIGTERM), 0);
    std::remove(image.c_str());
    std::remove(written.c_str());
}

TEST(Cli, InfoPrintsTheIdentity) {
    Devsim device({"--type", "0x0102", "--serial", "ABCDEFGH", "--description", "unit \"one\"",
                   "--firmware", "7", "--max-baud", "57600"});
    Result r = quelworks({"info", device.port()});
    ASSERT_EQ(r.code, 0) << r.err;
    std::string expected = "port:               " + device.port() +
                           "\n"
                           "device type:        258 (0x0102)\n"
                           "sub-type:           3\n"
                           "revision:           7\n"
                           "firmware version:   7 (0x0007)\n"
                           "bootloader version: 2\n"
                           "serial number:      ABCDEFGH\n"
                           "description:        unit \"one\"\n"
                           "maximum baud rate:  57600\n"
                           "program mode:       no (application running)\n";
    EXPECT_EQ(r.out, expected);

    r = quelworks({"info", device.port(), "--json"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "{\"port\": \"" + device.port() +
                         "\", \"deviceType\": 258, \"subDeviceType\": 3, \"revision\": 7, "
                         "\"firmwareVersion\": 7, \"bootloaderVersion\": 2, \"serialNumber\": "
                         "\"ABCDEFGH\", \"description\": \"unit \\\"one\\\"\", \"maxBaudrate\": "
                         "57600, \"inProgramMode\": false}\n");
}

struct FailureCase {
    const char* name;
    std::vector<std::string> devsim;
    std::vector<std::string> command;  // PORT and IMAGE stand for the device's port and an image
    int code;
    std::string message;  // PORT stands for the port
};

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

TEST(Cli, EveryFailureSaysWhatHappenedWithItsOwnExitCode) {
    std::string image = writeImage("failure.bin", 1000);
    std::string empty = tempPath("empty.bin");
    std::ofstream(empty).close();
    std::string missing = tempPath("missing.bin");

    const std::vector<FailureCase> cases = {
        {"silent device",
         {"--silent"},
         {"info", "PORT"},
         4,
         "no answer from the device on PORT (is it powered and on this port?)"},
        {"wrong echo",
         {"--wrong-echo", "0x17"},
         {"info", "PORT"},
         5,
         "the device on PORT answered the bootloader version request (0x17) with 0x97 instead of "
         "its echo (wrong baud rate, or not a bootloader device?)"},
        {"rejected block",
         {"--block-size", "128", "--reject-block", "3"},
         {"flash", "PORT", "IMAGE"},
         10,
         "the device rejected block 3 of 8 (the device holds a partial image: flash again)"},
        {"never enters",
         {"--never-enter"},
         {"flash", "PORT", "IMAGE"},
         7,
         "the device on PORT did not enter programming mode (power-cycle it and try again, or "
         "try a longer --timeout)"},
        {"baud switch refused",
         {"--wrong-echo", "0x1B"},
         {"flash", "PORT", "IMAGE", "--max-baud"},
         6,
         "the device refused to switch to its maximum baud rate (115200); flash without "
         "--max-baud"},
        {"header refused",
         {"--refuse-header"},
         {"flash", "PORT", "IMAGE"},
         9,
         "the device refused the firmware header for a 1000-byte image (is the image meant for "
         "this device?)"},
        {"missing image",
         {},
         {"flash", "PORT", missing},
         8,
         "cannot read image file '" + missing + "': No such file or directory"},
        {"empty image",
         {},
         {"flash", "PORT", empty},
         8,
         "image file '" + empty + "' is empty: nothing to flash"},
        {"no such port",
         {},
         {"info", "/dev/quelworks-no-such-port"},
         3,
         "no such port '/dev/quelworks-no-such-port': No such file or directory (see "
         "'quelworks ports' for the ports this system knows)"},
    };
    for (const FailureCase& c : cases) {
        SCOPED_TRACE(c.name);
        Devsim device(c.devsim);
        ASSERT_FALSE(device.port().empty());
        std::vector<std::string> args;
        for (const std::string& a : c.command) {
            args.push_back(a == "PORT" ? device.port() : a == "IMAGE" ? image : a);
        }
        args.push_back("--timeout");
        args.push_back("300");
        Result r = quelworks(args);
        EXPECT_EQ(r.code, c.code);
        std::string message = "quelworks: " + replaceAll(c.message, "PORT", device.port()) + "\n";
        // The message is the last line on standard error (progress lines may come before it).
        ASSERT_GE(r.err.size(), message.size()) << r.err;
        EXPECT_EQ(r.err.substr(r.err.size() - message.size()), message) << r.err;
    }
    std::remove(image.c_str());
    std::remove(empty.c_str());
}

TEST(Cli, APortInUseIsReported) {
    Devsim device({});
    int fd = ::open(device.port().c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);
    Result r = quelworks({"info", device.port()});
    EXPECT_EQ(r.code, 3);
    EXPECT_EQ(r.err, "quelworks: cannot open port " + device.port() +
                         " (is another program using it? do you have permission?)\n");
    ::close(fd);
}

TEST(Cli, UsageAndHelp) {
    EXPECT_EQ(quelworks({}).code, 2);
    Result r = quelworks({"flash"});
    EXPECT_EQ(r.code, 2);
    EXPECT_NE(r.err.find("PORT"), std::string::npos) << r.err;
    EXPECT_EQ(quelworks({"info", "/dev/null", "--timeout", "5"}).code, 2);

    r = quelworks({"--help"});
    EXPECT_EQ(r.code, 0);
    for (const char* command : {"ports", "info", "flash"}) {
        EXPECT_NE(r.out.find(command), std::string::npos) << command;
    }
    r = quelworks({"flash", "--help"});
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.out.find("--max-baud"), std::string::npos);
    EXPECT_EQ(quelworks({"ports"}).code, 0);
}

TEST(Cli, TheSimulatorTracesAndStopsCleanly) {
    std::string trace = tempPath("trace.txt");
    {
        Devsim device({"--trace", trace});
        EXPECT_EQ(device.port().rfind("/dev/", 0), 0u) << device.port();
        EXPECT_EQ(quelworks({"info", device.port()}).code, 0);
        EXPECT_EQ(device.stop(SIGINT), 0);
    }
    std::string text = readFile(trace);
    EXPECT_NE(text.find("17  bootloader version -> 17 00 02"), std::string::npos) << text;
    EXPECT_NE(text.find("1c  description -> 1c"), std::string::npos) << text;
    std::remove(trace.c_str());

    Devsim again({});
    EXPECT_EQ(again.stop(SIGTERM), 0);
}

}  // namespace
