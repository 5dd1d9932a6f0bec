// The serial links and the bootloader client against the simulated device on a real port name:
// a pty path on Linux, a COM port that Wine maps to such a pty on Windows. run-port-tests.sh starts
// the devices and passes their ports in the environment:
//   QW_TEST_PORT         a device with the identity below, writing each received image to
//   QW_TEST_IMAGE_OUT    this file
//   QW_TEST_PORT_SILENT  a device that never answers
//   QW_TEST_PORT_REJECT  a device that refuses the second firmware block
// Without them every test here is skipped with a message.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#ifdef _WIN32
#include "platform/windows_include.h"
#endif

#include "quelworks/quelworks.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

// The identity run-port-tests.sh gives the default device.
constexpr int kType = 291;
constexpr int kSubType = 2;
constexpr int kRevision = 3;
constexpr int kFirmware = 261;
constexpr int kBootloaderVersion = 2;
constexpr int kMaxBaud = 115200;
const char* const kSerial = "QW123456";
const char* const kDescription = "port test device";

std::string env(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// Wine runs Windows programs on a Linux kernel; what it cannot emulate on a pty (exclusive open,
// modem lines, non-standard rates) is only checked on real Windows.
bool runningUnderWine() {
#ifdef _WIN32
    HMODULE ntdll = GetModuleHandleA("ntdll.dll");
    return ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
#else
    return false;
#endif
}

// A path the test program can open: Wine maps the Linux file system to drive Z:.
std::string localPath(std::string path) {
#ifdef _WIN32
    if (!path.empty() && path[0] == '/') path = "Z:" + path;
#endif
    return path;
}

Bytes readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

#define QW_REQUIRE_PORT(var, name)                                          \
    const std::string var = env(name);                                      \
    if (var.empty()) {                                                      \
        GTEST_SKIP() << name                                                \
            " is not set: run through tests/port/run-port-tests.sh, which " \
            "starts the simulated device";                                  \
    }

TEST(PortRawLink, AnswersAQueryWithItsEcho) {
    QW_REQUIRE_PORT(port, "QW_TEST_PORT");
    RS232 link;
    ASSERT_TRUE(link.Connect(const_cast<char*>(port.c_str())));
    unsigned char request = 0x17;  // bootloader version
    ASSERT_TRUE(link.Send(&request, 1));
    unsigned char reply[3] = {};
    ASSERT_TRUE(link.Receive(reply, 3, 1000));
    EXPECT_EQ(reply[0], 0x17);
    EXPECT_EQ((reply[1] << 8) | reply[2], kBootloaderVersion);
    link.Disconnect();
    EXPECT_FALSE(link.IsConnected());
}

TEST(PortRawLink, ConnectsAtHighRatesAndWithSoftwareFlowControl) {
    QW_REQUIRE_PORT(port, "QW_TEST_PORT");
    for (std::uint32_t rate : {9600u, 115200u, 921600u}) {
        RS232 link;
        link.Baudrate = rate;
        link.XonXoffFlowControl = (rate == 115200u);
        ASSERT_TRUE(link.Connect(const_cast<char*>(port.c_str()))) << rate;
        unsigned char request = 0x16;  // firmware version
        ASSERT_TRUE(link.Send(&request, 1));
        unsigned char reply[3] = {};
        ASSERT_TRUE(link.Receive(reply, 3, 1000)) << rate;
        EXPECT_EQ((reply[1] << 8) | reply[2], kFirmware);
        link.Disconnect();
    }
}

TEST(PortRawLink, ReceiveTimesOutOnASilentDevice) {
    QW_REQUIRE_PORT(port, "QW_TEST_PORT_SILENT");
    RS232 link;
    ASSERT_TRUE(link.Connect(const_cast<char*>(port.c_str())));
    unsigned char request = 0x11;
    ASSERT_TRUE(link.Send(&request, 1));
    unsigned char reply[3] = {};
    const auto start = Clock::now();
    EXPECT_FALSE(link.Receive(reply, 3, 100));
    const auto elapsed = Clock::now() - start;
    // One byte waits up to twice the time-out before the read gives up.
    EXPECT_GE(elapsed, std::chrono::milliseconds(150));
    EXPECT_LT(elapsed, std::chrono::milliseconds(3000));

    unsigned char* data = nullptr;
    int length = -1;
    EXPECT_FALSE(link.Receive(&data, &length, 50));
    std::free(data);
    link.Disconnect();
}

TEST(PortListing, ListsTheTestPort) {
    QW_REQUIRE_PORT(port, "QW_TEST_PORT");
#ifndef _WIN32
    GTEST_SKIP() << "a pty is not a serial device the system lists; the Linux listing is tested "
                    "with a fake /sys tree";
#endif
    RS232 link;
    RList<char*> ports;
    link.GetCOMPorts(&ports);
    bool found = false;
    for (Iter<char*> it = ports.begin(); it != ports.end(); ++it) {
        if (port == *it) found = true;
        std::free(*it);
    }
    ports.free();
    EXPECT_TRUE(found) << port << " is not in the listing";
}

TEST(PortExclusiveOpen_WindowsHardwareOnly, SecondConnectFails) {
    QW_REQUIRE_PORT(port, "QW_TEST_PORT");
    if (runningUnderWine()) {
        GTEST_SKIP() << "Wine opens a pty twice; exclusive open is checked on real Windows";
    }
    RS232 first;
    RS232 second;
    ASSERT_TRUE(first.Connect(const_cast<char*>(port.c_str())));
    EXPECT_FALSE(second.Connect(const_cast<char*>(port.c_str())));
    first.Disconnect();
    EXPECT_TRUE(second.Connect(const_cast<char*>(port.c_str())));
    second.Disconnect();
}

TEST(PortBootloader, ReadsTheIdentity) {
    QW_REQUIRE_PORT(port, "QW_TEST_PORT");
    Bootloader device(const_cast<char*>(port.c_str()));
    ASSERT_TRUE(device.IsDeviceInfoAvailable());
    int value = 0;
    EXPECT_TRUE(device.GetDeviceType(&value));
    EXPECT_EQ(value, kType);
    device.GetSubDeviceType(&value);
    EXPECT_EQ(value, kSubType);
    device.GetRevision(&value);
    EXPECT_EQ(value, kRevision);
    device.GetFirmwareVersion(&value);
    EXPECT_EQ(value, kFirmware);
    device.GetBootloaderVersion(&value);
    EXPECT_EQ(value, kBootloaderVersion);
    device.GetMaxBaudrate(&value);
    EXPECT_EQ(value, kMaxBaud);
    Bootloader::DeviceProgrammingState mode = Bootloader::InProgramMode;
    device.GetProgramMode(&mode);
    EXPECT_EQ(mode, Bootloader::NotInProgramMode);
    char* text = nullptr;
    ASSERT_TRUE(device.GetSerialNumber(&text));
    EXPECT_STREQ(text, kSerial);
    std::free(text);
    ASSERT_TRUE(device.GetDeviceDescription(&text));
    EXPECT_STREQ(text, kDescription);
    std::free(text);
}

class PortFlash : public ::testing::Test {
protected:
    void SetUp() override {
        std::mt19937 random(20261122);
        image.resize(3 * 1024 + 77);
        for (auto& b : image) b = static_cast<unsigned char>(random());
        imagePath = (std::filesystem::temp_directory_path() /
                     ("qw-port-image-" + std::to_string(std::rand()) + ".bin"))
                        .string();
        std::ofstream out(imagePath, std::ios::binary);
        out.write(reinterpret_cast<const char*>(image.data()),
                  static_cast<std::streamsize>(image.size()));
    }
    void TearDown() override { std::filesystem::remove(imagePath); }

    Bytes image;
    std::string imagePath;
};

std::vector<std::pair<int, int>> g_progress;
void recordProgress(int done, int total) {
    g_progress.emplace_back(done, total);
}

TEST_F(PortFlash, WritesTheImageByteForByte) {
    QW_REQUIRE_PORT(port, "QW_TEST_PORT");
    const std::string imageOut = localPath(env("QW_TEST_IMAGE_OUT"));
    ASSERT_FALSE(imageOut.empty()) << "QW_TEST_IMAGE_OUT is not set";
    std::filesystem::remove(imageOut);

    Bootloader device(const_cast<char*>(port.c_str()));
    ASSERT_TRUE(device.IsDeviceInfoAvailable());
    EXPECT_TRUE(device.SwitchToMaxBaudrate());
    ASSERT_TRUE(device.EnterBootloader());
    g_progress.clear();
    device.ProgressCallback = recordProgress;
    ASSERT_TRUE(device.UpdateFirmware(7, const_cast<char*>(imagePath.c_str())));
    ASSERT_FALSE(g_progress.empty());
    EXPECT_EQ(g_progress.back().first, g_progress.back().second);

    // The device writes the image once its last block is accepted; give the file a moment.
    Bytes written;
    for (int i = 0; i < 50 && written != image; ++i) {
        written = readFile(imageOut);
        if (written != image) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(written.size(), image.size());
    EXPECT_TRUE(written == image) << "the device received a different image";
}

TEST_F(PortFlash, ARejectedBlockFailsTheUpdate) {
    QW_REQUIRE_PORT(port, "QW_TEST_PORT_REJECT");
    Bootloader device(const_cast<char*>(port.c_str()));
    ASSERT_TRUE(device.IsDeviceInfoAvailable());
    ASSERT_TRUE(device.EnterBootloader());
    EXPECT_FALSE(device.UpdateFirmware(7, const_cast<char*>(imagePath.c_str())));
}

// Replies reach the asynchronous link's callback on its own thread.
std::mutex g_asyncMutex;
std::condition_variable g_asyncCv;
std::vector<Bytes> g_asyncReplies;
void onAsyncReply(unsigned char* data, int length) {
    std::lock_guard<std::mutex> lock(g_asyncMutex);
    g_asyncReplies.emplace_back(data, data + length);
    g_asyncCv.notify_all();
}

TEST(PortAsyncLink, DeliversOneCallbackPerFramedReply) {
    QW_REQUIRE_PORT(port, "QW_TEST_PORT");
    {
        std::lock_guard<std::mutex> lock(g_asyncMutex);
        g_asyncReplies.clear();
    }
    RS232Async link;
    link.ReceiveCallback = onAsyncReply;
    link.AddCommand(0x17, 3);
    link.AddCommand(0x1A, 5);
    ASSERT_TRUE(link.Connect(const_cast<char*>(port.c_str())));
    unsigned char version = 0x17;
    unsigned char baud = 0x1A;
    ASSERT_TRUE(link.Send(&version, 1));
    ASSERT_TRUE(link.Send(&baud, 1));
    {
        std::unique_lock<std::mutex> lock(g_asyncMutex);
        g_asyncCv.wait_for(lock, std::chrono::seconds(5),
                           [] { return g_asyncReplies.size() >= 2; });
        ASSERT_EQ(g_asyncReplies.size(), 2u);
        // Both requests wait in one queue; whichever went first, each reply comes whole.
        for (const Bytes& reply : g_asyncReplies) {
            if (reply[0] == 0x17) {
                ASSERT_EQ(reply.size(), 3u);
                EXPECT_EQ((reply[1] << 8) | reply[2], kBootloaderVersion);
            } else {
                ASSERT_EQ(reply[0], 0x1A);
                ASSERT_EQ(reply.size(), 5u);
                EXPECT_EQ((reply[1] << 24) | (reply[2] << 16) | (reply[3] << 8) | reply[4],
                          kMaxBaud);
            }
        }
    }
    link.Disconnect();
}

}  // namespace
