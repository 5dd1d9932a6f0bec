// How the quelworks command reports a failure: a one-line message (what happened, what to try)
// and an exit code of its own for each kind of failure.
#ifndef QUELWORKS_TOOLS_CLI_COMMAND_ERROR_H
#define QUELWORKS_TOOLS_CLI_COMMAND_ERROR_H

#include <stdexcept>
#include <string>

namespace quelworks::cli {

enum ExitCode : int {
    kExitOk = 0,
    kExitFailure = 1,          // anything not listed below
    kExitUsage = 2,            // bad command line
    kExitPortUnavailable = 3,  // no such port, or it cannot be opened
    kExitNoAnswer = 4,         // the device says nothing
    kExitBadReply = 5,         // the device answers, but not as expected
    kExitBaudSwitch = 6,       // the device refused the switch to its maximum baud rate
    kExitNoProgramMode = 7,    // the device did not enter programming mode
    kExitBadImage = 8,         // the image file cannot be read or is empty
    kExitHeaderRefused = 9,    // the device refused the firmware header
    kExitBlockRejected = 10,   // the device rejected a block
    kExitBadInput = 11,        // an input file other than an image is unusable
    // calibrate check found problems in the calibration
    kExitCalibrationFaults = 12,
    kExitInterrupted = 130,  // stopped by Ctrl-C (between two blocks of a flash)
};

// Thrown by a command; main prints "quelworks: <message>" and exits with `code`.
class CommandError : public std::runtime_error {
public:
    CommandError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
    int code() const { return code_; }

private:
    int code_;
};

}  // namespace quelworks::cli

#endif  // QUELWORKS_TOOLS_CLI_COMMAND_ERROR_H
