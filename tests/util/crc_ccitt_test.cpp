#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "quelworks/serial/crc_ccitt.h"

namespace {

// The checksum computed bit by bit, without any table: polynomial 0x1021, most significant bit
// first, no reflection, no final XOR.
std::uint16_t bitwise(std::uint16_t start, const std::vector<unsigned char>& data, std::size_t n) {
    std::uint16_t crc = start;
    for (std::size_t i = 0; i < n; ++i) {
        crc = static_cast<std::uint16_t>(crc ^ (data[i] << 8));
        for (int bit = 0; bit < 8; ++bit) {
            crc = static_cast<std::uint16_t>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
        }
    }
    return crc;
}

CRC_CCITT::InitialCrcValue start(unsigned value) {
    return static_cast<CRC_CCITT::InitialCrcValue>(value);
}

TEST(CrcCcitt, PublishedCheckValues) {
    unsigned char digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(CRC_CCITT(CRC_CCITT::AllOnes).ComputeChecksum(digits, 9), 0x29B1);    // CCITT-FALSE
    EXPECT_EQ(CRC_CCITT(CRC_CCITT::Zeros).ComputeChecksum(digits, 9), 0x31C3);      // XMODEM
    EXPECT_EQ(CRC_CCITT(CRC_CCITT::Augmented).ComputeChecksum(digits, 9), 0xE5CC);  // AUG-CCITT

    CRC_CCITT crc(CRC_CCITT::AllOnes);
    unsigned char zero = 0x00;
    unsigned char letterA = 0x41;
    EXPECT_EQ(crc.ComputeChecksum(&zero, 1), 0xE1F0);
    EXPECT_EQ(crc.ComputeChecksum(&letterA, 1), 0xB915);
    // From a start of 0 a single byte i gives the table entry i.
    CRC_CCITT fromZero(CRC_CCITT::Zeros);
    unsigned char one = 1;
    unsigned char two = 2;
    unsigned char all = 255;
    EXPECT_EQ(fromZero.ComputeChecksum(&one, 1), 0x1021);
    EXPECT_EQ(fromZero.ComputeChecksum(&two, 1), 0x2042);
    EXPECT_EQ(fromZero.ComputeChecksum(&all, 1), 0x1EF0);
}

TEST(CrcCcitt, NothingToCheckGivesTheStartValue) {
    unsigned char byte = 0x55;
    CRC_CCITT crc(CRC_CCITT::AllOnes);
    EXPECT_EQ(crc.ComputeChecksum(&byte, 0), 0xFFFF);
    EXPECT_EQ(crc.ComputeChecksum(&byte, -1), 0xFFFF);
    EXPECT_EQ(crc.ComputeChecksum(&byte, -100000), 0xFFFF);
    EXPECT_EQ(crc.ComputeChecksum(nullptr, 0), 0xFFFF);
    // The start value is truncated to 16 bits.
    EXPECT_EQ(CRC_CCITT(start(0x12345)).ComputeChecksum(&byte, 0), 0x2345);
}

// Every length from 0 to 300 (the many-bytes-per-step path and its byte-wise tail) and some long
// blocks, from several start values, against the bitwise computation; no state is carried over
// between calls, and copies compute the same.
TEST(CrcCcitt, MatchesBitwiseComputation) {
    std::mt19937 rng(1234);
    std::vector<unsigned char> data(70000);
    for (auto& b : data) b = static_cast<unsigned char>(rng());
    for (unsigned s : {0x0000u, 0xFFFFu, 0x1D0Fu, 0x8005u}) {
        CRC_CCITT crc(start(s));
        for (std::size_t n = 0; n <= 300; ++n) {
            ASSERT_EQ(crc.ComputeChecksum(data.data(), static_cast<int>(n)),
                      bitwise(static_cast<std::uint16_t>(s), data, n))
                << "start " << s << " length " << n;
        }
        for (std::size_t n : {4096u, 4099u, 65535u, 70000u}) {
            const unsigned short first = crc.ComputeChecksum(data.data(), static_cast<int>(n));
            EXPECT_EQ(first, bitwise(static_cast<std::uint16_t>(s), data, n));
            EXPECT_EQ(crc.ComputeChecksum(data.data(), static_cast<int>(n)), first);
        }
    }
    // Unaligned starts.
    CRC_CCITT crc(CRC_CCITT::AllOnes);
    for (std::size_t offset = 1; offset < 16; ++offset) {
        std::vector<unsigned char> tail(data.begin() + static_cast<std::ptrdiff_t>(offset),
                                        data.begin() + 1000);
        EXPECT_EQ(crc.ComputeChecksum(data.data() + offset, static_cast<int>(tail.size())),
                  bitwise(0xFFFF, tail, tail.size()));
    }
    CRC_CCITT copy(crc);
    CRC_CCITT assigned(CRC_CCITT::Zeros);
    assigned = crc;
    EXPECT_EQ(copy.ComputeChecksum(data.data(), 777), crc.ComputeChecksum(data.data(), 777));
    EXPECT_EQ(assigned.ComputeChecksum(data.data(), 777), crc.ComputeChecksum(data.data(), 777));
}

}  // namespace
