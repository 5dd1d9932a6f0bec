// The one-connection flash (BootConnection) against the public Bootloader: the same bytes on the
// line, the same identity and image, but the port opened once instead of once per operation.
// Opens are counted with inotify on the pty the simulated device serves.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <asm/termbits.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "bootloader/boot_session.h"
#include "pty_server.h"
#include "quelworks/bootloader/bootloader.h"
#include "support/open_counter.h"

namespace {

using quelworks::BootConnection;
using quelworks::devsim::Device;
using quelworks::devsim::DeviceConfig;
using Bytes = std::vector<std::uint8_t>;

constexpr int kTimeout = 400;

// A simulated device on a pty, recording every byte it receives.
class Sim {
public:
    explicit Sim(const DeviceConfig& config) : server_(config) {
        std::string error;
        EXPECT_TRUE(server_.open(&error)) << error;
        server_.withDevice([](Device& d) { d.recordReceived(std::size_t{1} << 24); });
        server_.start();
    }
    std::string port() const { return server_.portPath(); }
    Bytes seen() {
        return server_.withDevice([](Device& d) { return d.received(); });
    }
    Bytes image() {
        return server_.withDevice([](Device& d) { return d.image(); });
    }
    std::uint32_t baudrate() {
        return server_.withDevice([](Device& d) { return d.baudrate(); });
    }

private:
    quelworks::devsim::PtyServer server_;
};

// The pty keeps the line settings its last user chose.
unsigned lineSpeed(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY);
    termios2 tio{};
    int result = fd < 0 ? -1 : ::ioctl(fd, TCGETS2, &tio);
    if (fd >= 0) ::close(fd);
    return result == 0 ? tio.c_ospeed : 0;
}

Bytes pattern(std::size_t size) {
    Bytes data(size);
    unsigned x = 12345;
    for (auto& b : data) b = static_cast<std::uint8_t>((x = x * 1103515245u + 12345u) >> 16);
    return data;
}

std::vector<std::pair<int, int>> g_progress;
void recordProgress(int done, int total) {
    g_progress.emplace_back(done, total);
}

struct Outcome {
    Bytes line;   // what the device received
    Bytes image;  // what it stored
    int opens = 0;
    bool ok = false;
    std::string serial, description;
    int deviceType = 0, firmware = 0, maxBaudrate = 0;
    std::uint32_t deviceBaud = 0;
    unsigned lineSpeed = 0;  // what the host's side of the line was set to last
    std::vector<std::pair<int, int>> progress;
};

Outcome withPublicClass(const DeviceConfig& config, bool maxBaud, const std::string& image) {
    Sim sim(config);
    qwtest::OpenCounter opens(sim.port());
    EXPECT_TRUE(opens.watching());
    Outcome out;
    g_progress.clear();
    {
        Bootloader boot(sim.port().c_str(), kTimeout);
        out.ok = boot.IsDeviceInfoAvailable();
        if (maxBaud) out.ok = out.ok && boot.SwitchToMaxBaudrate();
        out.ok = out.ok && boot.EnterBootloader();
        boot.ProgressCallback = recordProgress;
        out.ok = out.ok && boot.UpdateFirmware(0xBEEF, image.c_str());
        boot.GetDeviceType(&out.deviceType);
        boot.GetFirmwareVersion(&out.firmware);
        boot.GetMaxBaudrate(&out.maxBaudrate);
        char* text = nullptr;
        if (boot.GetSerialNumber(&text)) out.serial = text;
        std::free(text);
        text = nullptr;
        if (boot.GetDeviceDescription(&text)) out.description = text;
        std::free(text);
    }
    out.opens = opens.count();
    out.lineSpeed = lineSpeed(sim.port());
    out.line = sim.seen();
    out.image = sim.image();
    out.deviceBaud = sim.baudrate();
    out.progress = g_progress;
    return out;
}

