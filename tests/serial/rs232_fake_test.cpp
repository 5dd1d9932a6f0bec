// The link logic over the fake backend: what a pty cannot show (the exact platform calls and line
// settings, rejected settings, failing time-out calls, failures inside the background thread).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "platform/serial_ports_posix.h"
#include "quelworks/serial/rs232.h"
#include "quelworks/serial/rs232_async.h"
#include "serial/fake_platform.h"

namespace {

using namespace std::chrono_literals;
using Calls = std::vector<std::string>;

class Fake : public ::testing::Test {
protected:
    void SetUp() override { fake::reset(); }
    void TearDown() override { fake::reset(); }
    fake::Port& p = fake::port();
    char name[5] = "COM3";
};

template <typename Condition>
bool waitFor(Condition condition) {
    for (auto until = std::chrono::steady_clock::now() + 3s; !condition();) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

TEST_F(Fake, ConnectOpensTheDevicePathAndConfiguresTheLine) {
    RS232 port;
    port.Baudrate = 57600;
    port.XonXoffFlowControl = true;
    ASSERT_TRUE(port.Connect(name));
    EXPECT_EQ(p.openedPaths, (Calls{"//./COM3"}));
    EXPECT_EQ(p.calls, (Calls{"open", "getCommTimeouts", "setCommTimeouts", "getCommState",
                              "setCommState"}));
    const quelworks::CommTimeouts& t = p.timeouts;
    for (std::uint32_t v :
         {t.ReadIntervalTimeout, t.ReadTotalTimeoutMultiplier, t.ReadTotalTimeoutConstant,
          t.WriteTotalTimeoutMultiplier, t.WriteTotalTimeoutConstant})
        EXPECT_EQ(v, 1000u);
    const quelworks::DeviceControlBlock& d = p.lastSetState;
    EXPECT_EQ(d.DCBlength, 28u);
    EXPECT_EQ(d.BaudRate, 57600u);
    EXPECT_EQ((std::vector<int>{d.ByteSize, d.Parity, d.StopBits}), (std::vector<int>{8, 0, 0}));
    EXPECT_EQ(d.XonChar, 0x11);
    EXPECT_EQ(d.XoffChar, 0x13);
    EXPECT_EQ(d.fBinary + d.fOutX + d.fInX + d.fAbortOnError, 4u);  // all four set
    EXPECT_EQ(d.fDtrControl + d.fRtsControl + d.fParity + d.fOutxCtsFlow + d.fNull, 0u);
    EXPECT_EQ(d.XonLim, 2048);  // what the table does not name keeps the port's value
}

// A rejected configuration closes the handle but keeps it: the port still reports itself
// connected, and Disconnect closes the same handle again.
TEST_F(Fake, RejectedSettingsLeaveTheClosedHandleInPlace) {
    p.failSetState = true;
    RS232 port;
    EXPECT_FALSE(port.Connect(name));
    EXPECT_TRUE(port.IsConnected());
    ASSERT_EQ(p.closedHandles.size(), 1u);
    void* stale = p.closedHandles[0];
    port.Disconnect();
    EXPECT_EQ(p.closedHandles, (std::vector<void*>{stale, stale}));
    EXPECT_FALSE(port.IsConnected());
}

TEST_F(Fake, FailingTimeoutCallsCloseThePort) {
    // While connecting: the port is closed and forgotten.
    p.failGetTimeouts = true;
    RS232 port;
    EXPECT_FALSE(port.Connect(name));
    EXPECT_FALSE(port.IsConnected());
    EXPECT_EQ(p.count("close"), 2);  // once for the failure, once by ClosePort
    EXPECT_EQ(p.count("getCommState"), 0);

    // While receiving: closed, but the handle stays.
    fake::reset();
    ASSERT_TRUE(port.Connect(name));
    p.failSetTimeouts = true;
    unsigned char byte = 0;
    EXPECT_FALSE(port.Receive(&byte, 1, 10));
    EXPECT_EQ(p.count("close"), 1);
    EXPECT_EQ(p.count("read"), 0);
    EXPECT_TRUE(port.IsConnected());
}

// Send writes 50-byte chunks and stops at a failed write; the collecting Receive reads byte by
// byte, with one more read that finds nothing.
TEST_F(Fake, FiftyByteWritesAndSingleByteReads) {
    RS232 port;
    ASSERT_TRUE(port.Connect(name));
    std::vector<unsigned char> data(2200, 0x5A);
    EXPECT_TRUE(port.Send(data.data(), 120));
    ASSERT_EQ(p.writes.size(), 3u);
    EXPECT_EQ(p.writes[2].size(), 20u);
    EXPECT_EQ(p.writeSources[2], data.data() + 100);
    p.writesBeforeFailure = 2;
    EXPECT_FALSE(port.Send(data.data(), 2200));
    EXPECT_EQ(p.writes.size(), 5u);

    p.input.assign(120, 0x33);
    p.calls.clear();
    unsigned char* reply = nullptr;
    int length = 0;
    ASSERT_TRUE(port.Receive(&reply, &length, 40));
    EXPECT_EQ(length, 120);
    EXPECT_EQ(p.count("read"), 121);
    EXPECT_EQ(p.timeouts.ReadTotalTimeoutConstant, 40u);
    std::free(reply);
}

std::atomic<int> disconnectCalls{0};
std::atomic<int> lastDisconnectCode{-1};
void onDisconnect(int code) {
    lastDisconnectCode = code;
    ++disconnectCalls;
}

TEST_F(Fake, AsyncFailedWriteDropsTheLinkOnce) {
    p.emptyReadTime = 20ms;
    p.writesBeforeFailure = 0;
    disconnectCalls = 0;
    {
        RS232Async link;
        link.DisconnectCallback = onDisconnect;
        ASSERT_TRUE(link.Connect(name));
        char text[] = "ping";
        EXPECT_TRUE(link.Send(text));
        EXPECT_TRUE(link.Send(text));
        ASSERT_TRUE(waitFor([] { return disconnectCalls.load() > 0; }));
        std::this_thread::sleep_for(150ms);  // the thread has ended: no second report
        EXPECT_EQ(disconnectCalls.load(), 1);
        EXPECT_EQ(lastDisconnectCode.load(), 0);
        EXPECT_EQ(link.GetSendBufferUse(), 0);  // the drop emptied the queue
        EXPECT_FALSE(link.Send(text));          // and closed the port
        EXPECT_TRUE(link.IsConnected());
    }
    EXPECT_EQ(disconnectCalls.load(), 1);
}

TEST_F(Fake, AsyncSendsTheLowestAddressFirst) {
    p.emptyReadTime = 30ms;
    RS232Async link;
    ASSERT_TRUE(link.Connect(name));
    std::this_thread::sleep_for(10ms);  // the thread is now waiting in its first read
    for (int i = 0; i < 6; ++i) {
        std::string text = "message " + std::to_string(i);
        ASSERT_TRUE(link.Send(text.data()));
    }
    ASSERT_TRUE(waitFor([&] {
        std::lock_guard<std::mutex> guard(p.lock);
        return p.writes.size() == 6;
    }));
    std::lock_guard<std::mutex> guard(p.lock);
    for (std::size_t i = 1; i < p.writeSources.size(); ++i)
        EXPECT_LT(p.writeSources[i - 1], p.writeSources[i]) << "message " << i;
}

// A rejected configuration: Connect fails and no thread runs, but the port reports itself
// connected, so messages are queued (and never sent).
TEST_F(Fake, AsyncRejectedConfigurationQueuesWithoutAThread) {
    p.failSetState = true;
    RS232Async link;
    EXPECT_FALSE(link.Connect(name));
    char text[] = "x";
    EXPECT_TRUE(link.Send(text));
    EXPECT_EQ(link.GetSendBufferUse(), 1);
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(p.count("read"), 0);
}

// The POSIX listing: only entries with hardware behind them, in natural order.
TEST(PortListing, OnlyDevicesWithHardwareInNaturalOrder) {
    char root[] = "/tmp/qw-sysfs-XXXXXX";
    ASSERT_NE(::mkdtemp(root), nullptr);
    const std::string base = root;
    auto mk = [&](const std::string& name, bool device, const char* type) {
        ::mkdir((base + "/" + name).c_str(), 0755);
        if (device) ::mkdir((base + "/" + name + "/device").c_str(), 0755);
        if (FILE* f = type ? std::fopen((base + "/" + name + "/type").c_str(), "w") : nullptr) {
            std::fputs(type, f);
            std::fclose(f);
        }
    };
    mk("tty0", false, nullptr);  // virtual console
    mk("ttyS0", true, "4\n");    // a 16550A
    mk("ttyS1", true, "0\n");    // 8250 placeholder
    for (const char* usb : {"ttyUSB10", "ttyUSB2", "ttyS10", "ttyACM0"}) mk(usb, true, nullptr);
    EXPECT_EQ(quelworks::detail::listSerialDevices(base, "/dev"),
              (std::vector<std::string>{"/dev/ttyACM0", "/dev/ttyS0", "/dev/ttyS10", "/dev/ttyUSB2",
                                        "/dev/ttyUSB10"}));
    EXPECT_TRUE(quelworks::detail::listSerialDevices(base + "/missing", "/dev").empty());
    EXPECT_EQ(std::system(("rm -rf '" + base + "'").c_str()), 0);
    EXPECT_FALSE(quelworks::detail::naturalLess("ttyS1", "ttyS1"));
    EXPECT_TRUE(quelworks::detail::naturalLess("ttyUSB2", "ttyUSB02"));
}

}  // namespace
