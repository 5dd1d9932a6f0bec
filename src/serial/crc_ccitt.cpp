#include "quelworks/serial/crc_ccitt.h"

#include <cstddef>
#include <cstdint>

namespace {

constexpr unsigned short kPolynomial = 0x1021;

// Sixteen bytes are folded into the checksum per step. Slice k holds, for each byte value x, the
// checksum (from 0) of x followed by k zero bytes; slice 0 is the ordinary byte table. Because the
// checksum is linear, a 16-byte block is the XOR of one lookup per byte once the current checksum
// has been XORed into the block's first two bytes. The slices are the same for every object (the
// polynomial is fixed), so they are computed once, at compile time.
constexpr int kSlices = 16;

struct SliceTables {
    std::uint16_t t[kSlices][256];
};

constexpr std::uint16_t byteTableEntry(unsigned i, unsigned short poly) {
    std::uint16_t crc = 0;
    std::uint16_t c = static_cast<std::uint16_t>(i << 8);
    for (int bit = 0; bit < 8; ++bit) {
        if ((crc ^ c) & 0x8000u) {
            crc = static_cast<std::uint16_t>((crc << 1) ^ poly);
        } else {
            crc = static_cast<std::uint16_t>(crc << 1);
        }
        c = static_cast<std::uint16_t>(c << 1);
    }
    return crc;
}

constexpr SliceTables makeSliceTables() {
    SliceTables s{};
    for (unsigned i = 0; i < 256; ++i) s.t[0][i] = byteTableEntry(i, kPolynomial);
    for (int k = 1; k < kSlices; ++k) {
        for (unsigned i = 0; i < 256; ++i) {
            const std::uint16_t prev = s.t[k - 1][i];
            s.t[k][i] = static_cast<std::uint16_t>((prev << 8) ^ s.t[0][prev >> 8]);
        }
    }
    return s;
}

constexpr SliceTables kSliceTables = makeSliceTables();

static_assert(kSliceTables.t[0][1] == 0x1021 && kSliceTables.t[0][255] == 0x1EF0,
              "byte table of 0x1021");

}  // namespace

CRC_CCITT::CRC_CCITT(InitialCrcValue initialValue)
    : polynomial(kPolynomial), table{}, startValue(static_cast<unsigned short>(initialValue)) {
    for (unsigned i = 0; i < 256; ++i) table[i] = byteTableEntry(i, polynomial);
}

unsigned short CRC_CCITT::ComputeChecksum(unsigned char* data, int length) {
    std::uint32_t crc = startValue;
    if (data == nullptr || length <= 0) return static_cast<unsigned short>(crc);

    const unsigned char* p = data;
    std::size_t remaining = static_cast<std::size_t>(length);
    const auto& t = kSliceTables.t;
    while (remaining >= kSlices) {
        crc = t[15][p[0] ^ (crc >> 8)] ^ t[14][p[1] ^ (crc & 0xFF)] ^ t[13][p[2]] ^ t[12][p[3]] ^
              t[11][p[4]] ^ t[10][p[5]] ^ t[9][p[6]] ^ t[8][p[7]] ^ t[7][p[8]] ^ t[6][p[9]] ^
              t[5][p[10]] ^ t[4][p[11]] ^ t[3][p[12]] ^ t[2][p[13]] ^ t[1][p[14]] ^ t[0][p[15]];
        p += kSlices;
        remaining -= kSlices;
    }
    // The last few bytes one at a time, through the object's own table.
    while (remaining-- > 0) {
        crc = ((crc << 8) & 0xFFFF) ^ table[((crc >> 8) ^ *p++) & 0xFF];
    }
    return static_cast<unsigned short>(crc);
}
