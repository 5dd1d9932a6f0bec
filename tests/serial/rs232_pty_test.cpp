// RS232 against a real pseudo-terminal, with a scripted peer playing the device.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "quelworks/serial/rs232.h"
#include "support/pty_pair.h"

namespace {

using namespace std::chrono_literals;
using qwtest::Bytes;
using qwtest::bytesOf;
using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

Bytes pattern(std::size_t n) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(i * 7 + 3);
    return b;
}

class RS232Pty : public ::testing::Test {
protected:
    void SetUp() override {
        name_ = pty_.path();
        ASSERT_TRUE(port_.Connect(name_.data()));
    }
    qwtest::PtyPair pty_;
    std::string name_;
    RS232 port_;
};

std::vector<std::pair<int, int>> progressCalls;
bool abortAfterFirstReport = false;
bool recordProgress(int done, int total) {
    progressCalls.emplace_back(done, total);
    return !(abortAfterFirstReport && done < total);
}

TEST(RS232Connect, BadNamesFailWithoutLeakingDescriptors) {
    const int before = qwtest::openDescriptorCount();
    RS232 port;
    char missing[] = "/dev/quelworks-no-such-port";
    char missingShort[] = "ttyQW99";
    char devNull[] = "/dev/null";
    char empty[] = "";
    char tmpl[] = "/tmp/qw-serial-XXXXXX";
    int fd = ::mkstemp(tmpl);
    ASSERT_GE(fd, 0);
    ::close(fd);
    for (char* name : {missing, missingShort, devNull, tmpl, empty}) {
        EXPECT_FALSE(port.Connect(name)) << name;
        EXPECT_FALSE(port.IsConnected()) << name;
    }
    EXPECT_FALSE(port.Connect(nullptr));
    ::unlink(tmpl);
    EXPECT_EQ(qwtest::openDescriptorCount(), before);
}

TEST(RS232Connect, PortNameAndParameterlessConnect) {
    qwtest::PtyPair pty;
    RS232 port;
    EXPECT_EQ(port.PortName(), nullptr);
    EXPECT_FALSE(port.Connect());
    std::string name = pty.path();
    port.PortName(name.data());
    char* stored = port.PortName();
    ASSERT_NE(stored, nullptr);
    EXPECT_STREQ(stored, name.c_str());
    port.PortName(stored);  // its own text: copied before the old one goes
    std::free(stored);
    EXPECT_TRUE(port.Connect());
    EXPECT_TRUE(port.IsConnected());

    // An empty name leaves the link without one; a null or empty Connect closes the open port.
    char empty[] = "";
    EXPECT_FALSE(port.Connect(empty));
    EXPECT_FALSE(port.IsConnected());
    port.PortName(empty);
    EXPECT_EQ(port.PortName(), nullptr);
    EXPECT_FALSE(port.Connect());
}

TEST(RS232Connect, LineSettingsOnTheTty) {
    qwtest::PtyPair pty;
    RS232 port;
    port.Baudrate = 250000;  // not a standard rate
    port.XonXoffFlowControl = true;
    std::string name = pty.path();
    ASSERT_TRUE(port.Connect(name.data()));
    termios t{};
    ASSERT_EQ(::tcgetattr(pty.slaveHolder(), &t), 0);
    EXPECT_EQ(t.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(t.c_cflag & (PARENB | CSTOPB | CRTSCTS), 0u);
    EXPECT_TRUE(t.c_iflag & IXON);
    EXPECT_TRUE(t.c_iflag & IXOFF);
    EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ISIG), 0u);
    EXPECT_EQ(t.c_oflag & OPOST, 0u);
    EXPECT_EQ(t.c_cc[VSTART], 0x11);
    EXPECT_EQ(t.c_cc[VSTOP], 0x13);

    port.Baudrate = 115200;
    port.XonXoffFlowControl = false;
    ASSERT_TRUE(port.Connect(name.data()));  // reconnect to the same port
    ASSERT_EQ(::tcgetattr(pty.slaveHolder(), &t), 0);
    EXPECT_EQ(::cfgetospeed(&t), static_cast<speed_t>(B115200));
    EXPECT_FALSE(t.c_iflag & (IXON | IXOFF));
}

TEST(RS232Connect, RejectedRateLeavesAStaleButHarmlessHandle) {
    qwtest::PtyPair pty;
    const int before = qwtest::openDescriptorCount();
    RS232 port;
    port.Baudrate = 0;
    std::string name = pty.path();
    EXPECT_FALSE(port.Connect(name.data()));
    EXPECT_TRUE(port.IsConnected());  // the handle was closed but kept
    EXPECT_EQ(qwtest::openDescriptorCount(), before);
    unsigned char byte = 0;
    char text[] = "x";
    EXPECT_FALSE(port.Send(text));
    EXPECT_FALSE(port.Receive(&byte, 1, 10));

    // A file opened now may get the old descriptor number; the stale handle must not reach it.
    int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    port.Disconnect();
    EXPECT_FALSE(port.IsConnected());
    EXPECT_NE(::fcntl(fd, F_GETFD), -1) << "the stale handle closed someone else's descriptor";
    ::close(fd);

    port.Baudrate = 9600;
    EXPECT_TRUE(port.Connect(name.data()));  // the port was released
}

