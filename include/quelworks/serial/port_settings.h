/// \file
/// The line settings and time-outs of a serial port, laid out like the Windows DCB and
/// COMMTIMEOUTS blocks so that the same fields mean the same thing on every system.
#ifndef QUELWORKS_SERIAL_PORT_SETTINGS_H
#define QUELWORKS_SERIAL_PORT_SETTINGS_H

#include <cstdint>

namespace quelworks {

/// Device-control block: baud rate, framing, flow control and special characters.
struct DeviceControlBlock {
    std::uint32_t DCBlength;              ///< size of the block in bytes
    std::uint32_t BaudRate;               ///< bits per second
    std::uint32_t fBinary : 1;            ///< binary mode (always 1)
    std::uint32_t fParity : 1;            ///< check parity on input
    std::uint32_t fOutxCtsFlow : 1;       ///< CTS output flow control
    std::uint32_t fOutxDsrFlow : 1;       ///< DSR output flow control
    std::uint32_t fDtrControl : 2;        ///< DTR line: 0 off, 1 on, 2 handshake
    std::uint32_t fDsrSensitivity : 1;    ///< ignore input while DSR is off
    std::uint32_t fTXContinueOnXoff : 1;  ///< keep sending after XOFF was sent
    std::uint32_t fOutX : 1;              ///< XON/XOFF flow control of output
    std::uint32_t fInX : 1;               ///< XON/XOFF flow control of input
    std::uint32_t fErrorChar : 1;         ///< replace bytes with parity errors by ErrorChar
    std::uint32_t fNull : 1;              ///< discard zero bytes
    std::uint32_t fRtsControl : 2;        ///< RTS line: 0 off, 1 on, 2 handshake, 3 toggle
    std::uint32_t fAbortOnError : 1;      ///< abort reads and writes on an error
    std::uint32_t fDummy2 : 17;           ///< reserved
    std::uint16_t wReserved;              ///< reserved, 0
    std::uint16_t XonLim;                 ///< free input bytes at which XON is sent
    std::uint16_t XoffLim;                ///< used input bytes at which XOFF is sent
    std::uint8_t ByteSize;                ///< data bits, 5 to 8
    std::uint8_t Parity;                  ///< 0 none, 1 odd, 2 even, 3 mark, 4 space
    std::uint8_t StopBits;                ///< 0 one, 1 one and a half, 2 two
    char XonChar;                         ///< the XON character
    char XoffChar;                        ///< the XOFF character
    char ErrorChar;                       ///< replacement for bytes with parity errors
    char EofChar;                         ///< end-of-input character
    char EvtChar;                         ///< event character
    std::uint16_t wReserved1;             ///< reserved
};

/// The five time-outs in milliseconds. A read of n bytes ends after
/// ReadTotalTimeoutMultiplier * n + ReadTotalTimeoutConstant ms, or when the gap between two bytes
/// exceeds ReadIntervalTimeout, and then succeeds with what it has (possibly nothing). A write of
/// n bytes may take up to WriteTotalTimeoutMultiplier * n + WriteTotalTimeoutConstant ms.
struct CommTimeouts {
    std::uint32_t ReadIntervalTimeout;          ///< ms
    std::uint32_t ReadTotalTimeoutMultiplier;   ///< ms
    std::uint32_t ReadTotalTimeoutConstant;     ///< ms
    std::uint32_t WriteTotalTimeoutMultiplier;  ///< ms
    std::uint32_t WriteTotalTimeoutConstant;    ///< ms
};

}  // namespace quelworks

#endif  // QUELWORKS_SERIAL_PORT_SETTINGS_H
