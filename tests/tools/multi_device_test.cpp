// The quelworks command on several devices at once, and in watch mode, against several
// quelworks-devsim programs on pseudo-terminals.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/open_counter.h"

#include "tool_test_util.h"

namespace {

using namespace qwtest;

bool sameFiles(const std::string& a, const std::string& b) {
    return std::system(("cmp -s " + a + " " + b).c_str()) == 0;
}

// The line of `text` that starts with `start`; empty if there is none.
std::string lineStarting(const std::string& text, const std::string& start) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        if (line.compare(0, start.size(), start) == 0) return line;
    return "";
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// A program started in the background with these shell words, its output going to files; the
// first line on the pipe is its process id.
class Background {
public:
    explicit Background(const std::string& command) {
        out_ = tempPath("bg" + std::to_string(++count_) + ".out");
        err_ = out_ + ".err";
        pipe_ = ::popen(("echo $$; exec timeout --foreground -s KILL 90 " + command + " >" + out_ +
                         " 2>" + err_)
                            .c_str(),
                        "r");
        char line[64] = {};
        if (pipe_ != nullptr && std::fgets(line, sizeof line, pipe_) != nullptr)
            pid_ = std::atoi(line);
    }
    ~Background() {
        wait(SIGKILL);
        std::remove(out_.c_str());
        std::remove(err_.c_str());
    }
    std::string out() const { return readFile(out_); }
    std::string err() const { return readFile(err_); }
    // Sends the signal to the command itself (not to timeout) and waits for the end.
    int wait(int signal = 0) {
        if (pipe_ == nullptr) return -1;
        if (signal != 0 && pid_ > 0) ::kill(pid_, signal);
        int status = ::pclose(pipe_);
        pipe_ = nullptr;
        return exitCode(status);
    }
    // Ctrl-C: timeout (in the foreground, so only once) hands SIGINT on to the program.
    void interrupt() {
        if (pid_ > 0) ::kill(pid_, SIGINT);
    }
    // Waits up to `seconds` until `part` shows up in the program's standard output or error.
    bool waitFor(const std::string& part, double seconds = 20) {
        auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < until) {
            if (contains(out(), part) || contains(err(), part)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

private:
    static inline int count_ = 0;
    std::FILE* pipe_ = nullptr;
    pid_t pid_ = -1;
    std::string out_, err_;
};

Result quelworks(const std::string& args) {
    Background run(QW_CLI_PATH " " + args + " </dev/null");
    int code = run.wait();
    return {code, run.out(), run.err()};
}

TEST(MultiFlash, FourDevicesAtOnceAndTheSummarySaysWhichFailed) {
    std::string image = writeImage("image.bin", 6000);
    std::string written1 = tempPath("w1.bin"), written2 = tempPath("w2.bin");
    Devsim good1("--block-size 128 --serial GOOD1 --image-out " + written1);
    Devsim good2("--block-size 128 --serial GOOD2 --image-out " + written2);
    Devsim silent("--silent");
    Devsim rejecting("--block-size 128 --serial REJECTS --reject-block 3");
    ASSERT_FALSE(rejecting.port().empty());

    Result r = quelworks("flash " + image + " --timeout 300 --port " + good1.port() + " --port " +
                         silent.port() + " --port " + rejecting.port() + " --port " + good2.port());
    // Two kinds of failure: the general exit code, and a summary naming both ports.
    EXPECT_EQ(r.code, 1) << r.err;
    EXPECT_TRUE(contains(r.err, "quelworks: 2 of 4 devices not verified: " + silent.port() + ", " +
                                    rejecting.port()))
        << r.err;
    // The table: one row per device, in the order given.
    std::string row1 = lineStarting(r.out, good1.port() + " ");
    std::string rowSilent = lineStarting(r.out, silent.port() + " ");
    std::string rowRejecting = lineStarting(r.out, rejecting.port() + " ");
    std::string row2 = lineStarting(r.out, good2.port() + " ");
    EXPECT_TRUE(contains(row1, "GOOD1") && contains(row1, "verified")) << r.out;
    EXPECT_TRUE(contains(row2, "GOOD2") && contains(row2, "verified")) << r.out;
    EXPECT_TRUE(contains(rowSilent, "FAILED") && contains(rowSilent, "no answer")) << r.out;
    EXPECT_TRUE(contains(rowRejecting, "REJECTS") && contains(rowRejecting, "FAILED") &&
                contains(rowRejecting, "rejected block 3 of 47"))
        << r.out;
    EXPECT_LT(r.out.find(row1), r.out.find(rowSilent));
    EXPECT_LT(r.out.find(rowRejecting), r.out.find(row2));
    // Not a terminal: timestamped lines, no cursor movement.
    EXPECT_TRUE(contains(r.err, " " + good1.port() + ": verified in")) << r.err;
    EXPECT_FALSE(contains(r.err, "\x1b["));

    good1.stop(SIGTERM);
    good2.stop(SIGTERM);
    EXPECT_TRUE(sameFiles(image, written1));
    EXPECT_TRUE(sameFiles(image, written2));
    for (const std::string& file : {image, written1, written2}) std::remove(file.c_str());
}

TEST(MultiFlash, JsonRecordsAndInfoOverSeveralPorts) {
    std::string image = writeImage("image.bin", 3000);
    Devsim a("--serial UNIT-A --block-size 256"), b("--serial UNIT-B --block-size 256");

    Result r = quelworks("flash " + image + " --json --port " + a.port() + " --port " + b.port());
    EXPECT_EQ(r.code, 0) << r.err;
    std::istringstream lines(r.out);
    int records = 0;
    for (std::string line; std::getline(lines, line); ++records) {
        EXPECT_EQ(line.front(), '{');
        EXPECT_TRUE(contains(line, "\"result\": \"verified\"")) << line;
        EXPECT_TRUE(contains(line, "\"bytes\": 3000")) << line;
    }
    EXPECT_EQ(records, 2) << r.out;
    EXPECT_TRUE(contains(r.out, "\"serialNumber\": \"UNIT-A\""));
    EXPECT_TRUE(contains(r.out, "\"serialNumber\": \"UNIT-B\""));

    // info: one JSON array for several ports; a port that is not there gets an error record and
    // its exit code, the others still answer.
    r = quelworks("info " + a.port() + " " + b.port() + " --json");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out.front(), '[');
    EXPECT_LT(r.out.find("UNIT-A"), r.out.find("UNIT-B"));
    r = quelworks("info --port " + a.port() + " --port /dev/qw-no-such-port");
    EXPECT_EQ(r.code, 3) << r.err;
    EXPECT_TRUE(contains(r.out, "serial number:      UNIT-A")) << r.out;
    EXPECT_TRUE(contains(r.out, "error:              no such port '/dev/qw-no-such-port'"))
        << r.out;
    EXPECT_TRUE(contains(r.err, "1 of 2 devices did not answer: /dev/qw-no-such-port")) << r.err;
    std::remove(image.c_str());
}

// Identity, the switch to the top baud rate, programming mode and every block go over one
// connection per device: the port is opened once per command, whichever form of flash it is.
TEST(MultiFlash, EachDeviceIsOpenedOncePerCommand) {
    std::string image = writeImage("image.bin", 2000);
    std::string writtenA = tempPath("once_a.bin"), writtenB = tempPath("once_b.bin");
    Devsim a("--serial ONCE-A --block-size 256 --image-out " + writtenA);
    Devsim b("--serial ONCE-B --block-size 256 --max-baud 230400 --image-out " + writtenB);
    ASSERT_FALSE(b.port().empty());
    qwtest::OpenCounter opensA(a.port()), opensB(b.port());
    ASSERT_TRUE(opensA.watching() && opensB.watching());

    Result r = quelworks("flash " + a.port() + " " + image + " --max-baud --progress none");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_TRUE(contains(r.out, "line: switched to 115200 baud")) << r.out;
    EXPECT_TRUE(contains(r.out, "in 8 blocks of 256 bytes")) << r.out;
    EXPECT_EQ(opensA.count(), 1);

    r = quelworks("flash " + image + " --max-baud --port " + a.port() + " --port " + b.port());
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(opensA.count(), 2);
    EXPECT_EQ(opensB.count(), 1);

    r = quelworks("info " + b.port());
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_TRUE(contains(r.out, "maximum baud rate:  230400")) << r.out;
    EXPECT_EQ(opensB.count(), 2);

    a.stop(SIGTERM);
    b.stop(SIGTERM);
    EXPECT_TRUE(sameFiles(image, writtenA));
    EXPECT_TRUE(sameFiles(image, writtenB));
    for (const std::string& file : {image, writtenA, writtenB}) std::remove(file.c_str());
}

TEST(MultiFlash, BadInputIsRefusedBeforeAnyDeviceIsFlashed) {
    std::string image = writeImage("image.bin", 1000);
    std::string trace = tempPath("trace.txt");
    Devsim device("--trace " + trace);
    std::string link = tempPath("link");
    std::filesystem::create_symlink(device.port(), link);

    Result r =
        quelworks("flash " + image + " --port " + device.port() + " --port " + device.port());
    EXPECT_EQ(r.code, 2);
    EXPECT_TRUE(contains(r.err, "port " + device.port() + " is given twice")) << r.err;
    // The same device through a link.
    r = quelworks("flash " + image + " --port " + device.port() + " --port " + link);
    EXPECT_EQ(r.code, 2);
    EXPECT_TRUE(contains(r.err, "(as " + device.port() + " and " + link + ")")) << r.err;

    r = quelworks("flash " + tempPath("missing.bin") + " --port " + device.port());
    EXPECT_EQ(r.code, 8);
    EXPECT_TRUE(contains(r.err, "cannot read image file")) << r.err;
    r = quelworks("flash " + ::testing::TempDir() + " --port " + device.port());
    EXPECT_EQ(r.code, 8) << r.err;

    r = quelworks("flash " + image + " --all --match 'qw-nothing-is-called-this*'");
    EXPECT_EQ(r.code, 3);
    EXPECT_TRUE(contains(r.err, "no port matches --match qw-nothing-is-called-this*")) << r.err;
    r = quelworks("ports --match 'qw-nothing-is-called-this*' --json");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "[]\n");

