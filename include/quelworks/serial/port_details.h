// Port details: what the system knows about each serial port beyond its name (the USB adapter
// behind it, its serial number, where it is plugged in), so that a bench with several adapters
// can tell them apart.
#ifndef QUELWORKS_SERIAL_PORT_DETAILS_H
#define QUELWORKS_SERIAL_PORT_DETAILS_H

#include <string>
#include <vector>

#include "quelworks/export.h"

namespace quelworks {

/// What the system knows about one serial port; empty texts and -1 ids where it does not know.
struct PortDetails {
    std::string name;          ///< the port as the library opens it ("/dev/ttyUSB0", "COM3")
    std::string description;   ///< a human-readable description ("FT232R USB UART")
    int vendorId = -1;         ///< USB vendor id (0 to 0xFFFF), -1 if not a USB device
    int productId = -1;        ///< USB product id (0 to 0xFFFF), -1 if not a USB device
    std::string serialNumber;  ///< the USB device's serial number, if it has one
    std::string manufacturer;  ///< the USB device's manufacturer text
    std::string product;       ///< the USB device's product text
    std::string location;      ///< where the device sits on its bus ("1-1.2:1.0")
    std::string driver;        ///< the driver serving the port ("ftdi_sio", "cdc_acm", "serial")
};

/// Lists the serial ports with their details, the same ports in the same order as
/// RS232::GetCOMPorts.
QUELWORKS_API std::vector<PortDetails> ListPortDetails();

}  // namespace quelworks

#endif  // QUELWORKS_SERIAL_PORT_DETAILS_H
