// The calibration commands of the quelworks tool: `calibrate check` (finds faults in a
// calibration file) and `calibrate map` (maps camera positions to device positions through it),
// each optionally drawn as an SVG picture of the camera and device grids.
#ifndef QUELWORKS_TOOLS_CLI_CALIBRATE_COMMANDS_H
#define QUELWORKS_TOOLS_CLI_CALIBRATE_COMMANDS_H

#include <CLI/CLI.hpp>

// Registers the `calibrate` subcommand with `check` and `map`.
void addCalibrateCommands(CLI::App& app);

#endif  // QUELWORKS_TOOLS_CLI_CALIBRATE_COMMANDS_H
