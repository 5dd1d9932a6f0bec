// Choosing ports for the device commands: --match patterns, and the rows of the several-device
// display.
#ifndef QUELWORKS_TOOLS_CLI_PORT_SELECT_H
#define QUELWORKS_TOOLS_CLI_PORT_SELECT_H

#include <string>
#include <vector>

#include "quelworks/serial/port_details.h"

namespace quelworks::cli {

// A shell-style glob: '*' any run of characters (also '/'), '?' any one character, the rest
// literally.
bool globMatch(const std::string& pattern, const std::string& text);

// Reads "VID:PID" (four hexadecimal digits each, "0403:6001"); false for anything else.
bool parseVidPid(const std::string& pattern, int* vendorId, int* productId);

// True if the port passes the --match pattern: its USB ids ("VID:PID"), its serial number, or
// a glob on its name or the name's last part.
bool portMatches(const PortDetails& port, const std::string& pattern);

// True if the pattern names files ("/dev/serial/by-id/*", "./ports/*") rather than listed ports.
bool isPathPattern(const std::string& pattern);

// One row of the several-device display:
// "/dev/ttyUSB0  A6008isP  [#####.....]  50%  11.2 KiB/s  writing", cut to `columns`.
std::string deviceRow(const std::string& port, const std::string& serial, long long done,
                      long long total, double rate, const std::string& state, int portWidth,
                      int columns);

// "0403:6001" or "" when the ids are unknown.
std::string formatVidPid(int vendorId, int productId);

}  // namespace quelworks::cli

#endif  // QUELWORKS_TOOLS_CLI_PORT_SELECT_H
