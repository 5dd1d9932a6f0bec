// quelworks: the command-line tool for a serially attached device and its geometry helpers.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iostream>

#include "command_error.h"
#include "device_commands.h"
#ifdef QW_HAVE_GEOMETRY_COMMANDS
#include "geometry_commands.h"
#endif

int main(int argc, char** argv) {
    CLI::App app{"quelworks: the device on a serial port (ports, info, flash) and plane geometry"};
    app.require_subcommand(1);
    quelworks::cli::addDeviceCommands(app);
#ifdef QW_HAVE_GEOMETRY_COMMANDS
    addGeometryCommands(app);
#endif
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
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
