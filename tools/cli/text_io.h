// Reading input files and writing output files for the quelworks command's file commands, with
// failures reported as CommandError naming the file and the reason.
#ifndef QUELWORKS_TOOLS_CLI_TEXT_IO_H
#define QUELWORKS_TOOLS_CLI_TEXT_IO_H

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "command_error.h"

namespace quelworks::cli {

// The whole content of an input file ("what" names the kind of file in messages); a file that
// cannot be read is kExitBadInput.
inline std::string readInputFile(const std::string& path, const std::string& what) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) {
        throw CommandError(kExitBadInput, path + " is a folder, not " + what);
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) throw CommandError(kExitBadInput, "cannot open " + path + ": " + std::strerror(errno));
    std::ostringstream buffer;
    buffer << in.rdbuf();
    if (in.bad()) throw CommandError(kExitBadInput, "cannot read " + path);
    return buffer.str();
}

// Writes text to the file, or to standard output for "-"; failure is kExitFailure.
inline void writeOutputFile(const std::string& path, const std::string& text) {
    if (path == "-") {
        std::cout << text;
        std::cout.flush();
        if (!std::cout) throw CommandError(kExitFailure, "cannot write to standard output");
        return;
    }
    std::ofstream file(path, std::ios::binary);
    if (!file)
        throw CommandError(kExitFailure, "cannot write " + path + ": " + std::strerror(errno));
    file << text;
    file.close();
    if (!file) throw CommandError(kExitFailure, "cannot write " + path);
}

}  // namespace quelworks::cli

#endif  // QUELWORKS_TOOLS_CLI_TEXT_IO_H
