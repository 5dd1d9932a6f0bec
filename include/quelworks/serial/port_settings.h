// The line settings and time-outs of a serial port, laid out like the Windows DCB and
// COMMTIMEOUTS blocks so that the same fields mean the same thing on every system.
#ifndef QUELWORKS_SERIAL_PORT_SETTINGS_H
#define QUELWORKS_SERIAL_PORT_SETTINGS_H

#include <cstdint>

namespace quelworks {

// Device-control block: baud rate, framing, flow control and special characters.
struct DeviceControlBlock {
    std::uint32_t DCBlength;
    std::uint32_t BaudRate;
    std::uint32_t fBinary : 1;
    std::uint32_t fParity : 1;
    std::uint32_t fOutxCtsFlow : 1;
    std::uint32_t fOutxDsrFlow : 1;
    std::uint32_t fDtrControl : 2;
    std::uint32_t fDsrSensitivity : 1;
    std::uint32_t fTXContinueOnXoff : 1;
    std::uint32_t fOutX : 1;
    std::uint32_t fInX : 1;
    std::uint32_t fErrorChar : 1;
    std::uint32_t fNull : 1;
    std::uint32_t fRtsControl : 2;
    std::uint32_t fAbortOnError : 1;
    std::uint32_t fDummy2 : 17;
    std::uint16_t wReserved;
    std::uint16_t XonLim;
    std::uint16_t XoffLim;
    std::uint8_t ByteSize;
    std::uint8_t Parity;    // 0 none, 1 odd, 2 even, 3 mark, 4 space
    std::uint8_t StopBits;  // 0 one, 1 one and a half, 2 two
    char XonChar;
    char XoffChar;
    char ErrorChar;
    char EofChar;
    char EvtChar;
    std::uint16_t wReserved1;
};

// The five time-outs in milliseconds. A read of n bytes ends after
// ReadTotalTimeoutMultiplier * n + ReadTotalTimeoutConstant ms, or when the gap between two bytes
// exceeds ReadIntervalTimeout, and then succeeds with what it has (possibly nothing). A write of
// n bytes may take up to WriteTotalTimeoutMultiplier * n + WriteTotalTimeoutConstant ms.
struct CommTimeouts {
    std::uint32_t ReadIntervalTimeout;
    std::uint32_t ReadTotalTimeoutMultiplier;
    std::uint32_t ReadTotalTimeoutConstant;
    std::uint32_t WriteTotalTimeoutMultiplier;
    std::uint32_t WriteTotalTimeoutConstant;
};

}  // namespace quelworks

#endif  // QUELWORKS_SERIAL_PORT_SETTINGS_H
