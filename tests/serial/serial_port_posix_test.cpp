// The POSIX port backend on a pty: the Win32 time-out rules, stale handles, interruption and the
// line settings, called directly.
#include <gtest/gtest.h>
#include <termios.h>

#include <chrono>
#include <thread>
#include <vector>

#include "platform/serial_port.h"
#include "support/pty_pair.h"

namespace {

using namespace std::chrono_literals;
using namespace quelworks::detail;
using quelworks::CommTimeouts;
using quelworks::DeviceControlBlock;
using qwtest::Bytes;
using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class PosixPort : public ::testing::Test {
protected:
    void SetUp() override {
        std::string path = "//./" + pty_.path();
        handle_ = openPort(path.c_str());
        ASSERT_NE(handle_, invalidPortHandle());
        DeviceControlBlock d{};
        ASSERT_TRUE(getCommState(handle_, &d));
        d.BaudRate = 9600;
        d.ByteSize = 8;
        ASSERT_TRUE(setCommState(handle_, &d));
    }
    void TearDown() override { closePort(handle_); }
    void setTimeouts(std::uint32_t interval, std::uint32_t multiplier, std::uint32_t constant,
                     std::uint32_t writeMultiplier = 0, std::uint32_t writeConstant = 0) {
        CommTimeouts t{interval, multiplier, constant, writeMultiplier, writeConstant};
        ASSERT_TRUE(setCommTimeouts(handle_, &t));
        CommTimeouts back{};
        ASSERT_TRUE(getCommTimeouts(handle_, &back));
        EXPECT_EQ(back.ReadTotalTimeoutConstant, constant);
    }
    // Reads up to `count` bytes; returns them and stores the time taken.
    Bytes read(std::uint32_t count, long long* took) {
        Bytes out(count);
        std::uint32_t got = 0;
        auto start = Clock::now();
        EXPECT_TRUE(readPort(handle_, out.data(), count, &got));
        *took = msSince(start);
        out.resize(got);
        return out;
    }
    qwtest::PtyPair pty_;
    PortHandle handle_ = invalidPortHandle();
};

TEST_F(PosixPort, TotalTimeoutIsMultiplierTimesCountPlusConstant) {
    long long took = 0;
    setTimeouts(0, 100, 50);
    EXPECT_TRUE(read(2, &took).empty());
    EXPECT_GE(took, 240);
    EXPECT_LT(took, 1000);
    std::printf("[ measured ] 2-byte read, multiplier 100, constant 50: %lld ms\n", took);

    // Enough bytes end the read at once.
    pty_.write({1, 2, 3});
    EXPECT_EQ(read(3, &took), (Bytes{1, 2, 3}));
    EXPECT_LT(took, 100);
}

TEST_F(PosixPort, IntervalEndsAReadAfterAGap) {
    setTimeouts(40, 0, 0);  // no total: waits for the first byte, then for gaps over 40 ms
    qwtest::ScriptedPeer peer(pty_);
    peer.delay(100ms).reply({'a'}).delay(10ms).reply({'b'}).delay(300ms).reply({'c'});
    peer.start();
    long long took = 0;
    EXPECT_EQ(read(10, &took), (Bytes{'a', 'b'}));
    EXPECT_GE(took, 140);
    EXPECT_LT(took, 350);
    EXPECT_TRUE(peer.finish());
    EXPECT_EQ(read(1, &took), (Bytes{'c'}));
}

TEST_F(PosixPort, WriteTimeoutReturnsWithTheBytesAccepted) {
    DeviceControlBlock d{};
    ASSERT_TRUE(getCommState(handle_, &d));
    d.fOutX = 1;
    d.XonChar = 0x11;
    d.XoffChar = 0x13;
    ASSERT_TRUE(setCommState(handle_, &d));
    pty_.write({0x13});  // XOFF: the port must stop sending
    std::this_thread::sleep_for(20ms);
    setTimeouts(0, 0, 0, 0, 150);
    std::vector<std::uint8_t> big(1 << 20, 0x55);
    std::uint32_t written = 0;
    auto start = Clock::now();
    EXPECT_TRUE(writePort(handle_, big.data(), static_cast<std::uint32_t>(big.size()), &written));
    long long took = msSince(start);
    EXPECT_LT(written, big.size());
    EXPECT_GE(took, 140);
    EXPECT_LT(took, 1000);
    std::printf("[ measured ] write stopped by XOFF, constant 150: %lld ms, %u bytes\n", took,
                written);
}

TEST_F(PosixPort, InterruptEndsABlockedRead) {
    setTimeouts(0, 0, 0);  // no time-out at all
    std::atomic<bool> result{true};
    std::thread reader([&] {
        std::uint8_t b;
        std::uint32_t got = 0;
        result = readPort(handle_, &b, 1, &got);
    });
    std::this_thread::sleep_for(50ms);
    auto start = Clock::now();
    interruptPort(handle_);
    reader.join();
    EXPECT_FALSE(result.load());
    EXPECT_LT(msSince(start), 500);
}

TEST_F(PosixPort, LineSettingsRoundTripAndInvalidOnesAreRejected) {
    DeviceControlBlock d{};
    ASSERT_TRUE(getCommState(handle_, &d));
    // A pty always runs 8 data bits without parity (the driver forces them), so only the rate
    // and the stop bits can be seen to change here.
    d.BaudRate = 19200;
    d.StopBits = 2;
    ASSERT_TRUE(setCommState(handle_, &d));
    DeviceControlBlock back{};
    ASSERT_TRUE(getCommState(handle_, &back));
    EXPECT_EQ(back.BaudRate, 19200u);
    EXPECT_EQ(back.ByteSize, 8);
    EXPECT_EQ(back.StopBits, 2);
    termios t{};
    ASSERT_EQ(::tcgetattr(pty_.slaveHolder(), &t), 0);
    EXPECT_EQ(t.c_cflag & (CSIZE | PARENB | CSTOPB), static_cast<tcflag_t>(CS8 | CSTOPB));
    EXPECT_EQ(::cfgetospeed(&t), static_cast<speed_t>(B19200));

    auto rejected = [&](void (*change)(DeviceControlBlock&)) {
        DeviceControlBlock bad = back;
        change(bad);
        return !setCommState(handle_, &bad);
    };
    EXPECT_TRUE(rejected([](DeviceControlBlock& b) { b.BaudRate = 0; }));
    EXPECT_TRUE(rejected([](DeviceControlBlock& b) { b.ByteSize = 9; }));
    EXPECT_TRUE(rejected([](DeviceControlBlock& b) { b.Parity = 5; }));
    EXPECT_TRUE(rejected([](DeviceControlBlock& b) { b.StopBits = 1; }));  // 1.5 needs 5 bits
    EXPECT_TRUE(rejected([](DeviceControlBlock& b) {
        b.fOutX = 1;
        b.XonChar = b.XoffChar = 0x11;
    }));
    ASSERT_TRUE(getCommState(handle_, &back));
    EXPECT_EQ(back.BaudRate, 19200u);  // a rejected block changes nothing
}

TEST(PosixPortHandles, StaleHandlesAndExclusiveOpen) {
    qwtest::PtyPair pty;
    PortHandle first = openPort(pty.path().c_str());
    ASSERT_NE(first, invalidPortHandle());
    EXPECT_EQ(openPort(pty.path().c_str()), invalidPortHandle());  // exclusive
    EXPECT_TRUE(closePort(first));
    EXPECT_FALSE(closePort(first));
    EXPECT_FALSE(closePort(invalidPortHandle()));
    std::uint8_t b = 0;
    std::uint32_t n = 0;
    EXPECT_FALSE(readPort(first, &b, 1, &n));
    EXPECT_FALSE(writePort(first, &b, 1, &n));
    CommTimeouts t{};
    EXPECT_FALSE(getCommTimeouts(first, &t));
    PortHandle second = openPort(pty.path().c_str());
    ASSERT_NE(second, invalidPortHandle());
    EXPECT_NE(second, first);  // handle values are never reused
    EXPECT_TRUE(closePort(second));
    EXPECT_EQ(openPort("//./"), invalidPortHandle());
    EXPECT_EQ(openPort(nullptr), invalidPortHandle());
}

}  // namespace
