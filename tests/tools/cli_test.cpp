// The quelworks command end to end: the real program against the quelworks-devsim program.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

std::string tempPath(const std::string& name) {
    return ::testing::TempDir() + "qw_cli_" + std::to_string(::getpid()) + "_" + name;
}

std::string readFile(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

std::string writeImage(const std::string& name, std::size_t size) {
    std::string path = tempPath(name);
    std::system(("head -c " + std::to_string(size) + " /dev/urandom >" + path).c_str());
    return path;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at; (at = text.find(from)) != std::string::npos;)
        text.replace(at, from.size(), to);
    return text;
}

int exitCode(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

struct Result {
    int code;
    std::string out, err;
};

// Runs the quelworks program with these shell words to its end (killed after a minute).
Result quelworks(const std::string& args) {
    std::string out = tempPath("out"), err = tempPath("err");
    std::string command = "timeout -s KILL 60 " QW_CLI_PATH " " + args;
    int status = std::system((command + " </dev/null >" + out + " 2>" + err).c_str());
    Result result{exitCode(status), readFile(out), readFile(err)};
    std::remove(out.c_str());
    std::remove(err.c_str());
    return result;
}

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

TEST(Cli, FlashWritesTheImageByteForByte) {
    std::string written = tempPath("written.bin"), image = writeImage("image.bin", 5000);
    std::remove(written.c_str());
    Devsim device("--block-size 128 --image-out " + written);
    ASSERT_FALSE(device.port().empty());

    Result r = quelworks("flash " + device.port() + " " + image + " --max-baud --value 0x1234");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("line: switched to 115200 baud"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("flashed 5000 bytes to " + device.port()), std::string::npos);
    // Not a terminal: plain progress lines.
    EXPECT_NE(r.err.find("progress: 100%  5000 / 5000 bytes"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find('\r'), std::string::npos);

    EXPECT_EQ(device.stop(SIGTERM), 0);
    EXPECT_EQ(std::system(("cmp " + image + " " + written).c_str()), 0);
    std::remove(image.c_str());
    std::remove(written.c_str());
}

TEST(Cli, InfoPrintsTheIdentityAndTheSimulatorTracesIt) {
    std::string trace = tempPath("trace.txt");
    Devsim device(
        "--type 0x0102 --serial ABCDEFGH --description 'unit \"one\"' --firmware 7 "
        "--max-baud 57600 --trace " +
        trace);
    Result r = quelworks("info " + device.port());
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "port:               " + device.port() +
                         "\n"
                         "device type:        258 (0x0102)\n"
                         "sub-type:           3\n"
                         "revision:           7\n"
                         "firmware version:   7 (0x0007)\n"
                         "bootloader version: 2\n"
                         "serial number:      ABCDEFGH\n"
                         "description:        unit \"one\"\n"
                         "maximum baud rate:  57600\n"
                         "program mode:       no (application running)\n");
    r = quelworks("info " + device.port() + " --json");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "{\"port\": \"" + device.port() +
                         "\", \"deviceType\": 258, \"subDeviceType\": 3, \"revision\": 7, "
                         "\"firmwareVersion\": 7, \"bootloaderVersion\": 2, \"serialNumber\": "
                         "\"ABCDEFGH\", \"description\": \"unit \\\"one\\\"\", \"maxBaudrate\": "
                         "57600, \"inProgramMode\": false}\n");

    EXPECT_EQ(device.stop(SIGINT), 0);
    std::string text = readFile(trace);
    EXPECT_NE(text.find("17  bootloader version -> 17 00 02"), std::string::npos) << text;
    EXPECT_NE(text.find("1c  description -> 1c"), std::string::npos) << text;
    std::remove(trace.c_str());
}

TEST(Cli, EveryFailureSaysWhatHappenedWithItsOwnExitCode) {
    std::string image = writeImage("failure.bin", 1000), empty = writeImage("empty.bin", 0),
                missing = tempPath("missing.bin");
    // PORT and IMAGE stand for the device's port and a 1000-byte image.
    const struct {
        const char* devsim;
        std::string command;
        int code;
        std::string message;
        bool held = false;  // another program holds the port
    } cases[] = {
        {"--silent", "info PORT", 4,
         "no answer from the device on PORT (is it powered and on this port?)"},
        {"--wrong-echo 0x17", "info PORT", 5,
         "the device on PORT answered the bootloader version request (0x17) with 0x97 instead of "
         "its echo (wrong baud rate, or not a bootloader device?)"},
        {"--block-size 128 --reject-block 3", "flash PORT IMAGE", 10,
         "the device rejected block 3 of 8 (the device holds a partial image: flash again)"},
        {"--never-enter", "flash PORT IMAGE", 7,
         "the device on PORT did not enter programming mode (power-cycle it and try again, or "
         "try a longer --timeout)"},
        {"--wrong-echo 0x1B", "flash PORT IMAGE --max-baud", 6,
         "the device refused to switch to its maximum baud rate (115200); flash without "
         "--max-baud"},
        {"--refuse-header", "flash PORT IMAGE", 9,
         "the device refused the firmware header for a 1000-byte image (is the image meant for "
         "this device?)"},
        {"", "flash PORT " + missing, 8,
         "cannot read image file '" + missing + "': No such file or directory"},
        {"", "flash PORT " + empty, 8, "image file '" + empty + "' is empty: nothing to flash"},
        {"", "info /dev/quelworks-no-such-port", 3,
         "no such port '/dev/quelworks-no-such-port': No such file or directory (see "
         "'quelworks ports' for the ports this system knows)"},
        {"", "info PORT", 3,
         "cannot open port PORT (is another program using it? do you have permission?)", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        Devsim device(c.devsim);
        ASSERT_FALSE(device.port().empty());
        int held = c.held ? ::open(device.port().c_str(), O_RDWR | O_NOCTTY) : -1;
        ASSERT_TRUE(!c.held || ::flock(held, LOCK_EX | LOCK_NB) == 0);
        Result r = quelworks(replaced(replaced(c.command, "PORT", device.port()), "IMAGE", image) +
                             " --timeout 300");
        EXPECT_EQ(r.code, c.code);
        // The message is the last line on standard error (progress lines may come before it).
        std::string message = "quelworks: " + replaced(c.message, "PORT", device.port()) + "\n";
        ASSERT_GE(r.err.size(), message.size()) << r.err;
        EXPECT_EQ(r.err.substr(r.err.size() - message.size()), message) << r.err;
        if (held >= 0) ::close(held);
    }
    std::remove(image.c_str());
    std::remove(empty.c_str());
}

TEST(Cli, UsageAndHelp) {
    EXPECT_EQ(quelworks("").code, 2);
    EXPECT_EQ(quelworks("flash").code, 2);
    EXPECT_EQ(quelworks("info /dev/null --timeout 5").code, 2);
    Result r = quelworks("--help");
    EXPECT_EQ(r.code, 0);
    for (const char* command : {"ports", "info", "flash"}) {
        EXPECT_NE(r.out.find(command), std::string::npos) << command;
    }
    r = quelworks("flash --help");
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.out.find("--max-baud"), std::string::npos);
    EXPECT_EQ(quelworks("ports").code, 0);
}

}  // namespace
