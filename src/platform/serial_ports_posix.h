// Port listing helpers of the POSIX backend, visible to its tests.
#ifndef QUELWORKS_PLATFORM_SERIAL_PORTS_POSIX_H
#define QUELWORKS_PLATFORM_SERIAL_PORTS_POSIX_H

#include <string>
#include <vector>

namespace quelworks::detail {

// The serial devices below `sysClassTty` (normally "/sys/class/tty") as paths in `devRoot`
// ("/dev"), in natural order. Only entries backed by hardware count: a "device" link must exist,
// and serial-core ports whose "type" reads 0 (8250 placeholders with no UART behind them) are
// skipped.
std::vector<std::string> listSerialDevices(const std::string& sysClassTty,
                                           const std::string& devRoot);

// Orders names with embedded numbers by value: "ttyUSB2" before "ttyUSB10".
bool naturalLess(const std::string& a, const std::string& b);

}  // namespace quelworks::detail

#endif  // QUELWORKS_PLATFORM_SERIAL_PORTS_POSIX_H
