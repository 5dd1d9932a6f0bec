// The link logic over the fake backend: what a pty cannot show (rejected settings, failing
// time-out calls, the exact platform calls, failures inside the background thread).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
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
    EXPECT_EQ(d.ByteSize, 8);
    EXPECT_EQ(d.Parity, 0);
    EXPECT_EQ(d.StopBits, 0);
    EXPECT_EQ(d.XonChar, 0x11);
    EXPECT_EQ(d.XoffChar, 0x13);
    EXPECT_EQ(d.fBinary, 1u);
    EXPECT_EQ(d.fParity, 0u);
    EXPECT_EQ(d.fOutX, 1u);
    EXPECT_EQ(d.fInX, 1u);
    EXPECT_EQ(d.fDtrControl, 0u);
    EXPECT_EQ(d.fRtsControl, 0u);
    EXPECT_EQ(d.fOutxCtsFlow + d.fOutxDsrFlow + d.fDsrSensitivity + d.fNull, 0u);
    EXPECT_EQ(d.fAbortOnError, 1u);
    // What the table does not name keeps the port's values.
    EXPECT_EQ(d.XonLim, 2048);
    EXPECT_EQ(d.XoffLim, 512);
    EXPECT_EQ(d.fTXContinueOnXoff, 1u);
    EXPECT_EQ(d.fErrorChar, 1u);
    EXPECT_EQ(d.ErrorChar, '?');
    EXPECT_EQ(d.EofChar, 0x1A);
    EXPECT_EQ(d.EvtChar, 0x7E);

    port.XonXoffFlowControl = false;
    ASSERT_TRUE(port.Connect(name));  // closes the first handle, opens a new one
    EXPECT_EQ(p.closedHandles.size(), 1u);
    EXPECT_EQ(p.lastSetState.fOutX + p.lastSetState.fInX, 0u);
}

