// Communicator: the abstract byte link to the device, implemented by RS232 and RS232Async.
#ifndef QUELWORKS_SERIAL_COMMUNICATOR_H
#define QUELWORKS_SERIAL_COMMUNICATOR_H

#include "quelworks/export.h"

// Seven operations make up the whole virtual interface. There is no virtual destructor: a link is
// always destroyed through its own class, and the protected destructor makes deleting one through
// a Communicator pointer a compile error rather than a silent leak.
class QUELWORKS_API Communicator {
public:
    virtual bool IsConnected() = 0;
    virtual bool Connect(char* portName) = 0;
    virtual void Disconnect() = 0;
    virtual bool Send(char* text) = 0;
    virtual bool Send(unsigned char* data, int length) = 0;
    virtual bool Receive(unsigned char* data, int count, int timeout) = 0;
    virtual bool Receive(unsigned char** data, int* length, int timeout) = 0;

protected:
    Communicator() = default;
    Communicator(const Communicator&) = default;
    Communicator& operator=(const Communicator&) = default;
    ~Communicator() = default;
};

#endif  // QUELWORKS_SERIAL_COMMUNICATOR_H