    // Mixed forms: a port both as argument and as --port; no port at all.
    r = quelworks("flash " + device.port() + " " + image + " --port " + device.port());
    EXPECT_EQ(r.code, 2);
    r = quelworks("flash " + image);
    EXPECT_EQ(r.code, 2);
    EXPECT_TRUE(contains(r.err, "flash needs PORT IMAGE")) << r.err;

    // None of this reached the device.
    device.stop(SIGTERM);
    EXPECT_EQ(readFile(trace), "");
    for (const std::string& file : {image, trace, link}) std::remove(file.c_str());
}

TEST(MultiFlash, AnUnpluggedDeviceFailsAloneAndCtrlCStopsEachDeviceBetweenBlocks) {
    // 20 KB at an emulated 115200 baud take about two seconds per device.
    std::string image = writeImage("image.bin", 20000);
    std::string written = tempPath("kept.bin");
    {
        Devsim kept("--block-size 256 --line-rate 115200 --image-out " + written);
        Devsim unplugged("--block-size 256 --line-rate 115200");
        Background run(QW_CLI_PATH " flash " + image + " --port " + unplugged.port() + " --port " +
                       kept.port());
        ASSERT_TRUE(run.waitFor(unplugged.port() + ": 25%"));
        unplugged.stop(SIGKILL);
        EXPECT_EQ(run.wait(), 3);
        EXPECT_TRUE(contains(run.out(), "the port " + unplugged.port() + " went away during block"))
            << run.out();
        EXPECT_TRUE(contains(lineStarting(run.out(), kept.port() + " "), "verified")) << run.out();
    }
    EXPECT_TRUE(sameFiles(image, written));

    Devsim a("--block-size 256 --line-rate 115200"), b("--block-size 256 --line-rate 115200");
    Background run(QW_CLI_PATH " flash " + image + " --json --port " + a.port() + " --port " +
                   b.port());
    ASSERT_TRUE(run.waitFor(a.port() + ": 25%"));
    run.interrupt();
    EXPECT_EQ(run.wait(), 130);
    // Each device says where it stopped, in its line and in its record.
    for (const Devsim* device : {&a, &b}) {
        EXPECT_TRUE(contains(run.err(), device->port() + ": INTERRUPTED: interrupted after block"))
            << run.err();
        EXPECT_TRUE(contains(run.out(), "{\"port\": \"" + device->port() +
                                            "\", \"serialNumber\": \"QW000042\", \"result\": "
                                            "\"interrupted\""))
            << run.out();
    }
    for (const std::string& file : {image, written}) std::remove(file.c_str());
}

TEST(WatchMode, FlashesEachDeviceAsItAppearsAndNeverTwice) {
    std::string image = writeImage("image.bin", 2000);
    std::string folder = tempPath("line");
    std::filesystem::create_directories(folder);
    Background watch(QW_CLI_PATH " flash " + image + " --watch --poll 100 --json --match '" +
                     folder + "/dev*'");
    ASSERT_TRUE(watch.waitFor("watching for devices"));

    auto first = std::make_unique<Devsim>("--serial W1 --link " + folder + "/devA");
    ASSERT_TRUE(watch.waitFor("flashed 1, failed 0, in progress 0")) << watch.err();
    Devsim second("--serial W2 --link " + folder + "/devB");
    ASSERT_TRUE(watch.waitFor("flashed 2, failed 0, in progress 0")) << watch.err();
    // The first device goes away; it comes back on another port, and a new device takes the
    // first one's place.
    first.reset();
    Devsim again("--serial W1 --link " + folder + "/devC");
    ASSERT_TRUE(watch.waitFor("skipped 1")) << watch.err();
    Devsim third("--serial W3 --link " + folder + "/devA");
    ASSERT_TRUE(watch.waitFor("flashed 3, failed 0, in progress 0")) << watch.err();
    // A few more polls: the devices that stay attached are not flashed again.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    watch.interrupt();
    EXPECT_EQ(watch.wait(), 0) << watch.err();
    EXPECT_TRUE(contains(watch.err(), "watch ended: flashed 3, failed 0, in progress 0, skipped 1"))
        << watch.err();
    std::string records = watch.out();
    EXPECT_TRUE(contains(records, "\"serialNumber\": \"W1\", \"result\": \"skipped\"")) << records;
    int verified = 0;
    for (std::size_t at = 0; (at = records.find("\"verified\"", at)) != std::string::npos; ++at)
        ++verified;
    EXPECT_EQ(verified, 3) << records;
    std::filesystem::remove_all(folder);
    std::remove(image.c_str());
}

}  // namespace
