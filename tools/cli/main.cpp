// quelworks: the command-line tool for a serially attached device and its geometry helpers.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include "calibrate_commands.h"
#include "command_error.h"
#include "device_commands.h"
#include "geometry_commands.h"
#include "quelworks_tool_version.h"

int main(int argc, char** argv) {
    CLI::App app{"quelworks: the device on a serial port (ports, info, flash) and plane geometry"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "quelworks " QUELWORKS_TOOL_VERSION);
    quelworks::cli::addDeviceCommands(app);
    addGeometryCommands(app);
    addCalibrateCommands(app);
    // The first word that is not an option names the subcommand: say so when there is none of
    // that name rather than only that one is required.
    bool known = false;
    if (argc > 1) {
        for (const CLI::App* sub : app.get_subcommands({})) known |= sub->check_name(argv[1]);
    }
    if (argc > 1 && argv[1][0] != '-' && !known) {
        std::cerr << "quelworks: unknown subcommand '" << argv[1]
                  << "' (see 'quelworks --help' for the subcommands)\n";
        return quelworks::cli::kExitUsage;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return quelworks::cli::kExitUsage;
    } catch (const quelworks::cli::CommandError& e) {
        std::fflush(stdout);
        std::cerr << "quelworks: " << e.what() << "\n";
        return e.code();
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::cerr << "quelworks: " << e.what() << "\n";
        return quelworks::cli::kExitFailure;
    }
    return quelworks::cli::kExitOk;
}
