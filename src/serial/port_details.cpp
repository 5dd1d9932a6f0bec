#include "quelworks/serial/port_details.h"

#include "platform/serial_port.h"

namespace quelworks {

std::vector<PortDetails> ListPortDetails() {
    return detail::listPortDetails();
}

}  // namespace quelworks
