// The device commands of the quelworks tool: ports, info, flash.
#ifndef QUELWORKS_TOOLS_CLI_DEVICE_COMMANDS_H
#define QUELWORKS_TOOLS_CLI_DEVICE_COMMANDS_H

#include <CLI/CLI.hpp>

namespace quelworks::cli {

// Registers `ports`, `info` and `flash` on `app`. Their callbacks throw CommandError on failure.
void addDeviceCommands(CLI::App& app);

}  // namespace quelworks::cli

#endif  // QUELWORKS_TOOLS_CLI_DEVICE_COMMANDS_H
