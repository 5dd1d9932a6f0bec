#include "platform/port_name.h"

namespace quelworks {

// A COM port is opened through the device namespace; whether it exists is known only on opening.
PortNameCheck CheckPortName(const std::string& name) {
    PortNameCheck check;
    check.bareName = name.find('\\') == std::string::npos && name.find('/') == std::string::npos;
    check.path = check.bareName ? "\\\\.\\" + name : name;
    check.status = PortNameCheck::Status::Unknown;
    return check;
}

}  // namespace quelworks
