// The bootloader client against the simulated device over a real pty, checking what the client
// makes of the device's answers and the exact bytes the device saw.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <asm/termbits.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "pty_server.h"
#include "quelworks/bootloader/bootloader.h"
#include "quelworks/serial/rs232.h"
#include "support/pty_pair.h"

namespace {

using quelworks::devsim::Device;
using quelworks::devsim::DeviceConfig;
using Bytes = std::vector<std::uint8_t>;

// Replies come within milliseconds; the time-out only bounds the wait for one meant not to come.
constexpr int kTimeout = 400;
const std::string kIdentity = "17 11 14 16 1a 15 19 18 1c";  // the queries, in order

Bytes cat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A simulated device served on a pty by a thread of the test.
class Sim {
public:
    explicit Sim(const DeviceConfig& config = {}) : server_(config) {
        std::string error;
        EXPECT_TRUE(server_.open(&error)) << error;
        port_ = server_.portPath();
        server_.withDevice([](Device& d) { d.recordReceived(std::size_t{1} << 24); });
        server_.start();
    }
    char* port() { return port_.data(); }
    template <typename F>
    auto with(F&& f) {
        return server_.withDevice(std::forward<F>(f));
    }
    // Every byte the device received since the last call.
    Bytes seen() {
        return with([](Device& d) {
            Bytes bytes = d.received();
            d.clearReceived();
            return bytes;
        });
    }
    Bytes image() {
        return with([](Device& d) { return d.image(); });
    }

private:
    quelworks::devsim::PtyServer server_;
    std::string port_;
};

struct TempFile {
    std::string path;
    TempFile(const std::string& name, const Bytes& content)
        : path(::testing::TempDir() + "qw_boot_" + name) {
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(content.data()), std::streamsize(content.size()));
    }
    ~TempFile() { std::remove(path.c_str()); }
    char* name() { return path.data(); }
};

Bytes pattern(std::size_t size) {
    Bytes data(size);
    unsigned x = static_cast<unsigned>(size);
    for (auto& b : data) b = static_cast<std::uint8_t>((x = x * 1103515245u + 12345u) >> 16);
    return data;
}

Bytes frame(const Bytes& image, std::size_t offset, std::size_t length) {
    Bytes block(image.begin() + offset, image.begin() + offset + length);
    std::uint16_t crc = Device::checksum(block.data(), block.size());
    return cat(block, {static_cast<std::uint8_t>(crc >> 8), static_cast<std::uint8_t>(crc)});
}

std::string hex(const Bytes& bytes) {
    std::string text;
    char digits[4];
    for (std::uint8_t b : bytes) text += (std::snprintf(digits, 4, " %02x", b), digits);
    return text.empty() ? text : text.substr(1);
}

std::string take(char* text) {
    std::string s = text != nullptr ? text : "<null>";
    std::free(text);
    return s;
}

// The pty keeps the line settings the client chose last.
unsigned lineSpeed(const char* path) {
    int fd = ::open(path, O_RDWR | O_NOCTTY);
    termios2 tio{};
    int result = fd < 0 ? -1 : ::ioctl(fd, TCGETS2, &tio);
    if (fd >= 0) ::close(fd);
    return result == 0 ? tio.c_ospeed : 0;
}

std::vector<std::pair<int, int>> g_progress;
void recordProgress(int done, int total) {
    g_progress.emplace_back(done, total);
}

TEST(Bootloader, ReadsTheIdentityInItsFixedOrder) {
    DeviceConfig config;
    config.subType = 0x0304;
    config.serialNumber = "SN123456";
    config.maxBaudrate = 921600;
    Sim sim(config);
    Bootloader boot(sim.port(), kTimeout);
    ASSERT_TRUE(boot.IsDeviceInfoAvailable());
    EXPECT_EQ(hex(sim.seen()), kIdentity);  // no 0x1F: the device runs its application

    const std::pair<bool (Bootloader::*)(int*), int> fields[] = {
        {&Bootloader::GetDeviceType, 0x0A02},   {&Bootloader::GetSubDeviceType, 0x0304},
        {&Bootloader::GetRevision, 7},          {&Bootloader::GetFirmwareVersion, 0x0105},
        {&Bootloader::GetBootloaderVersion, 2}, {&Bootloader::GetMaxBaudrate, 921600}};
    for (const auto& [get, expected] : fields) {
        int value = -1;
        EXPECT_TRUE((boot.*get)(&value));
        EXPECT_EQ(value, expected);
    }
    char* text = nullptr;
    ASSERT_TRUE(boot.GetSerialNumber(&text));
    EXPECT_EQ(take(text), "SN123456");
    ASSERT_TRUE(boot.GetDeviceDescription(&text));
    EXPECT_EQ(take(text), config.description);

    // A second call asks again.
    EXPECT_TRUE(boot.AcquireDeviceInfo());
    EXPECT_EQ(hex(sim.seen()), kIdentity);
}

