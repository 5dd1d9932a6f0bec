// The bootloader client against the simulated device over a real pty, checking what the client
// makes of the device's answers and the exact bytes the device saw.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <asm/termbits.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>

#include "device_fixture.h"
#include "quelworks/bootloader/bootloader.h"
#include "quelworks/serial/rs232.h"

namespace qwtest {
namespace {

std::string takeText(char* text) {
    std::string s = text != nullptr ? text : "";
    std::free(text);
    return s;
}

// The pty keeps the line settings the client chose last.
unsigned lineSpeed(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY);
    if (fd < 0) return 0;
    termios2 tio{};
    int result = ::ioctl(fd, TCGETS2, &tio);
    ::close(fd);
    return result == 0 ? tio.c_ospeed : 0;
}

class BootloaderTest : public DeviceTest {};

TEST_F(BootloaderTest, ReadsTheIdentityInItsFixedOrder) {
    DeviceConfig config;
    config.deviceType = 0x0A02;
    config.subType = 0x0304;
    config.revision = 0x0007;
    config.firmwareVersion = 0x0105;
    config.bootloaderVersion = 2;
    config.serialNumber = "SN123456";
    config.description = "bench unit";
    config.maxBaudrate = 921600;
    start(config);

    Bootloader boot(port(), kTimeoutMs);
    ASSERT_TRUE(boot.IsDeviceInfoAvailable());
    EXPECT_EQ(seen(), identityRequests());  // no 0x1F: the device runs its application

    int value = -1;
    EXPECT_TRUE(boot.GetDeviceType(&value));
    EXPECT_EQ(value, 0x0A02);
    EXPECT_TRUE(boot.GetSubDeviceType(&value));
    EXPECT_EQ(value, 0x0304);
    EXPECT_TRUE(boot.GetRevision(&value));
    EXPECT_EQ(value, 7);
    EXPECT_TRUE(boot.GetFirmwareVersion(&value));
    EXPECT_EQ(value, 0x0105);
    EXPECT_TRUE(boot.GetBootloaderVersion(&value));
    EXPECT_EQ(value, 2);
    EXPECT_TRUE(boot.GetMaxBaudrate(&value));
    EXPECT_EQ(value, 921600);
    Bootloader::DeviceProgrammingState mode = Bootloader::InProgramMode;
    EXPECT_TRUE(boot.GetProgramMode(&mode));
    EXPECT_EQ(mode, Bootloader::NotInProgramMode);
    char* text = nullptr;
    ASSERT_TRUE(boot.GetSerialNumber(&text));
    EXPECT_EQ(takeText(text), "SN123456");
    ASSERT_TRUE(boot.GetDeviceDescription(&text));
    EXPECT_EQ(takeText(text), "bench unit");

    // A second call asks again, over a connection of its own.
    forget();
    EXPECT_TRUE(boot.AcquireDeviceInfo());
    EXPECT_EQ(seen(), identityRequests());
}

TEST_F(BootloaderTest, WithoutAcquiringNothingIsSentAndGettersSayNo) {
    start();
    Bootloader boot(port(), false);
    EXPECT_TRUE(seen().empty());
    EXPECT_FALSE(boot.IsDeviceInfoAvailable());

    int value = -1;
    EXPECT_FALSE(boot.GetDeviceType(&value));
    EXPECT_EQ(value, 0);  // the field is written all the same
    EXPECT_FALSE(boot.GetMaxBaudrate(&value));
    EXPECT_EQ(value, 9600);
    char sentinel[] = "untouched";
    char* text = sentinel;
    EXPECT_FALSE(boot.GetSerialNumber(&text));
    EXPECT_EQ(text, sentinel);
    EXPECT_FALSE(boot.GetDeviceDescription(&text));
    EXPECT_EQ(text, sentinel);

    EXPECT_TRUE(boot.AcquireDeviceInfo());
    EXPECT_TRUE(boot.IsDeviceInfoAvailable());

    // A later failing query chain takes the information back.
    device([](Device& d) { return d.config().silent = true; });
    EXPECT_FALSE(boot.AcquireDeviceInfo());
    EXPECT_FALSE(boot.IsDeviceInfoAvailable());
    EXPECT_FALSE(boot.GetSerialNumber(&text));
}

TEST_F(BootloaderTest, ConstructionDrainsWhatTheDeviceStillHadToSay) {
    start();
    {
        // Someone asked for the description and went away without reading the answer.
        RS232 other;
        other.PortName(port());
        ASSERT_TRUE(other.Connect());
        unsigned char request = 0x1C;
        ASSERT_TRUE(other.Send(&request, 1));
        other.Disconnect();
    }
    // Let the unread reply reach the port before the client comes.
    for (int i = 0; i < 500 && device([](Device& d) { return d.nextEvent().has_value(); }); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    Bootloader boot(port(), kTimeoutMs);
    EXPECT_TRUE(boot.IsDeviceInfoAvailable());
    char* text = nullptr;
    ASSERT_TRUE(boot.GetDeviceDescription(&text));
    EXPECT_EQ(takeText(text), DeviceConfig{}.description);
}

TEST_F(BootloaderTest, TypeZeroIsNotAskedForItsSubType) {
    DeviceConfig config;
    config.deviceType = 0;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    EXPECT_TRUE(boot.IsDeviceInfoAvailable());
    EXPECT_EQ(seen(), (Bytes{0x17, 0x11, 0x16, 0x1A, 0x15, 0x19, 0x18, 0x1C}));
    int value = -1;
    boot.GetSubDeviceType(&value);
    EXPECT_EQ(value, 0);
}

TEST_F(BootloaderTest, DeviceTypeIsAskedAgainWithTheShortReplyWhenTheEchoIsWrong) {
    DeviceConfig config;
    config.deviceType = 0x2A;
    config.oneByteType = true;
    config.wrongEchoFor = 0x11;
    config.wrongEchoTimes = 1;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    EXPECT_TRUE(boot.IsDeviceInfoAvailable());
    Bytes expected = {0x17, 0x11, 0x11, 0x14, 0x16, 0x1A, 0x15, 0x19, 0x18, 0x1C};
    EXPECT_EQ(seen(), expected);
    int value = -1;
    boot.GetDeviceType(&value);
    EXPECT_EQ(value, 0x2A);
}

TEST_F(BootloaderTest, ShortTypeReplyWithTheRightEchoIsTakenAsItStands) {
    // The echo alone decides: a 2-byte reply to the 3-byte read passes, and the byte that never
    // came reads as zero.
    DeviceConfig config;
    config.deviceType = 0x2A;
    config.oneByteType = true;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    EXPECT_TRUE(boot.IsDeviceInfoAvailable());
    EXPECT_EQ(seen(), identityRequests());
    int value = -1;
    boot.GetDeviceType(&value);
    EXPECT_EQ(value, 0x2A00);
}

TEST_F(BootloaderTest, AWrongEchoEndsTheChainAndKeepsWhatWasRead) {
    DeviceConfig config;
    config.wrongEchoFor = 0x16;
    config.bootloaderVersion = 5;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    EXPECT_FALSE(boot.IsDeviceInfoAvailable());
    EXPECT_EQ(seen(), (Bytes{0x17, 0x11, 0x14, 0x16}));
    int value = -1;
    EXPECT_FALSE(boot.GetBootloaderVersion(&value));
    EXPECT_EQ(value, 5);
}

TEST_F(BootloaderTest, TheDescriptionsEchoIsNotChecked) {
    DeviceConfig config;
    config.wrongEchoFor = 0x1C;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    EXPECT_TRUE(boot.IsDeviceInfoAvailable());
    char* text = nullptr;
    ASSERT_TRUE(boot.GetDeviceDescription(&text));
    EXPECT_EQ(takeText(text), config.description);
}

TEST_F(BootloaderTest, AnUnterminatedDescriptionIsKeptButFailsTheChain) {
    DeviceConfig config;
    config.unterminatedDescription = true;
    config.startInProgramMode = true;
    start(config);
    Bootloader boot(port(), kTimeoutMs, false);
    EXPECT_FALSE(boot.AcquireDeviceInfo());
    // The chain ends at the description: no program parameters are asked for.
    EXPECT_EQ(seen(), identityRequests());
}

TEST_F(BootloaderTest, ASilentDeviceFailsAtTheFirstQuery) {
    DeviceConfig config;
    config.silent = true;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    EXPECT_FALSE(boot.IsDeviceInfoAvailable());
    EXPECT_EQ(seen(), Bytes{0x17});
    int value = -1;
    boot.GetSubDeviceType(&value);
    EXPECT_EQ(value, 0);
}

TEST_F(BootloaderTest, AMissingPortFailsWithoutHanging) {
    char missing[] = "/dev/quelworks-no-such-port";
    Bootloader boot(missing, kTimeoutMs);
    EXPECT_FALSE(boot.IsDeviceInfoAvailable());
    EXPECT_FALSE(boot.SwitchToMaxBaudrate());
    EXPECT_FALSE(boot.EnterBootloader());

    Bootloader unnamed(nullptr, 20);
    EXPECT_FALSE(unnamed.IsDeviceInfoAvailable());
}

TEST_F(BootloaderTest, SwitchToMaxBaudrateReconnectsAtTheNewRate) {
    DeviceConfig config;
    config.maxBaudrate = 115200;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    ASSERT_TRUE(boot.IsDeviceInfoAvailable());
    EXPECT_EQ(lineSpeed(portPath()), 9600u);

    forget();
    ASSERT_TRUE(boot.SwitchToMaxBaudrate());
    EXPECT_EQ(seen(), Bytes{0x1B});
    EXPECT_EQ(device([](Device& d) { return d.baudrate(); }), 115200u);
    EXPECT_TRUE(boot.AcquireDeviceInfo());
    EXPECT_EQ(lineSpeed(portPath()), 115200u);
}

TEST_F(BootloaderTest, ARefusedSwitchKeepsTheRate) {
    DeviceConfig config;
    config.wrongEchoFor = 0x1B;
    start(config);
    // Without device information the maximum is still 9600.
    Bootloader boot(port(), kTimeoutMs, false);
    EXPECT_FALSE(boot.SwitchToMaxBaudrate());
    EXPECT_TRUE(boot.AcquireDeviceInfo());
    EXPECT_EQ(lineSpeed(portPath()), 9600u);
}

TEST_F(BootloaderTest, EnterBootloaderSendsTheTextToVersionsAboveOne) {
    DeviceConfig config;
    config.bootloaderVersion = 2;
    config.pollsBeforeProgramMode = 3;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    forget();
    ASSERT_TRUE(boot.EnterBootloader());
    EXPECT_EQ(seen(),
              concat({{0x1D}, bytes("Enter Progmode\r\n"), {0x18, 0x18, 0x18, 0x18, 0x1F}}));
    Bootloader::DeviceProgrammingState mode = Bootloader::NotInProgramMode;
    boot.GetProgramMode(&mode);
    EXPECT_EQ(mode, Bootloader::InProgramMode);

    // Known to be in programming mode now: nothing more to do.
    forget();
    EXPECT_TRUE(boot.EnterBootloader());
    EXPECT_TRUE(seen().empty());
}

TEST_F(BootloaderTest, EnterBootloaderSendsTheByteAloneToVersionOne) {
    DeviceConfig config;
    config.bootloaderVersion = 1;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    forget();
    ASSERT_TRUE(boot.EnterBootloader());
    EXPECT_EQ(seen(), (Bytes{0x1D, 0x18, 0x1F}));
}

TEST_F(BootloaderTest, EnterBootloaderGivesUpAfterTheLastPollAndClosesThePort) {
    DeviceConfig config;
    config.bootloaderVersion = 1;
    config.neverEnterProgramMode = true;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    forget();
    EXPECT_FALSE(boot.EnterBootloader());
    // timeout / (timeout / 10) + 2 = 12 polls.
    EXPECT_EQ(seen(), concat({{0x1D}, Bytes(12, 0x18)}));
    RS232 other;
    other.PortName(port());
    EXPECT_TRUE(other.Connect()) << "the port was left open";
}

TEST_F(BootloaderTest, ATimeOutBelowTenMillisecondsIsRefused) {
    start();
    Bootloader boot(port(), 5, false);
    EXPECT_FALSE(boot.EnterBootloader());
    EXPECT_TRUE(seen().empty());
}

TEST_F(BootloaderTest, ADeviceAlreadyInProgrammingModeNeedsNoEnter) {
    DeviceConfig config;
    config.startInProgramMode = true;
    config.blockSize = 128;
    config.programParameter2 = 0x01020304;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    ASSERT_TRUE(boot.IsDeviceInfoAvailable());
    EXPECT_EQ(seen(), concat({identityRequests(), {0x1F}}));
    forget();
    EXPECT_TRUE(boot.EnterBootloader());
    EXPECT_TRUE(seen().empty());

    // The block size came with the identity.
    std::string file = writeFile(pattern(300));
    ASSERT_TRUE(boot.UpdateFirmware(0, file.data()));
    EXPECT_EQ(device([](Device& d) { return d.image(); }), pattern(300));
    EXPECT_EQ(device([](Device& d) { return d.blocksAccepted(); }), 3);
}

// Progress reports of the running update.
std::vector<std::pair<int, int>> g_progress;
void recordProgress(int done, int total) {
    g_progress.emplace_back(done, total);
}

Bytes frame(const Bytes& image, std::size_t offset, std::size_t length) {
    Bytes block(image.begin() + offset, image.begin() + offset + length);
    std::uint16_t crc = Device::checksum(block.data(), block.size());
    block.push_back(static_cast<std::uint8_t>(crc >> 8));
    block.push_back(static_cast<std::uint8_t>(crc));
    return block;
}

TEST_F(BootloaderTest, UpdateFirmwareSendsTheHeaderAndChecksummedBlocks) {
    DeviceConfig config;
    config.blockSize = 256;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    ASSERT_TRUE(boot.EnterBootloader());
    Bytes image = pattern(600);
    std::string file = writeFile(image);

    forget();
    g_progress.clear();
    boot.ProgressCallback = recordProgress;
    ASSERT_TRUE(boot.UpdateFirmware(0x12345, file.data()));

    // Header: 0x1D, 3 blocks, 600 bytes, last block 88 bytes, value's low 16 bits.
    Bytes header = {0x1D, 0x03, 0x00, 0x00, 0x02, 0x58, 0x00, 0x58, 0x23, 0x45};
    EXPECT_EQ(seen(), concat({header, frame(image, 0, 256), frame(image, 256, 256),
                              frame(image, 512, 88)}));
    std::vector<std::pair<int, int>> expected = {{0, 600}, {256, 600}, {512, 600}, {600, 600}};
    EXPECT_EQ(g_progress, expected);
    EXPECT_EQ(device([](Device& d) { return d.image(); }), image);

    // The object is unchanged: the same image can be written again.
    ASSERT_TRUE(boot.UpdateFirmware(0, file.data()));
    EXPECT_EQ(device([](Device& d) { return d.imagesWritten(); }), 2);
}

TEST_F(BootloaderTest, HeaderOfAnExactMultipleAndOfMoreThan255Blocks) {
    DeviceConfig config;
    config.blockSize = 16;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    ASSERT_TRUE(boot.EnterBootloader());

    std::string exact = writeFile(pattern(64));
    forget();
    ASSERT_TRUE(boot.UpdateFirmware(0, exact.data()));
    Bytes sent = seen();
    ASSERT_GE(sent.size(), 10u);
    EXPECT_EQ(Bytes(sent.begin(), sent.begin() + 10),
              (Bytes{0x1D, 4, 0x00, 0x00, 0x00, 0x40, 0x00, 0x10, 0x00, 0x00}));

    // 300 blocks: the count goes out modulo 256, and every block is still sent.
    Bytes big = pattern(300 * 16 + 5, 3);
    std::string many = writeFile(big);
    forget();
    ASSERT_TRUE(boot.UpdateFirmware(-1, many.data()));
    sent = seen();
    EXPECT_EQ(Bytes(sent.begin(), sent.begin() + 10),
              (Bytes{0x1D, 301 - 256, 0x00, 0x00, 0x12, 0xC5, 0x00, 0x05, 0xFF, 0xFF}));
    EXPECT_EQ(sent.size(), 10 + big.size() + 301 * 2);
    EXPECT_EQ(device([](Device& d) { return d.image(); }), big);
}

TEST_F(BootloaderTest, ARejectedBlockStopsTheUpdate) {
    DeviceConfig config;
    config.blockSize = 64;
    config.rejectBlock = 3;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    ASSERT_TRUE(boot.EnterBootloader());
    std::string file = writeFile(pattern(640));

    g_progress.clear();
    boot.ProgressCallback = recordProgress;
    forget();
    EXPECT_FALSE(boot.UpdateFirmware(0, file.data()));
    std::vector<std::pair<int, int>> expected = {{0, 640}, {64, 640}, {128, 640}};
    EXPECT_EQ(g_progress, expected);
    EXPECT_EQ(seen().size(), 10u + 3 * 66);  // nothing after the refused block
    EXPECT_EQ(device([](Device& d) { return d.imagesWritten(); }), 0);

    // Not resumable, but repeatable: a new call starts again from the header.
    device([](Device& d) { return d.config().rejectBlock = 0; });
    EXPECT_TRUE(boot.UpdateFirmware(0, file.data()));
    EXPECT_EQ(device([](Device& d) { return d.image(); }), pattern(640));
}

TEST_F(BootloaderTest, ARefusedHeaderSendsNoBlock) {
    start();
    Bootloader boot(port(), kTimeoutMs);
    ASSERT_TRUE(boot.EnterBootloader());
    device([](Device& d) { return d.config().refuseHeader = true; });
    std::string file = writeFile(pattern(100));
    g_progress.clear();
    boot.ProgressCallback = recordProgress;
    forget();
    EXPECT_FALSE(boot.UpdateFirmware(0, file.data()));
    EXPECT_EQ(seen().size(), 10u);
    EXPECT_TRUE(g_progress.empty());
}

TEST_F(BootloaderTest, NoTrafficForAMissingOrEmptyImageOrOutsideProgrammingMode) {
    start();
    Bootloader boot(port(), kTimeoutMs);
    std::string file = writeFile(pattern(10));
    forget();
    EXPECT_FALSE(boot.UpdateFirmware(0, file.data()));  // not in programming mode yet
    ASSERT_TRUE(boot.EnterBootloader());

    forget();
    std::string empty = writeFile({});
    EXPECT_FALSE(boot.UpdateFirmware(0, empty.data()));
    char missing[] = "/nonexistent/quelworks/image.bin";
    EXPECT_FALSE(boot.UpdateFirmware(0, missing));
    EXPECT_FALSE(boot.UpdateFirmware(0, nullptr));
    EXPECT_TRUE(seen().empty());
}

TEST_F(BootloaderTest, AZeroBlockSizeIsRefused) {
    DeviceConfig config;
    config.blockSize = 0;
    start(config);
    Bootloader boot(port(), kTimeoutMs);
    ASSERT_TRUE(boot.EnterBootloader());
    std::string file = writeFile(pattern(10));
    forget();
    EXPECT_FALSE(boot.UpdateFirmware(0, file.data()));
    EXPECT_TRUE(seen().empty());
}

TEST_F(BootloaderTest, CopiesOwnTheirStrings) {
    DeviceConfig config;
    config.serialNumber = "COPY0001";
    start(config);
    auto original = std::make_unique<Bootloader>(port(), kTimeoutMs);
    ASSERT_TRUE(original->IsDeviceInfoAvailable());
    Bootloader copy(*original);
    Bootloader assigned(port(), false);
    assigned = *original;
    assigned = assigned;
    original.reset();  // the copies' strings must outlive the original

    for (Bootloader* b : {&copy, &assigned}) {
        char* text = nullptr;
        ASSERT_TRUE(b->GetSerialNumber(&text));
        EXPECT_EQ(takeText(text), "COPY0001");
        ASSERT_TRUE(b->GetDeviceDescription(&text));
        EXPECT_EQ(takeText(text), config.description);
        int value = 0;
        b->GetMaxBaudrate(&value);
        EXPECT_EQ(value, static_cast<int>(config.maxBaudrate));
    }
    // A copy is a working client of its own.
    EXPECT_TRUE(copy.AcquireDeviceInfo());
}

}  // namespace
}  // namespace qwtest