TEST(RS232Connect, OpenIsExclusive) {
    qwtest::PtyPair pty;
    std::string name = pty.path();
    RS232 first;
    RS232 second;
    ASSERT_TRUE(first.Connect(name.data()));
    EXPECT_FALSE(second.Connect(name.data()));
    EXPECT_FALSE(second.IsConnected());

    // Another process is turned away too.
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        RS232 other;
        ::_exit(other.Connect(name.data()) ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a second process opened it";

    first.Disconnect();
    EXPECT_TRUE(second.Connect(name.data()));
}

TEST(RS232Connect, CopiesShareThePortAndNameWithoutDoubleRelease) {
    qwtest::PtyPair pty;
    std::string name = pty.path();
    const int before = qwtest::openDescriptorCount();
    {
        RS232 original;
        ASSERT_TRUE(original.Connect(name.data()));
        RS232 copy(original);
        RS232 assigned;
        assigned = copy;
        EXPECT_TRUE(copy.IsConnected());
        char text[] = "via copy";
        EXPECT_TRUE(assigned.Send(text));
        EXPECT_EQ(pty.read(8, 1000ms), bytesOf("via copy"));
        char* a = original.PortName();
        char* b = assigned.PortName();
        EXPECT_STREQ(a, b);
        std::free(a);
        std::free(b);
        copy.Disconnect();  // closes the shared port for all three
        EXPECT_FALSE(original.Send(text));
        EXPECT_TRUE(original.IsConnected());
    }  // three destructors: one name, one port, each released once
    EXPECT_EQ(qwtest::openDescriptorCount(), before);
}

TEST_F(RS232Pty, SendWritesEverythingAndReportsProgress) {
    progressCalls.clear();
    abortAfterFirstReport = false;
    Bytes small = pattern(120);
    EXPECT_TRUE(port_.Send(small.data(), 120));
    EXPECT_EQ(pty_.read(120, 2000ms), small);

    port_.SendProgressCallback = recordProgress;
    EXPECT_TRUE(port_.Send(small.data(), 120));
    EXPECT_EQ(pty_.read(120, 2000ms), small);
    EXPECT_EQ(progressCalls, (std::vector<std::pair<int, int>>{{120, 120}}));

    progressCalls.clear();
    Bytes big = pattern(2200);
    EXPECT_TRUE(port_.Send(big.data(), 2200));
    EXPECT_EQ(pty_.read(2200, 3000ms), big);
    EXPECT_EQ(progressCalls,
              (std::vector<std::pair<int, int>>{{1051, 2200}, {2101, 2200}, {2200, 2200}}));

    // Refusing at the first report stops before the chunk at offset 1050.
    progressCalls.clear();
    abortAfterFirstReport = true;
    EXPECT_FALSE(port_.Send(big.data(), 2200));
    EXPECT_EQ(pty_.drain(200ms), Bytes(big.begin(), big.begin() + 1050));

    // Nothing to send: the callback's answer for (0, 0).
    progressCalls.clear();
    EXPECT_TRUE(port_.Send(big.data(), 0));
    EXPECT_EQ(progressCalls, (std::vector<std::pair<int, int>>{{0, 0}}));
    port_.SendProgressCallback = nullptr;

    char text[] = "Enter Progmode\r\n";
    EXPECT_TRUE(port_.Send(text));
    EXPECT_EQ(pty_.drain(200ms), bytesOf("Enter Progmode\r\n"));
}

TEST_F(RS232Pty, FixedLengthReceive) {
    unsigned char buf[8] = {};
    EXPECT_TRUE(port_.Receive(buf, 0, 10));
    pty_.write({1, 2, 3, 4, 5});
    EXPECT_TRUE(port_.Receive(buf, 5, 500));
    EXPECT_EQ(Bytes(buf, buf + 5), (Bytes{1, 2, 3, 4, 5}));

    // Two of three bytes: false, the two stay in the buffer, after about 2 x timeout.
    std::memset(buf, 0xEE, sizeof buf);
    pty_.write({7, 8});
    auto start = Clock::now();
    EXPECT_FALSE(port_.Receive(buf, 3, 150));
    long long took = msSince(start);
    EXPECT_EQ(Bytes(buf, buf + 3), (Bytes{7, 8, 0}));
    EXPECT_GE(took, 280);
    EXPECT_LT(took, 1500);
    std::printf("[ measured ] silent 1-byte read with timeout 150 ms took %lld ms\n", took);
}

TEST_F(RS232Pty, CollectingReceive) {
    unsigned char* data = nullptr;
    int length = -1;
    auto start = Clock::now();
    EXPECT_FALSE(port_.Receive(&data, &length, 100));
    long long took = msSince(start);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(length, 0);
    EXPECT_GE(took, 180);
    EXPECT_LT(took, 1500);

    Bytes sent = pattern(120);
    pty_.write(sent);
    ASSERT_TRUE(port_.Receive(&data, &length, 100));
    ASSERT_EQ(length, 120);
    EXPECT_EQ(Bytes(data, data + length), sent);
    std::free(data);

    // Bytes that keep coming within the time-out are collected into one reply.
    qwtest::ScriptedPeer peer(pty_);
    peer.reply({1, 2}).delay(100ms).reply({3}).delay(100ms).reply({4});
    peer.start();
    ASSERT_TRUE(port_.Receive(&data, &length, 150));
    EXPECT_EQ(Bytes(data, data + length), (Bytes{1, 2, 3, 4}));
    std::free(data);
    EXPECT_TRUE(peer.finish());
}

TEST_F(RS232Pty, ReceiveLine) {
    unsigned char* data = nullptr;
    int length = 0;
    pty_.write(bytesOf("OK\r\n"));
    ASSERT_TRUE(port_.ReceiveLine(&data, &length, 200));
    EXPECT_EQ(length, 4);
    EXPECT_EQ(std::memcmp(data, "OK\r\n", 5), 0);  // zero-terminated
    std::free(data);

    // A line that arrives in pieces; what follows the terminator stays for the next call.
    qwtest::ScriptedPeer peer(pty_);
    peer.reply(bytesOf("HEL")).delay(80ms).reply(bytesOf("LO\r")).delay(80ms).reply(bytesOf("\nX"));
    peer.start();
    ASSERT_TRUE(port_.ReceiveLine(&data, &length, 200));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), static_cast<std::size_t>(length)),
              "HELLO\r\n");
    std::free(data);
    EXPECT_TRUE(peer.finish());
    unsigned char x = 0;
    EXPECT_TRUE(port_.Receive(&x, 1, 200));
    EXPECT_EQ(x, 'X');

    // A zero byte hides the terminator after it: the line never completes.
    pty_.write({'A', 0, 'B', '\r', '\n'});
    length = 77;
    EXPECT_FALSE(port_.ReceiveLine(&data, &length, 100));
    EXPECT_EQ(length, 0);

    // Other terminators; the empty one completes after the first byte.
    port_.LineTerminator = "";
    pty_.write(bytesOf("QR"));
    ASSERT_TRUE(port_.ReceiveLine(&data, &length, 200));
    EXPECT_EQ(length, 1);
    EXPECT_EQ(data[0], 'Q');
    std::free(data);
    port_.LineTerminator = ">";
    pty_.write(bytesOf("prompt> "));
    ASSERT_TRUE(port_.ReceiveLine(&data, &length, 200));
    EXPECT_EQ(length, 8);  // "R" left over from before, then "prompt>"
    EXPECT_STREQ(reinterpret_cast<char*>(data), "Rprompt>");
    std::free(data);
    EXPECT_TRUE(port_.Receive(&x, 1, 200));
    EXPECT_EQ(x, ' ');

    // A terminator longer than 100 characters never matches.
    std::string longTerminator(101, 'z');
    port_.LineTerminator = longTerminator.c_str();
    pty_.write(bytesOf(std::string(120, 'z')));
    EXPECT_FALSE(port_.ReceiveLine(&data, &length, 100));

    // Lines longer than the 50-byte steps of the work buffer.
    port_.LineTerminator = "\n";
    std::string line(173, 'L');
    line += "\n";
    pty_.write(bytesOf(line));
    ASSERT_TRUE(port_.ReceiveLine(&data, &length, 200));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data)), line);
    std::free(data);
}

