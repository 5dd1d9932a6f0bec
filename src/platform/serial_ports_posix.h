// Port listing helpers of the POSIX backend, visible to its tests.
#ifndef QUELWORKS_PLATFORM_SERIAL_PORTS_POSIX_H
#define QUELWORKS_PLATFORM_SERIAL_PORTS_POSIX_H

#include <string>
#include <vector>

#include "quelworks/serial/port_details.h"

namespace quelworks::detail {

// The serial devices below `sysClassTty` (normally "/sys/class/tty") as paths in `devRoot`
// ("/dev"), in natural order. Only entries backed by hardware count: a "device" link must exist,
// and serial-core ports whose "type" reads 0 (8250 placeholders with no UART behind them) are
// skipped.
std::vector<std::string> listSerialDevices(const std::string& sysClassTty,
                                           const std::string& devRoot);

// The ports of listSerialDevices with what sysfs tells about each: the USB device above the port
// (ids, serial number, texts, interface), the driver, and the UART type of serial-core ports.
std::vector<PortDetails> listSerialDeviceDetails(const std::string& sysClassTty,
                                                 const std::string& devRoot);

// Orders names with embedded numbers by value: "ttyUSB2" before "ttyUSB10".
bool naturalLess(const std::string& a, const std::string& b);

}  // namespace quelworks::detail

#endif  // QUELWORKS_PLATFORM_SERIAL_PORTS_POSIX_H