TEST(Bootloader, IdentityQuirksAndFaults) {
    struct Case {
        const char* name;
        bool ok;
        std::string sent;
        int type, subType;
        void (*set)(DeviceConfig&);
    };
    const Case cases[] = {
        {"one-byte type, first echo wrong: asked again for the short reply", true,
         "17 11 11 14 16 1a 15 19 18 1c", 0x2A, 3,
         [](DeviceConfig& c) {
             c.deviceType = 0x2A, c.oneByteType = true, c.wrongEchoFor = 0x11, c.wrongEchoTimes = 1;
         }},
        {"one-byte type, right echo: the echo decides, the missing byte reads as zero", true,
         kIdentity, 0x2A00, 3, [](DeviceConfig& c) { c.deviceType = 0x2A, c.oneByteType = true; }},
        {"type 0 is not asked for its sub-type", true, "17 11 16 1a 15 19 18 1c", 0, 0,
         [](DeviceConfig& c) { c.deviceType = 0; }},
        {"the description's echo is not checked", true, kIdentity, 0x0A02, 3,
         [](DeviceConfig& c) { c.wrongEchoFor = 0x1C; }},
        {"in programming mode the program parameters follow", true, kIdentity + " 1f", 0x0A02, 3,
         [](DeviceConfig& c) { c.startInProgramMode = true; }},
        {"a wrong echo ends the chain and keeps what was read", false, "17 11 14 16", 0x0A02, 3,
         [](DeviceConfig& c) { c.wrongEchoFor = 0x16; }},
        {"an unterminated description fails the chain before 0x1F", false, kIdentity, 0x0A02, 3,
         [](DeviceConfig& c) { c.unterminatedDescription = c.startInProgramMode = true; }},
        {"a silent device fails at the first query", false, "17", 0, 0,
         [](DeviceConfig& c) { c.silent = true; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        DeviceConfig config;
        c.set(config);
        Sim sim(config);
        Bootloader boot(sim.port(), kTimeout);
        EXPECT_EQ(boot.IsDeviceInfoAvailable(), c.ok);
        EXPECT_EQ(hex(sim.seen()), c.sent);
        int type = -1, subType = -1;
        boot.GetDeviceType(&type);
        boot.GetSubDeviceType(&subType);
        EXPECT_EQ(type, c.type);
        EXPECT_EQ(subType, c.subType);
        char* text = nullptr;
        if (c.ok) {
            EXPECT_TRUE(boot.GetDeviceDescription(&text));
            EXPECT_EQ(take(text), config.description);
        }
    }
}

TEST(Bootloader, ConstructionDrainsWhatTheDeviceStillHadToSay) {
    Sim sim;
    {
        // Someone asked for the description and went away without reading the answer.
        RS232 other;
        other.PortName(sim.port());
        ASSERT_TRUE(other.Connect());
        unsigned char request = 0x1C;
        ASSERT_TRUE(other.Send(&request, 1));
        other.Disconnect();
    }
    for (int i = 0; i < 500 && sim.with([](Device& d) { return d.nextEvent().has_value(); }); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    Bootloader boot(sim.port(), kTimeout);
    EXPECT_TRUE(boot.IsDeviceInfoAvailable());

    // A later failing query chain takes the information back; the getters still write what
    // was read, the string getters leave the pointer alone.
    sim.with([](Device& d) { return d.config().silent = true; });
    EXPECT_FALSE(boot.AcquireDeviceInfo());
    EXPECT_FALSE(boot.IsDeviceInfoAvailable());
    int value = -1;
    EXPECT_FALSE(boot.GetDeviceType(&value));
    EXPECT_EQ(value, 0x0A02);
    char sentinel[] = "untouched";
    char* text = sentinel;
    EXPECT_FALSE(boot.GetSerialNumber(&text));
    EXPECT_FALSE(boot.GetDeviceDescription(&text));
    EXPECT_EQ(text, sentinel);
}

TEST(Bootloader, AMissingOrUnnamedPortFails) {
    char missing[] = "/dev/quelworks-no-such-port";
    Bootloader boot(missing, kTimeout);
    EXPECT_FALSE(boot.IsDeviceInfoAvailable());
    EXPECT_FALSE(boot.SwitchToMaxBaudrate());
    Bootloader unnamed(nullptr, 20);
    EXPECT_FALSE(unnamed.IsDeviceInfoAvailable());
}

TEST(Bootloader, SwitchToMaxBaudrateReconnectsAtTheNewRateOnlyWhenAccepted) {
    DeviceConfig config;
    config.wrongEchoFor = 0x1B;
    config.wrongEchoTimes = 1;
    Sim sim(config);
    Bootloader boot(sim.port(), kTimeout);
    EXPECT_FALSE(boot.SwitchToMaxBaudrate());
    EXPECT_TRUE(boot.AcquireDeviceInfo());
    EXPECT_EQ(lineSpeed(sim.port()), 9600u);

    sim.seen();
    ASSERT_TRUE(boot.SwitchToMaxBaudrate());
    EXPECT_EQ(sim.seen(), Bytes{0x1B});
    EXPECT_EQ(sim.with([](Device& d) { return d.baudrate(); }), 115200u);
    EXPECT_TRUE(boot.AcquireDeviceInfo());
    EXPECT_EQ(lineSpeed(sim.port()), 115200u);
}

TEST(Bootloader, EnterBootloaderByVersionWithPolls) {
    const std::string text = "Enter Progmode\r\n";
    const struct {
        int version, polls;
        bool never;
        Bytes sent;
    } cases[] = {
        {2, 3, false,
         cat(cat({0x1D}, Bytes(text.begin(), text.end())), {0x18, 0x18, 0x18, 0x18, 0x1F})},
        {1, 0, false, {0x1D, 0x18, 0x1F}},
        {1, 0, true, cat({0x1D}, Bytes(12, 0x18))},  // timeout / (timeout / 10) + 2 polls
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("version " + std::to_string(c.version) + (c.never ? ", never entering" : ""));
        DeviceConfig config;
        config.bootloaderVersion = static_cast<std::uint16_t>(c.version);
        config.pollsBeforeProgramMode = c.polls;
        config.neverEnterProgramMode = c.never;
        Sim sim(config);
        Bootloader boot(sim.port(), kTimeout);
        sim.seen();
        EXPECT_EQ(boot.EnterBootloader(), !c.never);
        EXPECT_EQ(sim.seen(), c.sent);
        RS232 other;  // the port was closed again
        other.PortName(sim.port());
        EXPECT_TRUE(other.Connect());
    }

    // A time-out below 10 ms is refused without traffic.
    Sim sim;
    Bootloader boot(sim.port(), 5, false);
    EXPECT_FALSE(boot.EnterBootloader());
    EXPECT_TRUE(sim.seen().empty());
}

TEST(Bootloader, UpdateFirmwareSendsTheHeaderAndChecksummedBlocks) {
    DeviceConfig config;
    config.startInProgramMode = true;  // the block size comes with the identity
    config.blockSize = 256;
    Sim sim(config);
    Bootloader boot(sim.port(), kTimeout);
    ASSERT_TRUE(boot.EnterBootloader());
    EXPECT_EQ(hex(sim.seen()), kIdentity + " 1f");  // nothing sent to enter
    boot.ProgressCallback = recordProgress;
    g_progress.clear();

    Bytes image = pattern(600);
    TempFile file("600.bin", image);
    ASSERT_TRUE(boot.UpdateFirmware(0x12345, file.name()));
    // 3 blocks, 600 bytes, the last block 88 bytes, the value's low 16 bits.
    Bytes header = {0x1D, 0x03, 0x00, 0x00, 0x02, 0x58, 0x00, 0x58, 0x23, 0x45};
    EXPECT_EQ(sim.seen(), cat(cat(cat(header, frame(image, 0, 256)), frame(image, 256, 256)),
                              frame(image, 512, 88)));
    std::vector<std::pair<int, int>> expected = {{0, 600}, {256, 600}, {512, 600}, {600, 600}};
    EXPECT_EQ(g_progress, expected);
    EXPECT_EQ(sim.image(), image);

    // 300 full blocks: the count goes out modulo 256, the last length is a whole block, and
    // every block is still sent.
    Bytes big = pattern(300 * 256);
    TempFile many("many.bin", big);
    ASSERT_TRUE(boot.UpdateFirmware(-1, many.name()));
    Bytes sent = sim.seen();
    ASSERT_EQ(sent.size(), 10 + big.size() + 300 * 2);
    EXPECT_EQ(Bytes(sent.begin(), sent.begin() + 10),
              (Bytes{0x1D, 300 - 256, 0x00, 0x01, 0x2C, 0x00, 0x01, 0x00, 0xFF, 0xFF}));
    EXPECT_EQ(sim.image(), big);
}

TEST(Bootloader, UpdateFirmwareFailures) {
    DeviceConfig config;
    config.blockSize = 64;
    Sim sim(config);
    Bootloader boot(sim.port(), kTimeout);
    TempFile file("640.bin", pattern(640)), empty("empty.bin", {});
    char missing[] = "/nonexistent/quelworks/image.bin";
    sim.seen();
    EXPECT_FALSE(boot.UpdateFirmware(0, file.name()));  // not in programming mode yet
    ASSERT_TRUE(boot.EnterBootloader());
    sim.seen();
    EXPECT_FALSE(boot.UpdateFirmware(0, empty.name()));
    EXPECT_FALSE(boot.UpdateFirmware(0, missing));
    EXPECT_FALSE(boot.UpdateFirmware(0, nullptr));
    // Only regular files: a folder (which may report a size) and a FIFO (which would block).
    std::string fifo = ::testing::TempDir() + "qw_boot_fifo";
    std::remove(fifo.c_str());
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::string folder = ::testing::TempDir();
    EXPECT_FALSE(boot.UpdateFirmware(0, fifo.data()));
    EXPECT_FALSE(boot.UpdateFirmware(0, folder.data()));
    std::remove(fifo.c_str());
    EXPECT_TRUE(sim.seen().empty());

    boot.ProgressCallback = recordProgress;
    g_progress.clear();
    sim.with([](Device& d) { return d.config().refuseHeader = true; });
    EXPECT_FALSE(boot.UpdateFirmware(0, file.name()));
    EXPECT_EQ(sim.seen().size(), 10u);  // no block after a refused header
    EXPECT_TRUE(g_progress.empty());

    sim.with([](Device& d) { return d.config().refuseHeader = false, d.config().rejectBlock = 3; });
    EXPECT_FALSE(boot.UpdateFirmware(0, file.name()));
    std::vector<std::pair<int, int>> expected = {{0, 640}, {64, 640}, {128, 640}};
    EXPECT_EQ(g_progress, expected);
    EXPECT_EQ(sim.seen().size(), 10u + 3 * 66);  // nothing after the refused block

    // Not resumable, but repeatable: a new call starts again from the header.
    sim.with([](Device& d) { return d.config().rejectBlock = 0; });
    EXPECT_TRUE(boot.UpdateFirmware(0, file.name()));
    EXPECT_EQ(sim.image(), pattern(640));

    // A block size of 0 would never cut the image.
    sim.with([](Device& d) { return d.config().blockSize = 0; });
    ASSERT_TRUE(boot.AcquireDeviceInfo());
    sim.seen();
    EXPECT_FALSE(boot.UpdateFirmware(0, file.name()));
    EXPECT_TRUE(sim.seen().empty());
}

TEST(Bootloader, CopiesOwnTheirStrings) {
    Sim sim;
    auto original = std::make_unique<Bootloader>(sim.port(), kTimeout);
    ASSERT_TRUE(original->IsDeviceInfoAvailable());
    Bootloader copy(*original);
    Bootloader assigned(sim.port(), false);
    assigned = *original;
    assigned = assigned;
    original.reset();  // the copies' strings must outlive the original
    for (Bootloader* b : {&copy, &assigned}) {
        char* text = nullptr;
        ASSERT_TRUE(b->GetSerialNumber(&text));
        EXPECT_EQ(take(text), DeviceConfig{}.serialNumber);
        ASSERT_TRUE(b->GetDeviceDescription(&text));
        EXPECT_EQ(take(text), DeviceConfig{}.description);
    }
    EXPECT_TRUE(copy.AcquireDeviceInfo());  // a copy is a working client of its own
}

// Byte-exact replies the simulated device does not produce, played by a scripted peer: one
// identity chain (type 0, no sub-type request) with this description reply.
void scriptIdentity(qwtest::ScriptedPeer& peer, const Bytes& description, bool programMode) {
    peer.expect({0x17}).reply({0x17, 0x00, 0x01});
    peer.expect({0x11}).reply({0x11, 0x00, 0x00});
    peer.expect({0x16}).reply({0x16, 0x00, 0x01});
    peer.expect({0x1A}).reply({0x1A, 0x00, 0x01, 0xC2, 0x00});
    peer.expect({0x15}).reply({0x15, 0x00, 0x01});
    peer.expect({0x19}).reply({0x19, 'A', 'B', 0x00, 'C', 'D', 'E', 'F', 'G'});
    peer.expect({0x18}).reply({0x18, std::uint8_t(programMode ? 0x20 : 0x00)});
    peer.expect({0x1C}).reply(description);
    if (programMode) peer.expect({0x1F}).reply({0x1F, 0, 0, 0, 5, 0xDE, 0xAD, 0xBE, 0xEF});
}

TEST(BootloaderScript, DescriptionEdgesSwitchReplyAndBlockReplies) {
    qwtest::PtyPair pty;
    qwtest::ScriptedPeer peer(pty);
    scriptIdentity(peer, {0x1C, 'a', 'b', 'c', 0x00}, false);
    scriptIdentity(peer, {0x00}, false);       // nothing after the request: the description stays
    scriptIdentity(peer, {0x1C, 0x00}, true);  // the echo, then the end: an empty description
    peer.expect({0x1B}).reply({0x1B, 0x21});   // the switch needs exactly 0x1B 0x20
    // 12 bytes in blocks of 5. Only the first byte of a block's reply counts: one cut short after
    // 0x20 passes, and so does one with odd trailing bytes.
    const Bytes image = qwtest::bytesOf("0123456789AB");
    peer.expect({0x1D, 0x03, 0x00, 0x00, 0x00, 0x0C, 0x00, 0x02, 0x00, 0x07}).reply({0x1D, 0x20});
    peer.expect(frame(image, 0, 5)).reply({0x20});
    peer.expect(frame(image, 5, 5)).reply({0x20, 0xFF, 0xFF});
    peer.expect(frame(image, 10, 2)).reply({0x21, 0x00, 0x03});
    peer.start();

    std::string path = pty.path();
    Bootloader boot(path.data(), kTimeout, false);
    char* text = nullptr;
    for (const char* description : {"abc", "abc", ""}) {
        ASSERT_TRUE(boot.AcquireDeviceInfo()) << peer.error();
        ASSERT_TRUE(boot.GetDeviceDescription(&text));
        EXPECT_EQ(take(text), description);
    }
    ASSERT_TRUE(boot.GetSerialNumber(&text));
    EXPECT_EQ(take(text), "AB");  // a zero byte ends the serial number
    EXPECT_FALSE(boot.SwitchToMaxBaudrate());
    TempFile file("script.bin", image);
    EXPECT_FALSE(boot.UpdateFirmware(7, file.name()));  // refused at the last block
    EXPECT_TRUE(peer.finish()) << peer.error();
}

}  // namespace

// A device that never stops sending: the construction's drain gives up after its bound instead
// of reading forever.
TEST(BootloaderScript, TheDrainEndsAgainstADeviceThatNeverStopsSending) {
    qwtest::PtyPair pty;
    std::atomic<bool> stop{false};
    // Non-blocking writes, so that the flood stops at once when asked even with the line full.
    ::fcntl(pty.master(), F_SETFL, ::fcntl(pty.master(), F_GETFL) | O_NONBLOCK);
    std::thread flood([&] {
        const Bytes chunk(512, 'L');
        while (!stop) {
            if (::write(pty.master(), chunk.data(), chunk.size()) < 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    });
    const auto start = std::chrono::steady_clock::now();
    {
        Bootloader boot(const_cast<char*>(pty.path().c_str()), false);
        EXPECT_FALSE(boot.IsDeviceInfoAvailable());
    }
    const auto took = std::chrono::steady_clock::now() - start;
    stop = true;
    flood.join();
    EXPECT_LT(took, std::chrono::seconds(30)) << "the drain must be bounded";
}
