// How this system resolves the name of a serial port, and what is behind it: for the quelworks
// command's messages, so that it needs no knowledge of the operating system.
#ifndef QUELWORKS_PLATFORM_PORT_NAME_H
#define QUELWORKS_PLATFORM_PORT_NAME_H

#include <string>

namespace quelworks {

struct PortNameCheck {
    enum class Status {
        Serial,     // a terminal device (or, where that cannot be told, anything that exists)
        Missing,    // nothing by that name; `error` says why
        NotSerial,  // exists, but is a file, a folder or a device that is no terminal
        Unknown,    // cannot be told before opening the port
    };
    Status status = Status::Unknown;
    std::string path;       // where the name leads, e.g. "ttyUSB0" -> "/dev/ttyUSB0"
    bool bareName = false;  // the name had no directory and was looked up in the port folder
    std::string error;      // the system's reason for Missing
};

// The path the serial link opens for the port `name` (the one rule for bare names, used by the
// link itself and by CheckPortName); empty for an empty name.
std::string ResolvePortPath(const std::string& name);

// Resolves `name` as the serial link will when it opens the port, and looks at what is there.
PortNameCheck CheckPortName(const std::string& name);

}  // namespace quelworks

#endif  // QUELWORKS_PLATFORM_PORT_NAME_H
