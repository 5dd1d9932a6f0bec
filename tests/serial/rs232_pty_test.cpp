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

std::string text(const unsigned char* data, int length) {
    std::string s(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
    std::free(const_cast<unsigned char*>(data));
    return s;
}

class RS232Pty : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(port_.Connect(name_.data())); }
    qwtest::PtyPair pty_;
    std::string name_ = pty_.path();
    RS232 port_;
};

TEST(RS232Connect, BadNamesFailWithoutLeakingDescriptors) {
    const int before = qwtest::openDescriptorCount();
    RS232 port;
    EXPECT_EQ(port.PortName(), nullptr);
    EXPECT_FALSE(port.Connect());  // no name stored
    char missing[] = "/dev/quelworks-no-such-port";
    char missingShort[] = "ttyQW99";
    char devNull[] = "/dev/null";  // not a tty
    char empty[] = "";
    for (char* name : {missing, missingShort, devNull, empty}) {
        EXPECT_FALSE(port.Connect(name)) << name;
        EXPECT_FALSE(port.IsConnected()) << name;
    }
    EXPECT_FALSE(port.Connect(nullptr));
    EXPECT_EQ(qwtest::openDescriptorCount(), before);
}

// Connecting again reconfigures the line. A rejected rate leaves a closed but kept handle that
// reaches no other descriptor; the stored name serves a parameterless Connect.
TEST_F(RS232Pty, ReconnectAndRejectedRate) {
    port_.Baudrate = 250000;  // not a standard rate
    port_.XonXoffFlowControl = true;
    ASSERT_TRUE(port_.Connect(name_.data()));
    termios t{};
    ASSERT_EQ(::tcgetattr(pty_.slaveHolder(), &t), 0);
    EXPECT_EQ(t.c_iflag & (IXON | IXOFF), static_cast<tcflag_t>(IXON | IXOFF));
    EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ISIG), 0u);

    port_.Disconnect();
    const int before = qwtest::openDescriptorCount();
    port_.Baudrate = 0;
    EXPECT_FALSE(port_.Connect(name_.data()));
    EXPECT_TRUE(port_.IsConnected());
    EXPECT_EQ(qwtest::openDescriptorCount(), before);
    int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);  // may get the old descriptor number
    unsigned char byte = 0;
    EXPECT_FALSE(port_.Receive(&byte, 1, 10));
    EXPECT_FALSE(port_.Send(&byte, 1));
    port_.Disconnect();
    EXPECT_NE(::fcntl(fd, F_GETFD), -1) << "the stale handle closed someone else's descriptor";
    ::close(fd);

    port_.Baudrate = 115200;
    port_.XonXoffFlowControl = false;
    char* stored = port_.PortName();
    port_.PortName(stored);  // its own text: copied before the old one goes
    std::free(stored);
    ASSERT_TRUE(port_.Connect());
    ASSERT_EQ(::tcgetattr(pty_.slaveHolder(), &t), 0);
    EXPECT_EQ(::cfgetospeed(&t), static_cast<speed_t>(B115200));
    EXPECT_FALSE(t.c_iflag & (IXON | IXOFF));
}

