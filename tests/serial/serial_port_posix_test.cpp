// The POSIX port backend on a pty, called directly: the Win32 time-out rules.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "platform/serial_port.h"
#include "support/pty_pair.h"

namespace {

using namespace std::chrono_literals;
using namespace quelworks::detail;
using Clock = std::chrono::steady_clock;

long long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// A read ends after multiplier x count + constant ms, or at the first gap after a byte longer than
// the interval. A write the line cannot take (nobody reads the far end) ends at its time-out,
// successfully, with the bytes accepted so far.
TEST(PosixPort, TimeoutRules) {
    qwtest::PtyPair pty;
    PortHandle handle = openPort(("//./" + pty.path()).c_str());
    ASSERT_NE(handle, invalidPortHandle());
    quelworks::DeviceControlBlock dcb{};
    ASSERT_TRUE(getCommState(handle, &dcb));
    dcb.BaudRate = 9600;
    ASSERT_TRUE(setCommState(handle, &dcb));
    quelworks::CommTimeouts timeouts[] = {
        {0, 100, 50, 0, 0}, {40, 0, 2000, 0, 0}, {0, 0, 0, 0, 150}};

    ASSERT_TRUE(setCommTimeouts(handle, &timeouts[0]));
    std::uint8_t buf[10];
    std::uint32_t got = 99;
    auto start = Clock::now();
    EXPECT_TRUE(readPort(handle, buf, 2, &got));
    long long took = msSince(start);
    EXPECT_EQ(got, 0u);
    EXPECT_GE(took, 240);
    EXPECT_LT(took, 1000);
    std::printf("[ measured ] 2-byte read, multiplier 100, constant 50: %lld ms\n", took);

    ASSERT_TRUE(setCommTimeouts(handle, &timeouts[1]));
    qwtest::ScriptedPeer peer(pty);
    peer.delay(100ms).reply({'a'}).delay(10ms).reply({'b'}).delay(300ms).reply({'c'});
    peer.start();
    start = Clock::now();
    EXPECT_TRUE(readPort(handle, buf, 10, &got));
    took = msSince(start);
    EXPECT_EQ(got, 2u);
    EXPECT_GE(took, 140);
    EXPECT_LT(took, 350);
    EXPECT_TRUE(peer.finish());

    ASSERT_TRUE(setCommTimeouts(handle, &timeouts[2]));
    std::vector<std::uint8_t> big(1 << 20, 0x55);
    start = Clock::now();
    EXPECT_TRUE(writePort(handle, big.data(), static_cast<std::uint32_t>(big.size()), &got));
    took = msSince(start);
    EXPECT_LT(got, big.size());
    EXPECT_GE(took, 140);
    EXPECT_LT(took, 1000);
    EXPECT_TRUE(closePort(handle));
}

}  // namespace