Outcome withOneConnection(const DeviceConfig& config, bool maxBaud, const std::string& image) {
    Sim sim(config);
    qwtest::OpenCounter opens(sim.port());
    EXPECT_TRUE(opens.watching());
    Outcome out;
    g_progress.clear();
    {
        BootConnection boot(sim.port().c_str(), kTimeout);
        out.ok = boot.IsOpen();
        boot.Drain();
        out.ok = out.ok && boot.AcquireDeviceInfo();
        if (maxBaud) {
            out.ok = out.ok && boot.SwitchToMaxBaudrate();
            EXPECT_EQ(boot.Baudrate(), config.maxBaudrate);
        }
        out.ok = out.ok && boot.EnterBootloader();
        EXPECT_EQ(boot.BlockSize(), static_cast<int>(config.blockSize));
        boot.ProgressCallback = recordProgress;
        out.ok = out.ok && boot.UpdateFirmware(0xBEEF, image.c_str());
        out.deviceType = boot.DeviceType();
        out.firmware = boot.FirmwareVersion();
        out.maxBaudrate = boot.MaxBaudrate();
        out.serial = boot.SerialNumber();
        out.description = boot.Description();
    }
    out.opens = opens.count();
    out.lineSpeed = lineSpeed(sim.port());
    out.line = sim.seen();
    out.image = sim.image();
    out.deviceBaud = sim.baudrate();
    out.progress = g_progress;
    return out;
}

TEST(BootConnection, FlashesWithTheSameBytesAsThePublicClassOnOneOpen) {
    const std::string path = ::testing::TempDir() + "qw_boot_connection.bin";
    const Bytes image = pattern(1000);
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(image.data()), std::streamsize(image.size()));

    struct Case {
        const char* name;
        DeviceConfig config;
        bool maxBaud;
    };
    DeviceConfig polls;  // enters programming mode after two "not yet" polls, version 2 text
    polls.pollsBeforeProgramMode = 2;
    polls.blockSize = 300;
    DeviceConfig ready;  // already in programming mode: the block size comes with the identity
    ready.startInProgramMode = true;
    ready.bootloaderVersion = 1;
    ready.maxBaudrate = 230400;
    for (const Case& c : {Case{"enter with polls", polls, false}, Case{"max baud", polls, true},
                          Case{"already in program mode", ready, true}}) {
        SCOPED_TRACE(c.name);
        Outcome reference = withPublicClass(c.config, c.maxBaud, path);
        Outcome session = withOneConnection(c.config, c.maxBaud, path);
        ASSERT_TRUE(reference.ok);
        ASSERT_TRUE(session.ok);
        EXPECT_EQ(session.line, reference.line);
        EXPECT_EQ(session.image, image);
        EXPECT_EQ(reference.image, image);
        EXPECT_EQ(session.progress, reference.progress);
        EXPECT_EQ(session.deviceBaud, reference.deviceBaud);
        EXPECT_EQ(session.lineSpeed, reference.lineSpeed);
        EXPECT_EQ(session.lineSpeed, c.maxBaud ? c.config.maxBaudrate : 9600u);
        EXPECT_EQ(session.serial, reference.serial);
        EXPECT_EQ(session.description, reference.description);
        EXPECT_EQ(session.deviceType, reference.deviceType);
        EXPECT_EQ(session.firmware, reference.firmware);
        EXPECT_EQ(session.maxBaudrate, reference.maxBaudrate);
        // The public class connects for the drain, the identity, the switch, the entry (unless
        // the device is in programming mode already) and the update.
        int expected = 4 + (c.maxBaud ? 1 : 0) - (c.config.startInProgramMode ? 1 : 0);
        EXPECT_EQ(reference.opens, expected);
        EXPECT_EQ(session.opens, 1);
    }
    std::remove(path.c_str());
}

TEST(BootConnection, FailuresLeaveTheConnectionUsableAndAMissingPortIsNotOpen) {
    BootConnection none("/nonexistent/qw-port", kTimeout);
    EXPECT_FALSE(none.IsOpen());
    EXPECT_FALSE(none.AcquireDeviceInfo());
    EXPECT_FALSE(none.SwitchToMaxBaudrate());
    BootConnection empty("", kTimeout);
    EXPECT_FALSE(empty.IsOpen());

    // A refused switch keeps the line at 9600 and the next request still gets its answer.
    DeviceConfig config;
    config.wrongEchoFor = 0x1B;
    config.wrongEchoTimes = 1;
    Sim sim(config);
    BootConnection boot(sim.port().c_str(), kTimeout);
    ASSERT_TRUE(boot.IsOpen());
    boot.Drain();
    ASSERT_TRUE(boot.AcquireDeviceInfo());
    EXPECT_FALSE(boot.SwitchToMaxBaudrate());
    EXPECT_EQ(boot.Baudrate(), 9600u);
    EXPECT_TRUE(boot.SwitchToMaxBaudrate());
    EXPECT_EQ(boot.Baudrate(), 115200u);
    EXPECT_EQ(sim.baudrate(), 115200u);
    EXPECT_TRUE(boot.AcquireDeviceInfo());
    EXPECT_EQ(boot.SerialNumber(), "QW000042");
}

}  // namespace
