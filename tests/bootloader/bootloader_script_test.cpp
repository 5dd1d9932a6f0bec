// Byte-exact replies the simulated device does not produce, played by a scripted peer.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "device.h"
#include "quelworks/bootloader/bootloader.h"
#include "support/pty_pair.h"

namespace qwtest {
namespace {

constexpr int kTimeout = 400;

std::string takeText(char* text) {
    std::string s = text != nullptr ? text : "";
    std::free(text);
    return s;
}

// The identity chain of a device running its application, with the given serial number and
// description replies.
void scriptIdentity(ScriptedPeer& peer, const Bytes& serialReply, const Bytes& descriptionReply) {
    peer.expect({0x17}).reply({0x17, 0x00, 0x02});
    peer.expect({0x11}).reply({0x11, 0x0A, 0x02});
    peer.expect({0x14}).reply({0x14, 0x00, 0x03});
    peer.expect({0x16}).reply({0x16, 0x01, 0x05});
    peer.expect({0x1A}).reply({0x1A, 0x00, 0x0E, 0x10, 0x00});
    peer.expect({0x15}).reply({0x15, 0x00, 0x07});
    peer.expect({0x19}).reply(serialReply);
    peer.expect({0x18}).reply({0x18, 0x00});
    peer.expect({0x1C}).reply(descriptionReply);
}

TEST(BootloaderScript, DescriptionAndSerialNumberEdges) {
    PtyPair pty;
    ScriptedPeer peer(pty);
    Bytes serial = {0x19, 'A', 'B', 0x00, 'C', 'D', 'E', 'F', 'G'};
    // First: a description; then the echo followed at once by the zero byte (an empty
    // description); then a reply that starts with the zero byte (nothing is stored).
    scriptIdentity(peer, serial, {0x1C, 'a', 'b', 'c', 0x00});
    scriptIdentity(peer, serial, {0x1C, 0x00});
    scriptIdentity(peer, serial, {0x00});
    peer.start();

    std::string path = pty.path();
    Bootloader boot(path.data(), kTimeout, false);
    char* text = nullptr;

    ASSERT_TRUE(boot.AcquireDeviceInfo());
    ASSERT_TRUE(boot.GetSerialNumber(&text));
    EXPECT_EQ(takeText(text), "AB");  // a zero byte ends the serial number
    ASSERT_TRUE(boot.GetDeviceDescription(&text));
    EXPECT_EQ(takeText(text), "abc");
    int value = 0;
    boot.GetMaxBaudrate(&value);
    EXPECT_EQ(value, 921600);

    ASSERT_TRUE(boot.AcquireDeviceInfo());
    ASSERT_TRUE(boot.GetDeviceDescription(&text));
    EXPECT_EQ(takeText(text), "");

    boot.AcquireDeviceInfo();
    EXPECT_TRUE(boot.IsDeviceInfoAvailable());
    ASSERT_TRUE(boot.GetDeviceDescription(&text));
    EXPECT_EQ(takeText(text), "");  // unchanged

    EXPECT_TRUE(peer.finish()) << peer.error();
}

TEST(BootloaderScript, ProgramParametersSwitchAndBlockReplies) {
    PtyPair pty;
    ScriptedPeer peer(pty);
    peer.expect({0x17}).reply({0x17, 0x00, 0x01});
    peer.expect({0x11}).reply({0x11, 0x00, 0x00});  // type 0: no sub-type request
    peer.expect({0x16}).reply({0x16, 0x00, 0x01});
    peer.expect({0x1A}).reply({0x1A, 0x00, 0x01, 0xC2, 0x00});
    peer.expect({0x15}).reply({0x15, 0x00, 0x01});
    peer.expect({0x19}).reply({0x19, '1', '2', '3', '4', '5', '6', '7', '8'});
    peer.expect({0x18}).reply({0x18, 0x20});
    peer.expect({0x1C}).reply({0x1C, 'x', 0x00});
    // Block size 5 and a second parameter the client only keeps.
    peer.expect({0x1F}).reply({0x1F, 0x00, 0x00, 0x00, 0x05, 0xDE, 0xAD, 0xBE, 0xEF});
    // The switch needs exactly 0x1B 0x20.
    peer.expect({0x1B}).reply({0x1B, 0x21});
    // A 12-byte image in blocks of 5: 3 blocks, the last of 2 bytes. Each block's reply is
    // judged by its first byte alone: a reply cut short after 0x20 still counts.
    const Bytes image = bytesOf("0123456789AB");
    auto frame = [&](std::size_t offset, std::size_t length) {
        Bytes block(image.begin() + offset, image.begin() + offset + length);
        std::uint16_t crc = quelworks::devsim::Device::checksum(block.data(), length);
        block.push_back(static_cast<std::uint8_t>(crc >> 8));
        block.push_back(static_cast<std::uint8_t>(crc));
        return block;
    };
    peer.expect({0x1D, 0x03, 0x00, 0x00, 0x00, 0x0C, 0x00, 0x02, 0x00, 0x07}).reply({0x1D, 0x20});
    peer.expect(frame(0, 5)).reply({0x20});
    peer.expect(frame(5, 5)).reply({0x20, 0xFF, 0xFF});
    peer.expect(frame(10, 2)).reply({0x21, 0x00, 0x03});
    peer.start();
    std::string path = pty.path();
    Bootloader boot(path.data(), kTimeout);
    ASSERT_TRUE(boot.IsDeviceInfoAvailable()) << peer.error();
    EXPECT_FALSE(boot.SwitchToMaxBaudrate());
    EXPECT_TRUE(boot.EnterBootloader());  // already in programming mode: no traffic

    std::string file = ::testing::TempDir() + "qw_script_image.bin";
    std::FILE* f = std::fopen(file.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(image.data(), 1, image.size(), f);
    std::fclose(f);
    // Refused at the last block.
    EXPECT_FALSE(boot.UpdateFirmware(7, file.data()));
    std::remove(file.c_str());
    EXPECT_TRUE(peer.finish()) << peer.error();
}

}  // namespace
}  // namespace qwtest
