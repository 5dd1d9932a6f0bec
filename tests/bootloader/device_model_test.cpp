// The simulated device's model on its own, with a clock the test drives: timing of the emulated
// line, and what the device accepts and refuses.
#include <gtest/gtest.h>

#include <string>

#include "device.h"

namespace qwtest {
namespace {

using quelworks::devsim::Clock;
using quelworks::devsim::Device;
using quelworks::devsim::DeviceConfig;
using Bytes = std::vector<std::uint8_t>;
using std::chrono::microseconds;

const Clock::time_point t0{};

Bytes send(Device& device, const Bytes& bytes, Clock::time_point at = t0) {
    device.receive(bytes.data(), bytes.size(), at);
    return device.transmit(at + std::chrono::seconds(10));
}

TEST(DeviceModel, ChecksumIsTheCcittFalseCrc) {
    const std::string digits = "123456789";
    EXPECT_EQ(Device::checksum(reinterpret_cast<const std::uint8_t*>(digits.data()), 9), 0x29B1);
    EXPECT_EQ(Device::checksum(nullptr, 0), 0xFFFF);
}

TEST(DeviceModel, AnEmulatedLineTakesTenBitTimesPerByte) {
    DeviceConfig config;
    config.lineRate = 100000;  // 100 microseconds per byte
    config.bootloaderVersion = 0x0102;
    Device device(config);
    std::uint8_t request = 0x17;
    device.receive(&request, 1, t0);
    // The request is complete after 100 us; the three reply bytes follow 100 us apart.
    EXPECT_EQ(device.nextEvent(), t0 + microseconds(200));
    EXPECT_TRUE(device.transmit(t0 + microseconds(199)).empty());
    EXPECT_EQ(device.transmit(t0 + microseconds(250)), Bytes{0x17});
    EXPECT_EQ(device.transmit(t0 + microseconds(399)), Bytes{0x01});
    EXPECT_EQ(device.transmit(t0 + microseconds(400)), Bytes{0x02});
    EXPECT_FALSE(device.nextEvent().has_value());
}

TEST(DeviceModel, TheLineCanFollowTheDevicesBaudRate) {
    DeviceConfig config;
    config.lineFollowsBaud = true;
    config.maxBaudrate = 100000;
    Device device(config);
    // At 9600 baud a byte takes 1041.7 us.
    std::uint8_t request = 0x1B;
    device.receive(&request, 1, t0);
    EXPECT_TRUE(device.transmit(t0 + microseconds(2082)).empty());
    EXPECT_EQ(device.transmit(t0 + microseconds(3200)), (Bytes{0x1B, 0x20}));
    EXPECT_EQ(device.baudrate(), 100000u);
    Clock::time_point later = t0 + std::chrono::seconds(1);
    device.receive(&request, 1, later);
    EXPECT_EQ(device.transmit(later + microseconds(300)), (Bytes{0x1B, 0x20}));
}

TEST(DeviceModel, HeadersAndBlocksAreChecked) {
    DeviceConfig config;
    config.startInProgramMode = true;
    config.blockSize = 4;
    Device device(config);
    // 6 bytes are 2 blocks, the last of 2 bytes; anything else is refused.
    EXPECT_EQ(send(device, {0x1D, 3, 0, 0, 0, 6, 0, 2, 0, 0}), (Bytes{0x1D, 0x15}));
    EXPECT_EQ(send(device, {0x1D, 2, 0, 0, 0, 6, 0, 4, 0, 0}), (Bytes{0x1D, 0x15}));
    EXPECT_EQ(send(device, {0x1D, 2, 0, 0, 0, 6, 0, 2, 0, 0}), (Bytes{0x1D, 0x20}));

    Bytes block = {1, 2, 3, 4};
    std::uint16_t crc = Device::checksum(block.data(), 4);
    Bytes good = {1, 2, 3, 4, std::uint8_t(crc >> 8), std::uint8_t(crc)};
    EXPECT_EQ(send(device, good), (Bytes{0x20, 0x00, 0x01}));
    // A wrong checksum is refused and the transfer ends.
    EXPECT_EQ(send(device, {5, 6, 0x00, 0x00}), (Bytes{0x15, 0x00, 0x02}));
    EXPECT_EQ(device.imagesWritten(), 0);
    EXPECT_EQ(device.blocksRefused(), 1);
    // The next byte is a request again.
    EXPECT_EQ(send(device, {0x18}), (Bytes{0x18, 0x20}));
}

TEST(DeviceModel, AHalfSentHeaderIsDroppedAfterAPause) {
    DeviceConfig config;
    config.startInProgramMode = true;
    Device device(config);
    EXPECT_TRUE(send(device, {0x1D, 1, 0}).empty());
    Clock::time_point later = t0 + config.resyncGap + std::chrono::milliseconds(1);
    EXPECT_EQ(send(device, {0x17}, later), (Bytes{0x17, 0x00, 0x02}));
}

TEST(DeviceModel, TheEnterTextMustBeComplete) {
    DeviceConfig config;
    config.bootloaderVersion = 2;
    Device device(config);
    // Without the text the next request is taken as one, and programming mode stays off.
    EXPECT_EQ(send(device, {0x1D, 0x18}), (Bytes{0x18, 0x00}));
    std::string text = "Enter Progmode\r\n";
    Bytes enter = {0x1D};
    enter.insert(enter.end(), text.begin(), text.end());
    EXPECT_TRUE(send(device, enter).empty());
    EXPECT_EQ(send(device, {0x18}), (Bytes{0x18, 0x20}));
    EXPECT_TRUE(device.inProgramMode());
}

TEST(DeviceModel, FaultsShowOnTheWire) {
    DeviceConfig config;
    config.wrongEchoFor = 0x16;
    config.wrongEchoTimes = 1;
    config.replyDelay = std::chrono::milliseconds(5);
    Device device(config);
    std::uint8_t request = 0x16;
    device.receive(&request, 1, t0);
    EXPECT_TRUE(device.transmit(t0 + microseconds(4999)).empty());
    EXPECT_EQ(device.transmit(t0 + microseconds(5000)), (Bytes{0x96, 0x01, 0x05}));
    EXPECT_EQ(send(device, {0x16}), (Bytes{0x16, 0x01, 0x05}));  // only the first one

    device.config().silent = true;
    EXPECT_TRUE(send(device, {0x17}).empty());
    EXPECT_EQ(device.received(), (Bytes{0x16, 0x16, 0x17}));
}

}  // namespace
}  // namespace qwtest