TEST_F(Fake, RejectedSettingsLeaveTheClosedHandleInPlace) {
    for (bool failGet : {false, true}) {
        fake::reset();
        (failGet ? p.failGetState : p.failSetState) = true;
        RS232 port;
        EXPECT_FALSE(port.Connect(name));
        EXPECT_TRUE(port.IsConnected()) << failGet;
        ASSERT_EQ(p.closedHandles.size(), 1u);
        void* stale = p.closedHandles[0];
        port.Disconnect();  // closes the same handle again, then forgets it
        EXPECT_EQ(p.closedHandles, (std::vector<void*>{stale, stale}));
        EXPECT_FALSE(port.IsConnected());
    }
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

TEST_F(Fake, SendWritesFiftyByteChunks) {
    RS232 port;
    ASSERT_TRUE(port.Connect(name));
    std::vector<unsigned char> data(2200, 0x5A);
    EXPECT_TRUE(port.Send(data.data(), 120));
    ASSERT_EQ(p.writes.size(), 3u);
    EXPECT_EQ(p.writes[0].size(), 50u);
    EXPECT_EQ(p.writes[1].size(), 50u);
    EXPECT_EQ(p.writes[2].size(), 20u);
    EXPECT_EQ(p.writeSources[2], data.data() + 100);

    p.writes.clear();
    EXPECT_TRUE(port.Send(data.data(), 2200));
    EXPECT_EQ(p.writes.size(), 44u);

    // A failed write ends the send at once.
    p.writes.clear();
    p.writesBeforeFailure = 2;
    EXPECT_FALSE(port.Send(data.data(), 2200));
    EXPECT_EQ(p.writes.size(), 2u);
}

TEST_F(Fake, ReceiveSetsTheTimeoutsEveryTime) {
    RS232 port;
    ASSERT_TRUE(port.Connect(name));
    p.calls.clear();
    unsigned char buf[4];
    EXPECT_TRUE(port.Receive(buf, 0, 300));
    EXPECT_EQ(p.calls, (Calls{"getCommTimeouts", "setCommTimeouts"}));
    EXPECT_EQ(p.timeouts.ReadTotalTimeoutConstant, 300u);
    EXPECT_EQ(p.timeouts.WriteTotalTimeoutMultiplier, 300u);

    // ReceiveLine applies them once, and again through Receive for every byte.
    p.input = {'O', 'K', '\r', '\n'};
    p.setTimeoutsCalls = 0;
    unsigned char* line = nullptr;
    int length = 0;
    ASSERT_TRUE(port.ReceiveLine(&line, &length, 40));
    EXPECT_EQ(length, 4);
    EXPECT_EQ(p.setTimeoutsCalls, 1 + 4);
    std::free(line);

    // The collecting form: one read per byte, and one more that finds nothing.
    p.input.assign(120, 0x33);
    p.calls.clear();
    ASSERT_TRUE(port.Receive(&line, &length, 40));
    EXPECT_EQ(length, 120);
    EXPECT_EQ(p.count("read"), 121);
    std::free(line);
}

// --- The asynchronous link over the fake backend -------------------------------------------

std::atomic<int> disconnectCalls{0};
std::atomic<int> lastDisconnectCode{-1};
void onDisconnect(int code) {
    lastDisconnectCode = code;
    ++disconnectCalls;
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    auto until = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

std::size_t writeCount(fake::Port& p) {
    std::lock_guard<std::mutex> guard(p.lock);
    return p.writes.size();
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
        ASSERT_TRUE(waitFor([] { return disconnectCalls.load() > 0; }, 2000ms));
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
    ASSERT_TRUE(waitFor([&] { return writeCount(p) == 6; }, 3000ms));
    std::lock_guard<std::mutex> guard(p.lock);
    for (std::size_t i = 1; i < p.writeSources.size(); ++i)
        EXPECT_LT(p.writeSources[i - 1], p.writeSources[i]) << "message " << i;
}

TEST_F(Fake, AsyncConnectFailureStartsNothing) {
    p.failOpen = true;
    RS232Async link;
    EXPECT_FALSE(link.Connect(name));
    char text[] = "x";
    EXPECT_FALSE(link.Send(text));
    EXPECT_EQ(p.count("read"), 0);

    // A rejected configuration: Connect fails and no thread runs, but the port reports itself
    // connected, so messages are queued (and never sent).
    fake::reset();
    p.failSetState = true;
    EXPECT_FALSE(link.Connect(name));
    EXPECT_TRUE(link.Send(text));
    EXPECT_EQ(link.GetSendBufferUse(), 1);
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(p.count("read"), 0);
}

// --- Port listing (the POSIX sysfs scan) ------------------------------------------------------

TEST(PortListing, NaturalOrder) {
    using quelworks::detail::naturalLess;
    std::vector<std::string> names = {"ttyUSB10", "ttyS1", "ttyUSB2", "ttyACM0",
                                      "ttyS10",   "ttyS2", "ttyS0",   "ttyUSB02"};
    std::sort(names.begin(), names.end(), naturalLess);
    EXPECT_EQ(names, (std::vector<std::string>{"ttyACM0", "ttyS0", "ttyS1", "ttyS2", "ttyS10",
                                               "ttyUSB2", "ttyUSB02", "ttyUSB10"}));
    EXPECT_FALSE(naturalLess("ttyS1", "ttyS1"));
}

TEST(PortListing, OnlyDevicesWithHardware) {
    char root[] = "/tmp/qw-sysfs-XXXXXX";
    ASSERT_NE(::mkdtemp(root), nullptr);
    const std::string base = root;
    auto mk = [&](const std::string& name, bool device, const char* type) {
        std::string dir = base + "/" + name;
        ::mkdir(dir.c_str(), 0755);
        if (device) ::mkdir((dir + "/device").c_str(), 0755);
        if (type != nullptr) {
            FILE* f = std::fopen((dir + "/type").c_str(), "w");
            std::fputs(type, f);
            std::fclose(f);
        }
    };
    mk("tty0", false, nullptr);  // virtual console
    mk("ttyS0", true, "4\n");    // a 16550A
    mk("ttyS1", true, "0\n");    // 8250 placeholder
    mk("ttyUSB10", true, nullptr);
    mk("ttyUSB2", true, nullptr);
    mk("ttyACM0", true, nullptr);
    mk("ptmx", false, nullptr);
    EXPECT_EQ(
        quelworks::detail::listSerialDevices(base, "/dev"),
        (std::vector<std::string>{"/dev/ttyACM0", "/dev/ttyS0", "/dev/ttyUSB2", "/dev/ttyUSB10"}));
    EXPECT_TRUE(quelworks::detail::listSerialDevices(base + "/missing", "/dev").empty());
    std::string cleanup = "rm -rf '" + base + "'";
    EXPECT_EQ(std::system(cleanup.c_str()), 0);
}

}  // namespace