TEST_F(RS232Pty, OpenIsExclusive) {
    RS232 second;
    EXPECT_FALSE(second.Connect(name_.data()));
    pid_t child = ::fork();  // another process is turned away too
    ASSERT_GE(child, 0);
    if (child == 0) ::_exit(RS232().Connect(name_.data()) ? 1 : 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a second process opened it";
    port_.Disconnect();
    EXPECT_TRUE(second.Connect(name_.data()));
}

std::vector<std::pair<int, int>> progressCalls;
bool abortAfterFirstReport = false;
bool recordProgress(int done, int total) {
    progressCalls.emplace_back(done, total);
    return !(abortAfterFirstReport && done < total);
}

TEST_F(RS232Pty, SendReportsProgressEvery1000Bytes) {
    Bytes big(2200);
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<std::uint8_t>(i * 7 + 3);
    port_.SendProgressCallback = recordProgress;
    EXPECT_TRUE(port_.Send(big.data(), 2200));
    EXPECT_EQ(pty_.read(2200, 3000ms), big);
    EXPECT_EQ(progressCalls,
              (std::vector<std::pair<int, int>>{{1051, 2200}, {2101, 2200}, {2200, 2200}}));
    // Refusing at the first report stops before the chunk at offset 1050.
    progressCalls.clear();
    abortAfterFirstReport = true;
    EXPECT_FALSE(port_.Send(big.data(), 2200));
    EXPECT_EQ(pty_.read(2200, 300ms), Bytes(big.begin(), big.begin() + 1050));
    // Nothing to send: the callback's answer for (0, 0).
    progressCalls.clear();
    EXPECT_TRUE(port_.Send(big.data(), 0));
    EXPECT_EQ(progressCalls, (std::vector<std::pair<int, int>>{{0, 0}}));
}

TEST_F(RS232Pty, ReceiveBothFormsAndTheirTimeouts) {
    // Two of three bytes: false after about 2 x timeout, the two stay in the buffer.
    unsigned char buf[3];
    std::memset(buf, 0xEE, sizeof buf);
    pty_.write({7, 8});
    auto start = Clock::now();
    EXPECT_FALSE(port_.Receive(buf, 3, 150));
    long long took = msSince(start);
    EXPECT_EQ(Bytes(buf, buf + 3), (Bytes{7, 8, 0}));
    EXPECT_GE(took, 280);
    EXPECT_LT(took, 1500);
    std::printf("[ measured ] silent 1-byte read with timeout 150 ms took %lld ms\n", took);

    unsigned char* data = nullptr;
    int length = -1;
    EXPECT_FALSE(port_.Receive(&data, &length, 100));
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(length, 0);
    // Bytes that keep coming within the time-out are collected into one reply.
    qwtest::ScriptedPeer peer(pty_);
    peer.reply(Bytes(120, 0x61)).delay(100ms).reply({3}).delay(100ms).reply({4});
    peer.start();
    ASSERT_TRUE(port_.Receive(&data, &length, 150));
    EXPECT_EQ(text(data, length), std::string(120, 'a') + "\x03\x04");
    EXPECT_TRUE(peer.finish());
}

TEST_F(RS232Pty, ReceiveLine) {
    unsigned char* data = nullptr;
    int length = 0;
    // A line longer than the work buffer's 50-byte steps, arriving in pieces; what follows the
    // terminator stays for the next call. The copy is zero-terminated.
    const std::string line = std::string(60, 'L') + "HELLO\r\n";
    qwtest::ScriptedPeer peer(pty_);
    peer.reply(bytesOf(line.substr(0, 63))).delay(80ms).reply(bytesOf(line.substr(63, 3)));
    peer.delay(80ms).reply(bytesOf("\nX"));
    peer.start();
    ASSERT_TRUE(port_.ReceiveLine(&data, &length, 200));
    EXPECT_EQ(data[length], 0);
    EXPECT_EQ(text(data, length), line);
    EXPECT_TRUE(peer.finish());
    unsigned char x = 0;
    EXPECT_TRUE(port_.Receive(&x, 1, 200));
    EXPECT_EQ(x, 'X');

    // A zero byte hides the terminator after it: the line never completes.
    pty_.write({'A', 0, 'B', '\r', '\n'});
    length = 77;
    EXPECT_FALSE(port_.ReceiveLine(&data, &length, 100));
    EXPECT_EQ(length, 0);

    // The empty terminator completes after the first byte; one longer than 100 never matches.
    port_.LineTerminator = "";
    pty_.write(bytesOf("QR"));
    ASSERT_TRUE(port_.ReceiveLine(&data, &length, 200));
    EXPECT_EQ(text(data, length), "Q");
    std::string longTerminator(101, 'z');
    port_.LineTerminator = longTerminator.c_str();
    pty_.write(bytesOf(std::string(120, 'z')));
    EXPECT_FALSE(port_.ReceiveLine(&data, &length, 100));
}

TEST_F(RS232Pty, DeviceGoingAwayEndsReadsAndWrites) {
    qwtest::ScriptedPeer peer(pty_);
    peer.delay(100ms).hangUp();
    peer.start();
    unsigned char byte = 0;
    auto start = Clock::now();
    EXPECT_FALSE(port_.Receive(&byte, 1, 3000));
    EXPECT_LT(msSince(start), 2000) << "a hang-up must end the read before its time-out";
    EXPECT_TRUE(peer.finish());
    Bytes data(60, 0x55);
    EXPECT_FALSE(port_.Send(data.data(), 60));
}

}  // namespace
