// The simulated device's model on its own, with a clock the test drives: the timing of the
// emulated line (what the throughput benchmark relies on) and its check of the block checksum.
#include <gtest/gtest.h>

#include "device.h"

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

TEST(DeviceModel, LineTiming) {
    DeviceConfig config;
    config.lineRate = 100000;  // 10 bit times: 100 us per byte
    Device fixed(config);
    std::uint8_t request = 0x17;
    fixed.receive(&request, 1, t0);
    // The request is complete after 100 us; the three reply bytes follow 100 us apart.
    EXPECT_EQ(fixed.nextEvent(), t0 + microseconds(200));
    EXPECT_TRUE(fixed.transmit(t0 + microseconds(199)).empty());
    EXPECT_EQ(fixed.transmit(t0 + microseconds(399)), (Bytes{0x17, 0x00}));
    EXPECT_EQ(fixed.transmit(t0 + microseconds(400)), Bytes{0x02});
    EXPECT_FALSE(fixed.nextEvent().has_value());

    // Following the device's rate: 1041.7 us per byte at 9600 baud, then the maximum.
    config = DeviceConfig{};
    config.lineFollowsBaud = true;
    config.maxBaudrate = 100000;
    config.replyDelay = std::chrono::milliseconds(5);
    Device following(config);
    request = 0x1B;
    following.receive(&request, 1, t0);
    EXPECT_TRUE(following.transmit(t0 + microseconds(5000 + 2082)).empty());
    EXPECT_EQ(following.transmit(t0 + microseconds(5000 + 3200)), (Bytes{0x1B, 0x20}));
    Clock::time_point later = t0 + std::chrono::seconds(1);
    following.receive(&request, 1, later);
    EXPECT_TRUE(following.transmit(later + microseconds(5199)).empty());
    EXPECT_EQ(following.transmit(later + microseconds(5300)), (Bytes{0x1B, 0x20}));
}

TEST(DeviceModel, ABadChecksumIsRefused) {
    DeviceConfig config;
    config.startInProgramMode = true;
    config.blockSize = 4;
    Device device(config);
    EXPECT_EQ(Device::checksum(Bytes{1, 2, 3, 4}.data(), 4), 0x89C3);  // CRC-16/CCITT-FALSE
    EXPECT_EQ(send(device, {0x1D, 2, 0, 0, 0, 6, 0, 2, 0, 0}), (Bytes{0x1D, 0x20}));
    EXPECT_EQ(send(device, {1, 2, 3, 4, 0x89, 0xC3}), (Bytes{0x20, 0x00, 0x01}));
    // The transfer ends, and the next byte is a request again.
    EXPECT_EQ(send(device, {5, 6, 0xC3, 0x89}), (Bytes{0x15, 0x00, 0x02}));
    EXPECT_EQ(send(device, {0x18}), (Bytes{0x18, 0x20}));
    EXPECT_EQ(device.imagesWritten(), 0);
}

// A host that never stops sending: the device keeps only what it was asked to record.
TEST(DeviceModel, RecordsReceivedBytesOnlyWhenAskedAndBounded) {
    Device quiet{DeviceConfig{}};
    Device recording{DeviceConfig{}};
    recording.recordReceived(1000);
    const Bytes chunk(65536, 0x55);
    Clock::time_point now = Clock::now();
    for (int i = 0; i < 64; ++i) {
        for (Device* d : {&quiet, &recording}) {
            d->receive(chunk.data(), chunk.size(), now);
            (void)d->transmit(now + std::chrono::hours(1));
        }
    }
    EXPECT_TRUE(quiet.received().empty());
    EXPECT_EQ(quiet.received().capacity(), 0u);
    EXPECT_EQ(recording.received().size(), 1000u);
}

}  // namespace
