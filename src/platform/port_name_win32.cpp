#include "platform/port_name.h"

namespace quelworks {

namespace {

bool hasDirectory(const std::string& name) {
    return name.find('\\') != std::string::npos || name.find('/') != std::string::npos;
}

}  // namespace

// A bare name ("COM3") is a device in the device namespace.
std::string ResolvePortPath(const std::string& name) {
    if (name.empty() || hasDirectory(name)) return name;
    return "\\\\.\\" + name;
}

// Whether a COM port exists is known only on opening it.
PortNameCheck CheckPortName(const std::string& name) {
    PortNameCheck check;
    check.bareName = !hasDirectory(name);
    check.path = ResolvePortPath(name);
    check.status = PortNameCheck::Status::Unknown;
    return check;
}

}  // namespace quelworks
