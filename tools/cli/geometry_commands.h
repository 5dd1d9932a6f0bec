// The geometry commands of the quelworks tool: `cover` (a polygon covered by rectangles) and
// `hatch` (an outline filled with horizontal segments), each drawn as an SVG picture.
#ifndef QUELWORKS_TOOLS_CLI_GEOMETRY_COMMANDS_H
#define QUELWORKS_TOOLS_CLI_GEOMETRY_COMMANDS_H

#include <CLI/CLI.hpp>

// Registers the `cover` and `hatch` subcommands with their callbacks.
void addGeometryCommands(CLI::App& app);

#endif  // QUELWORKS_TOOLS_CLI_GEOMETRY_COMMANDS_H
