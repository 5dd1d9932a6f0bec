/// \file
/// RS232: the synchronous serial port. Every operation runs on the caller's thread and blocks until
/// it completes or its time-out expires.
#ifndef QUELWORKS_SERIAL_RS232_H
#define QUELWORKS_SERIAL_RS232_H

#include <cstdint>
#include <type_traits>

#include "quelworks/export.h"
#include "quelworks/serial/communicator.h"
#include "quelworks/serial/port_settings.h"
#include "quelworks/util/rlist.h"

namespace quelworks {
/// Internal: changes the line settings of an already open link (not part of the interface).
class LinkSettings;
}  // namespace quelworks

/// The synchronous serial port: every operation blocks the caller until done or timed out.
class QUELWORKS_API RS232 : public Communicator {
public:
    /// A closed port at 9600 baud, no stored name, line terminator "\r\n".
    RS232();
    /// Member-wise: the copy refers to the same open port and the same port-name storage. The
    /// name is reference-counted internally, so copies never release it twice.
    RS232(const RS232& other);
    /// Member-wise, like the copy constructor: both then refer to the same port.
    RS232& operator=(const RS232& other);
    /// Releases the port name, then closes the port.
    ~RS232();

    /// True exactly when portHandle holds a handle (also a stale one after a rejected
    /// configuration).
    bool IsConnected() override;
    /// Opens the port at Baudrate, 8 data bits, no parity, one stop bit, all time-outs 1000 ms.
    bool Connect(char* portName) override;
    /// Closes the port; harmless when it is not open.
    void Disconnect() override;
    /// Sends the zero-terminated text without its terminator.
    bool Send(char* text) override;
    /// Writes in chunks of 50 bytes, calling SendProgressCallback between them.
    bool Send(unsigned char* data, int length) override;
    /// Reads exactly `count` bytes, one read per byte; each byte waits up to 2 x timeout ms.
    bool Receive(unsigned char* data, int count, int timeout) override;
    /// Collects bytes until the line goes quiet; *data is malloc'ed, the caller frees it.
    bool Receive(unsigned char** data, int* length, int timeout) override;

    /// A malloc'ed copy of the stored port name (caller frees), or null when none is stored.
    char* PortName();
    /// Stores a copy of `name`; an empty name leaves the link without one. `name` must not be null.
    void PortName(char* name);
    /// The same for const text (only read); a template, so that null still picks the one above.
    template <typename Text, std::enable_if_t<std::is_same<Text, const char*>::value, int> = 0>
    /// Stores a copy of a const text name; see PortName(char*).
    void PortName(Text name) {
        PortName(const_cast<char*>(name));
    }
    /// Connects to the stored port name through the virtual Connect(char*).
    bool Connect();
    /// Reads until the received text ends with LineTerminator; *data is malloc'ed, zero-terminated,
    /// and *length counts the terminator but not the extra zero byte.
    bool ReceiveLine(unsigned char** data, int* length, int timeout);
    /// Empties `ports` (freeing its texts) and fills it with the serial ports the system knows,
    /// each a malloc'ed text the caller frees.
    void GetCOMPorts(RList<char*>* ports);

private:
    /// The asynchronous link reaches into its own port to interrupt a blocked read.
    friend class RS232Async;
    /// The bootloader's one-connection flash changes the baud rate of the open port.
    friend class quelworks::LinkSettings;

    bool OpenPort(char* name);
    bool ConfigurePort(unsigned long baudRate, unsigned char byteSize, unsigned long parityCheck,
                       unsigned char parity, unsigned char stopBits);
    bool SetCommunicationTimeouts(unsigned long readInterval, unsigned long readTotalMultiplier,
                                  unsigned long readTotalConstant,
                                  unsigned long writeTotalMultiplier,
                                  unsigned long writeTotalConstant);
    void ClosePort();
    bool ReadByte(unsigned char* byte);

    void* portHandle;
    quelworks::DeviceControlBlock deviceControl;
    quelworks::CommTimeouts timeouts;
    std::int32_t lastResult;
    std::uint32_t bytesWritten;
    char* portNameBuffer;

public:
    /// Baud rate that Connect configures (default 9600).
    std::uint32_t Baudrate;
    /// Progress of Send (done, total); returning false aborts the send. May be null.
    bool (*SendProgressCallback)(int done, int total);
    /// End-of-line text of ReceiveLine (default "\r\n"); not owned.
    const char* LineTerminator;
    /// XON/XOFF flow control in both directions, applied at the next Connect.
    bool XonXoffFlowControl;
};

#endif  // QUELWORKS_SERIAL_RS232_H
