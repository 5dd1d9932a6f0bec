// Changes the settings of an RS232 link that is already open, for the library's own protocol code
// (the bootloader's switch to a higher baud rate on one connection). Not installed.
#ifndef QUELWORKS_SERIAL_LINK_SETTINGS_H
#define QUELWORKS_SERIAL_LINK_SETTINGS_H

#include "quelworks/serial/rs232.h"

namespace quelworks {

class LinkSettings {
public:
    // Configures the open port at the link's current Baudrate with the line settings Connect
    // uses (8 data bits, no parity, one stop bit, XON/XOFF as set). False when the port rejects
    // them; the link then behaves as after a rejected configuration in Connect.
    static bool ApplyBaudrate(RS232& link);
};

}  // namespace quelworks

#endif  // QUELWORKS_SERIAL_LINK_SETTINGS_H
