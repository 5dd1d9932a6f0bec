#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "quelworks/serial/crc_ccitt.h"

namespace {

// The checksum computed bit by bit, without any table: polynomial 0x1021, most significant bit
// first, no reflection, no final XOR.
std::uint16_t bitwise(std::uint16_t crc, const unsigned char* data, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        crc = static_cast<std::uint16_t>(crc ^ (data[i] << 8));
        for (int bit = 0; bit < 8; ++bit)
            crc = static_cast<std::uint16_t>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
    }
    return crc;
}

TEST(CrcCcitt, PublishedCheckValues) {
    unsigned char digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(CRC_CCITT(CRC_CCITT::AllOnes).ComputeChecksum(digits, 9), 0x29B1);    // CCITT-FALSE
    EXPECT_EQ(CRC_CCITT(CRC_CCITT::Zeros).ComputeChecksum(digits, 9), 0x31C3);      // XMODEM
    EXPECT_EQ(CRC_CCITT(CRC_CCITT::Augmented).ComputeChecksum(digits, 9), 0xE5CC);  // AUG-CCITT
    unsigned char letterA = 'A';
    EXPECT_EQ(CRC_CCITT(CRC_CCITT::AllOnes).ComputeChecksum(&letterA, 1), 0xB915);
}

// Every length from -2 to 300 at every alignment (the many-bytes-per-step path and its byte-wise
// tail) and some long blocks, from several start values, against the bitwise computation. Each
// call starts afresh from the start value, which is truncated to 16 bits.
TEST(CrcCcitt, MatchesBitwiseComputation) {
    std::mt19937 rng(1234);
    std::vector<unsigned char> data(70016);
    for (auto& b : data) b = static_cast<unsigned char>(rng());
    for (unsigned start : {0x0000u, 0xFFFFu, 0x1D0Fu, 0x18005u}) {
        CRC_CCITT crc(static_cast<CRC_CCITT::InitialCrcValue>(start));
        const auto start16 = static_cast<std::uint16_t>(start);
        for (int n = -2; n <= 300; ++n) {
            unsigned char* at = data.data() + (n + 2) % 16;
            ASSERT_EQ(crc.ComputeChecksum(at, n), bitwise(start16, at, n > 0 ? n : 0))
                << "start " << start << " length " << n;
        }
        for (int n : {4096, 4099, 65535, 70000}) {
            EXPECT_EQ(crc.ComputeChecksum(data.data(), n), bitwise(start16, data.data(), n));
            EXPECT_EQ(crc.ComputeChecksum(data.data() + 3, n),
                      bitwise(start16, data.data() + 3, n));
        }
    }
}

}  // namespace
