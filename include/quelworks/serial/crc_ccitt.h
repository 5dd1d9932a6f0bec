/// \file
/// CRC_CCITT: the 16-bit CRC of the polynomial 0x1021, most significant bit first, no reflection
/// and no final XOR. Started at 0xFFFF (AllOnes) it is the checksum the device expects after each
/// firmware block.
#ifndef QUELWORKS_SERIAL_CRC_CCITT_H
#define QUELWORKS_SERIAL_CRC_CCITT_H

#include "quelworks/export.h"

/// CRC-16 of polynomial 0x1021, MSB first, with a chosen start value (see the file description).
class QUELWORKS_API CRC_CCITT {
public:
    /// Start values. Any other 16-bit start value can be passed as
    /// static_cast<CRC_CCITT::InitialCrcValue>(value).
    enum InitialCrcValue : unsigned int {
        Zeros = 0x0000,      ///< the XMODEM variant
        AllOnes = 0xFFFF,    ///< the one the library uses
        Augmented = 0x1D0F,  ///< 0xFFFF run through two zero bytes
    };

    /// Stores the start value (truncated to 16 bits) and the polynomial, and builds the table.
    CRC_CCITT(InitialCrcValue initialValue);

    /// The checksum of `length` bytes at `data`, started afresh from the start value every call;
    /// a length of 0 or less gives the start value. The object is not changed.
    unsigned short ComputeChecksum(unsigned char* data, int length);

private:
    unsigned short polynomial;
    unsigned short table[256];
    unsigned short startValue;
};

#endif  // QUELWORKS_SERIAL_CRC_CCITT_H
