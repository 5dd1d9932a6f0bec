/// \file
/// Communicator: the abstract byte link to the device, implemented by RS232 and RS232Async.
#ifndef QUELWORKS_SERIAL_COMMUNICATOR_H
#define QUELWORKS_SERIAL_COMMUNICATOR_H

#include "quelworks/export.h"

/// Seven operations make up the whole virtual interface. There is no virtual destructor: a link is
/// always destroyed through its own class, and the protected destructor makes deleting one through
/// a Communicator pointer a compile error rather than a silent leak.
class QUELWORKS_API Communicator {
public:
    /// Whether the link holds an open port (see each implementation for the details).
    virtual bool IsConnected() = 0;
    /// Opens the named port ("COM3", "/dev/ttyUSB0"); true on success.
    virtual bool Connect(char* portName) = 0;
    /// Closes the port; harmless when it is not open.
    virtual void Disconnect() = 0;
    /// Sends the zero-terminated text without its terminator.
    virtual bool Send(char* text) = 0;
    /// Sends `length` bytes.
    virtual bool Send(unsigned char* data, int length) = 0;
    /// Receives exactly `count` bytes into data, waiting up to about `timeout` ms.
    virtual bool Receive(unsigned char* data, int count, int timeout) = 0;
    /// Receives what arrives until the line goes quiet; *data is malloc'ed, the caller frees it.
    virtual bool Receive(unsigned char** data, int* length, int timeout) = 0;

protected:
    /// Only for the implementations.
    Communicator() = default;
    /// Only for the implementations.
    Communicator(const Communicator&) = default;
    /// Only for the implementations.
    Communicator& operator=(const Communicator&) = default;
    /// Not virtual: destroy a link through its own class.
    ~Communicator() = default;
};

#endif  // QUELWORKS_SERIAL_COMMUNICATOR_H