TEST_F(RS232Pty, DeviceGoingAwayEndsReadsAndWrites) {
    qwtest::ScriptedPeer peer(pty_);
    peer.delay(100ms).hangUp();
    peer.start();
    unsigned char byte = 0;
    auto start = Clock::now();
    EXPECT_FALSE(port_.Receive(&byte, 1, 3000));
    long long took = msSince(start);
    EXPECT_LT(took, 2000) << "a hang-up must end the read before its time-out";
    EXPECT_TRUE(peer.finish());
    Bytes data = pattern(60);
    EXPECT_FALSE(port_.Send(data.data(), 60));
    unsigned char* all = nullptr;
    int length = 0;
    EXPECT_FALSE(port_.Receive(&all, &length, 100));
    port_.Disconnect();
    EXPECT_FALSE(port_.IsConnected());
}

TEST(RS232Ports, ListingReplacesTheListContents) {
    RList<char*> ports;
    for (int i = 0; i < 3; ++i) {
        char* stale = static_cast<char*>(std::malloc(8));
        std::strcpy(stale, "COM99");
        ports.push_back(stale);
    }
    RS232 port;
    port.GetCOMPorts(&ports);  // the old texts are freed (the sanitizer build checks)
    for (char* name : ports) {
        EXPECT_EQ(std::strncmp(name, "/dev/", 5), 0) << name;
        EXPECT_STRNE(name, "COM99");
    }
    int first = ports.length();
    port.GetCOMPorts(&ports);
    EXPECT_EQ(ports.length(), first);
    for (char* name : ports) std::free(name);
}

}  // namespace
