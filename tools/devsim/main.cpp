// quelworks-devsim: a simulated device on a pseudo-terminal. Prints the port to open on its first
// line and serves until interrupted (SIGINT or SIGTERM).
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "pty_server.h"
#include "quelworks_tool_version.h"

namespace {

quelworks::devsim::PtyServer* g_server = nullptr;

void onSignal(int) {
    if (g_server) g_server->requestStop();
}

}  // namespace

int main(int argc, char** argv) {
    using quelworks::devsim::DeviceConfig;
    DeviceConfig config;
    std::string imageOut, tracePath, linkPath, lineRate = "0";
    int replyDelayMs = 0;

    CLI::App app{
        "Simulated quelworks device: serves the bootloader protocol on a pseudo-terminal.\n"
        "Prints the port path on the first line, then runs until SIGINT or SIGTERM.\n"
        "Numbers may be given in hex (0x...)."};
    app.option_defaults()->always_capture_default();
    app.set_version_flag("--version", "quelworks-devsim " QUELWORKS_TOOL_VERSION);

    auto identity = "Identity";
    app.add_option("--type", config.deviceType, "device type (0 to 0xFFFF)")
        ->check(CLI::Range(0u, 0xFFFFu).description(""))
        ->group(identity);
    app.add_flag("--one-byte-type", config.oneByteType,
                 "answer the type request with one data byte (older devices)")
        ->group(identity);
    app.add_option("--sub-type", config.subType, "device sub-type (0 to 0xFFFF)")
        ->check(CLI::Range(0u, 0xFFFFu).description(""))
        ->group(identity);
    app.add_option("--revision", config.revision, "hardware revision (0 to 0xFFFF)")
        ->check(CLI::Range(0u, 0xFFFFu).description(""))
        ->group(identity);
    app.add_option("--firmware", config.firmwareVersion, "firmware version (0 to 0xFFFF)")
        ->check(CLI::Range(0u, 0xFFFFu).description(""))
        ->group(identity);
    app.add_option("--bootloader", config.bootloaderVersion,
                   "bootloader version, 0 to 0xFFFF (above 1, entering programming mode "
                   "also needs the text \"Enter Progmode\\r\\n\" after the enter request)")
        ->check(CLI::Range(0u, 0xFFFFu).description(""))
        ->group(identity);
    app.add_option("--serial", config.serialNumber,
                   "serial number (at most 8 characters; shorter ones are padded with "
                   "zero bytes)")
        ->group(identity);
    app.add_option("--description", config.description, "free-text description")->group(identity);
    app.add_option("--max-baud", config.maxBaudrate, "highest baud rate (1 to 4000000)")
        ->check(CLI::Range(1u, 4000000u).description(""))
        ->group(identity);
    app.add_option("--block-size", config.blockSize, "firmware block size in bytes (1 to 65536)")
        ->check(CLI::Range(1u, 65536u).description(""))
        ->group(identity);
    app.add_option("--param2", config.programParameter2, "second program parameter")
        ->group(identity);
    app.add_flag("--program-mode", config.startInProgramMode, "start in programming mode")
        ->group(identity);

    auto faults = "Faults";
    app.add_option("--wrong-echo", config.wrongEchoFor,
                   "spoil the echo of the replies to this request byte (e.g. 0x17; -1: "
                   "none)")
        ->check(CLI::Range(-1, 255).description(""))
        ->group(faults);
    app.add_option("--wrong-echo-times", config.wrongEchoTimes,
                   "spoil only this many of them (-1: all)")
        ->check(CLI::Range(-1, 1000000).description(""))
        ->group(faults);
    app.add_flag("--silent", config.silent, "never answer")->group(faults);
    app.add_option("--reply-delay", replyDelayMs,
                   "delay every reply by this many ms (0 to 600000; 0: no delay)")
        ->check(CLI::Range(0, 600000).description(""))
        ->group(faults);
    app.add_option("--reject-block", config.rejectBlock,
                   "refuse this block (1 = the first; 0: none)")
        ->check(CLI::Range(0, 1000000).description(""))
        ->group(faults);
    app.add_flag("--never-enter", config.neverEnterProgramMode, "never enter programming mode")
        ->group(faults);
    app.add_flag("--unterminated-description", config.unterminatedDescription,
                 "end the description without its zero byte")
        ->group(faults);
    app.add_flag("--refuse-header", config.refuseHeader, "refuse every firmware header")
        ->group(faults);
    app.add_option("--polls", config.pollsBeforeProgramMode,
                   "how many program-mode requests (0x18) after the enter request are "
                   "answered \"not yet\" before the device is in programming mode (0: none)")
        ->check(CLI::Range(0, 1000000).description(""))
        ->group(faults);

    app.add_option("--line-rate", lineRate,
                   "emulate a line of this many baud (each byte takes 10 bit times); 'device' "
                   "follows the device's own rate (9600, then the maximum after a switch); 0: off");
    app.add_option("--image-out", imageOut, "write each completely received image to this file");
    app.add_option("--trace", tracePath,
                   "log every request the device sees to this file ('-': standard error)");
    app.add_option("--link", linkPath, "also make this path a symbolic link to the port");

    // Help without the parser's type names: each text says what it takes.
    for (CLI::Option* option : app.get_options()) {
        std::string type = option->get_type_name();
        if (type.empty()) continue;  // a flag
        option->type_name(type.rfind("TEXT", 0) == 0 ? "TEXT" : "N");
    }
    for (const char* file : {"--image-out", "--trace", "--link"})
        app.get_option(file)->type_name("FILE");
    app.get_option("--line-rate")->type_name("N|device");

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return 2;  // every usage error, the parser's and our own
    }
    if (config.serialNumber.size() > 8) {
        std::cerr << "quelworks-devsim: --serial takes at most 8 characters, not "
                  << config.serialNumber.size() << " ('" << config.serialNumber << "')\n";
        return 2;
    }
    if (!imageOut.empty()) {
        // Fail now, not after the first complete image: check that the file can be written.
        bool existed = static_cast<bool>(std::ifstream(imageOut));
        bool writable = static_cast<bool>(std::ofstream(imageOut, std::ios::app));
        if (!existed && writable) std::remove(imageOut.c_str());
        if (!writable) {
            std::cerr << "quelworks-devsim: cannot write the image to '" << imageOut << "'\n";
            return 2;
        }
    }

    if (lineRate == "device") {
        config.lineFollowsBaud = true;
    } else {
        try {
            std::size_t used = 0;
            if (lineRate.empty() || lineRate[0] == '-' || lineRate[0] == '+') {
                throw std::invalid_argument(lineRate);
            }
            unsigned long rate = std::stoul(lineRate, &used, 0);
            if (used != lineRate.size() || rate > 4000000) throw std::invalid_argument(lineRate);
            config.lineRate = static_cast<std::uint32_t>(rate);
        } catch (const std::exception&) {
            std::cerr << "quelworks-devsim: --line-rate wants a number of baud (0 to 4000000) or "
                         "'device', not '"
                      << lineRate << "'\n";
            return 2;
        }
    }
    config.replyDelay = std::chrono::milliseconds(replyDelayMs);

    quelworks::devsim::PtyServer server(config, imageOut);
    std::string error;
    if (!server.open(&error)) {
        std::cerr << "quelworks-devsim: " << error << "\n";
        return 1;
    }

    std::unique_ptr<std::ofstream> traceFile;
    if (tracePath == "-") {
        server.setTrace([](const std::string& line) { std::cerr << line << '\n'; });
    } else if (!tracePath.empty()) {
        traceFile = std::make_unique<std::ofstream>(tracePath);
        if (!*traceFile) {
            std::cerr << "quelworks-devsim: cannot write the trace to '" << tracePath << "'\n";
            return 1;
        }
        std::ofstream* out = traceFile.get();
        server.setTrace([out](const std::string& line) { *out << line << '\n' << std::flush; });
    }

    if (!linkPath.empty()) {
        ::unlink(linkPath.c_str());
        if (::symlink(server.portPath().c_str(), linkPath.c_str()) != 0) {
            std::cerr << "quelworks-devsim: cannot link '" << linkPath << "' to the port\n";
            return 1;
        }
    }

    g_server = &server;
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);

    std::cout << server.portPath() << std::endl;
    server.run();
    g_server = nullptr;

    if (!linkPath.empty()) ::unlink(linkPath.c_str());
    std::string problems = server.problems();
    if (!problems.empty()) std::cerr << "quelworks-devsim: " << problems << "\n";
    return 0;
}
