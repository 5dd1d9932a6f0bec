// The serial port as the operating system offers it, with the Win32 meaning on every system.
//
// The link logic (RS232, RS232Async) reaches the OS only through these functions, so that tests can
// link the same logic with a fake backend. One implementation per OS: serial_port_posix.cpp and
// serial_port_win32.cpp for the port itself, serial_ports_*.cpp for the listing.
#ifndef QUELWORKS_PLATFORM_SERIAL_PORT_H
#define QUELWORKS_PLATFORM_SERIAL_PORT_H

#include <cstdint>
#include <vector>

#include "quelworks/serial/port_details.h"
#include "quelworks/serial/port_settings.h"
#include "quelworks/util/rlist.h"

namespace quelworks::detail {

using PortHandle = void*;

// The value that stands for "no port" (the Win32 invalid handle value).
inline PortHandle invalidPortHandle() {
    return reinterpret_cast<PortHandle>(~std::uintptr_t{0});
}

// Opens the port named by `devicePath` ("//./" + the port name) exclusively, for reading and
// writing. Returns invalidPortHandle() on failure.
PortHandle openPort(const char* devicePath);
// Closes the port. A handle that was already closed (or never valid) makes this fail harmlessly.
bool closePort(PortHandle handle);
// Reads and writes the line settings.
bool getCommState(PortHandle handle, DeviceControlBlock* settings);
bool setCommState(PortHandle handle, const DeviceControlBlock* settings);
// Reads and writes the five time-outs.
bool getCommTimeouts(PortHandle handle, CommTimeouts* timeouts);
bool setCommTimeouts(PortHandle handle, const CommTimeouts* timeouts);
// Blocking read of up to `count` bytes under the port's time-outs; succeeds with the bytes that
// arrived in time (possibly none).
bool readPort(PortHandle handle, void* data, std::uint32_t count, std::uint32_t* bytesRead);
// Blocking write under the port's write time-outs; a time-out is a success with fewer bytes.
bool writePort(PortHandle handle, const void* data, std::uint32_t count,
               std::uint32_t* bytesWritten);
// Makes a read or write that another thread is blocked in on `handle` return soon. Used before
// closing a port that a background thread is using.
void interruptPort(PortHandle handle);
// Appends the serial ports the system knows to `ports`, each a malloc'ed narrow text.
void listPorts(RList<char*>* ports);
// The same ports with what the system knows about each.
std::vector<PortDetails> listPortDetails();

}  // namespace quelworks::detail

#endif  // QUELWORKS_PLATFORM_SERIAL_PORT_H
