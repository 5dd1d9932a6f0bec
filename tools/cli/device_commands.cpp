#include "device_commands.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "bootloader/device_check.h"
#include "command_error.h"
#include "interrupt.h"
#include "platform/port_name.h"
#include "progress.h"
#include "quelworks/bootloader/bootloader.h"
#include "quelworks/serial/rs232.h"

namespace quelworks::cli {

namespace {

using SteadyClock = std::chrono::steady_clock;

struct DeviceOptions {
    std::string port;
    int timeout = 1000;
};

struct InfoOptions : DeviceOptions {
    bool json = false;
};

struct FlashOptions : DeviceOptions {
    std::string image;
    bool maxBaud = false;
    int value = 0;
    std::string progress = "auto";
};

std::string hexByte(unsigned value) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", value & 0xFFu);
    return text;
}

std::string cannotOpen(const std::string& port, bool listed) {
    return "cannot open port " + port + " (" +
           (listed ? "" : "is it listed by 'quelworks ports'? ") +
           "is another program using it? do you have permission?)";
}

// Fails with a clear message unless the port exists, is a serial port and can be opened.
void checkPort(const std::string& port) {
    if (port.empty()) {
        throw CommandError(kExitPortUnavailable,
                           "no port given: the port name is empty (see 'quelworks ports')");
    }
    PortNameCheck check = CheckPortName(port);
    if (check.status == PortNameCheck::Status::Missing) {
        std::string where = check.path == port
                                ? ""
                                : " (a name without a directory means " + check.path +
                                      "; write ./" + port + " for a file here)";
        throw CommandError(kExitPortUnavailable,
                           "no such port '" + port + "': " + check.error + where +
                               " (see 'quelworks ports' for the ports this system knows)");
    }
    if (check.status == PortNameCheck::Status::NotSerial) {
        throw CommandError(kExitPortUnavailable, "'" + port + "' is not a serial port");
    }
    RS232 link;
    link.PortName(port.c_str());
    if (!link.Connect()) {
        throw CommandError(kExitPortUnavailable,
                           cannotOpen(port, check.status == PortNameCheck::Status::Serial));
    }
    link.Disconnect();
}

// How long to listen for a late reply after a time-out of `timeout` ms.
int lateWindowMs(int timeout) {
    return std::min(std::max(3000, 4 * timeout), 60000);
}

[[noreturn]] void throwLate(const std::string& port, int timeout) {
    throw CommandError(kExitBadReply, "the device on " + port +
                                          " answers, but later than the --timeout of " +
                                          std::to_string(timeout) +
                                          " ms (a reply arrived after its time-out); "
                                          "try a longer --timeout, e.g. --timeout " +
                                          std::to_string(std::min(4 * timeout, 600000)));
}

// Called when the device's identity did not read back: asks the device again and throws the
// error that says best what went wrong.
[[noreturn]] void diagnose(const std::string& port, int timeout, std::uint32_t baudrate) {
    using Problem = IdentityDiagnosis::Problem;
    IdentityDiagnosis d = DiagnoseIdentity(port.c_str(), timeout, baudrate, lateWindowMs(timeout));
    std::string request = std::string(d.requestName) + " request (" + hexByte(d.request) + ")";
    switch (d.problem) {
        case Problem::PortUnavailable:
            throw CommandError(kExitPortUnavailable, cannotOpen(port, true));
        case Problem::NoAnswer:
            throw CommandError(kExitNoAnswer, "no answer from the device on " + port +
                                                  " (is it powered and on this port?)");
        case Problem::LateReply:
            throwLate(port, timeout);
        case Problem::StoppedAnswering:
            throw CommandError(kExitBadReply, "the device on " + port +
                                                  " stopped answering at the " + request +
                                                  "; try a longer --timeout");
        case Problem::WrongEcho:
            throw CommandError(kExitBadReply,
                               "the device on " + port + " answered the " + request + " with " +
                                   hexByte(d.replyByte) +
                                   " instead of its echo (wrong baud rate, or not a bootloader "
                                   "device?)");
        case Problem::Unterminated:
            throw CommandError(kExitBadReply, "the description from the device on " + port +
                                                  " is not terminated; try a longer --timeout");
        case Problem::NoProgramParameters:
            throw CommandError(kExitBadReply, "the device on " + port +
                                                  " does not report its program parameters (" +
                                                  hexByte(d.request) + ")");
        case Problem::None:
            break;
    }
    throw CommandError(kExitBadReply,
                       "the identity of the device on " + port +
                           " did not read back completely although it answers; try a longer "
                           "--timeout");
}

struct Identity {
    int deviceType = 0, subDeviceType = 0, revision = 0, firmwareVersion = 0;
    int bootloaderVersion = 0, maxBaudrate = 0;
    bool inProgramMode = false;
    std::string serialNumber, description;
};

std::string takeString(char* text) {
    std::string result = text != nullptr ? text : "";
    std::free(text);
    return result;
}

Identity readIdentity(Bootloader& boot) {
    Identity id;
    boot.GetDeviceType(&id.deviceType);
    boot.GetSubDeviceType(&id.subDeviceType);
    boot.GetRevision(&id.revision);
    boot.GetFirmwareVersion(&id.firmwareVersion);
    boot.GetBootloaderVersion(&id.bootloaderVersion);
    boot.GetMaxBaudrate(&id.maxBaudrate);
    Bootloader::DeviceProgrammingState mode = Bootloader::NotInProgramMode;
    boot.GetProgramMode(&mode);
    id.inProgramMode = mode == Bootloader::InProgramMode;
    char* text = nullptr;
    if (boot.GetSerialNumber(&text)) id.serialNumber = takeString(text);
    text = nullptr;
    if (boot.GetDeviceDescription(&text)) id.description = takeString(text);
    return id;
}

// Connects, reads the identity and explains a failure.
std::unique_ptr<Bootloader> connectDevice(const DeviceOptions& options) {
    checkPort(options.port);
    auto boot = std::make_unique<Bootloader>(options.port.c_str(), options.timeout, true);
    if (!boot->IsDeviceInfoAvailable()) diagnose(options.port, options.timeout, 9600);
    return boot;
}

// Length of the well-formed UTF-8 sequence at text[at], or 0 if the bytes there are not one
// (overlong forms, surrogates and code points above U+10FFFF count as malformed).
std::size_t utf8SequenceLength(const std::string& text, std::size_t at) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char lead = byte(at);
    std::size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;  // the allowed range of the second byte
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (at + length > text.size()) return 0;
    if (byte(at + 1) < low || byte(at + 1) > high) return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) return 0;
    }
    return length;
}

// A JSON string: valid UTF-8 is kept as it is, each byte that is not part of a well-formed
// sequence becomes U+FFFD, and only what JSON requires is escaped.
std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (std::size_t at = 0; at < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[at]);
        std::size_t length = utf8SequenceLength(text, at);
        if (length == 0) {
            out += "\xEF\xBF\xBD";
            ++at;
            continue;
        }
        if (length > 1) {
            out.append(text, at, length);
            at += length;
            continue;
        }
        ++at;
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20 || c == 0x7F) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    out += escaped;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

// Device text made safe for a terminal: control bytes shown as \xNN.
std::string printable(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

void runPorts() {
    RS232 link;
    RList<char*> ports;
    link.GetCOMPorts(&ports);
    int count = 0;
    for (Iter<char*> it = ports.begin(); it != ports.end(); ++it) {
        std::cout << *it << "\n";
        std::free(*it);
        ++count;
    }
    ports.free();
    if (count == 0) std::cerr << "quelworks: no serial ports found\n";
}

void runInfo(const InfoOptions& options) {
    std::unique_ptr<Bootloader> boot = connectDevice(options);
    Identity id = readIdentity(*boot);
    if (options.json) {
        std::cout << "{\"port\": " << jsonString(options.port)
                  << ", \"deviceType\": " << id.deviceType
                  << ", \"subDeviceType\": " << id.subDeviceType
                  << ", \"revision\": " << id.revision
                  << ", \"firmwareVersion\": " << id.firmwareVersion
                  << ", \"bootloaderVersion\": " << id.bootloaderVersion
                  << ", \"serialNumber\": " << jsonString(id.serialNumber)
                  << ", \"description\": " << jsonString(id.description)
                  << ", \"maxBaudrate\": " << id.maxBaudrate
                  << ", \"inProgramMode\": " << (id.inProgramMode ? "true" : "false") << "}\n";
        return;
    }
    char hex[16];
    std::snprintf(hex, sizeof hex, " (0x%04X)", static_cast<unsigned>(id.deviceType));
    char fw[16];
    std::snprintf(fw, sizeof fw, " (0x%04X)", static_cast<unsigned>(id.firmwareVersion));
    const std::pair<const char*, std::string> rows[] = {
        {"port", options.port},
        {"device type", std::to_string(id.deviceType) + hex},
        {"sub-type", std::to_string(id.subDeviceType)},
        {"revision", std::to_string(id.revision)},
        {"firmware version", std::to_string(id.firmwareVersion) + fw},
        {"bootloader version", std::to_string(id.bootloaderVersion)},
        {"serial number", printable(id.serialNumber)},
        {"description", printable(id.description)},
        {"maximum baud rate", std::to_string(id.maxBaudrate)},
        {"program mode", id.inProgramMode ? "yes (bootloader active)" : "no (application running)"},
    };
    for (const auto& row : rows) {
        std::string label = std::string(row.first) + ":";
        std::printf("%-20s%s\n", label.c_str(), row.second.c_str());
    }
}

// The progress callback is a plain function pointer: its state lives here.
struct FlashProgress {
    ProgressReporter* reporter = nullptr;
    SteadyClock::time_point start;
    int calls = 0;
    int lastDone = 0;
};
FlashProgress g_progress;

// Ctrl-C during a flash: the block in flight is finished, then the flash stops before the next
// one (the callback runs between blocks). A second Ctrl-C ends the program at once.
const InterruptWatch* g_interrupt = nullptr;

// Thrown from the progress callback, which runs between blocks, to stop the flash there.
struct FlashInterrupted {
    int done;
};

void onProgress(int done, int total) {
    if (g_interrupt != nullptr && g_interrupt->requested() && done < total) {
        throw FlashInterrupted{done};
    }
    if (g_progress.calls == 0) g_progress.start = SteadyClock::now();
    ++g_progress.calls;
    g_progress.lastDone = done;
    double elapsed = std::chrono::duration<double>(SteadyClock::now() - g_progress.start).count();
    if (g_progress.reporter) g_progress.reporter->update(done, total, elapsed);
}

long long checkImage(const std::string& path) {
    struct stat info;
    if (::stat(path.c_str(), &info) != 0) {
        throw CommandError(kExitBadImage,
                           "cannot read image file '" + path + "': " + std::strerror(errno));
    }
    if (S_ISDIR(info.st_mode)) {
        throw CommandError(kExitBadImage,
                           "cannot read image file '" + path + "': " + std::strerror(EISDIR));
    }
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        throw CommandError(kExitBadImage,
                           "cannot read image file '" + path + "': " + std::strerror(errno));
    }
    std::fclose(file);
    long long size = static_cast<long long>(info.st_size);
    if (size == 0) {
        throw CommandError(kExitBadImage, "image file '" + path + "' is empty: nothing to flash");
    }
    if (size > INT_MAX) {
        throw CommandError(kExitBadImage, "image file '" + path + "' is too large (" +
                                              formatBytes(static_cast<double>(size)) +
                                              "; at most 2 GiB)");
    }
    return size;
}

void runFlash(const FlashOptions& options) {
    long long imageSize = checkImage(options.image);
    std::unique_ptr<Bootloader> boot = connectDevice(options);
    Identity id = readIdentity(*boot);
    std::printf("device: type %d, firmware %d, bootloader %d, serial %s\n", id.deviceType,
                id.firmwareVersion, id.bootloaderVersion, printable(id.serialNumber).c_str());

    std::uint32_t baudrate = 9600;
    if (options.maxBaud) {
        if (!boot->SwitchToMaxBaudrate()) {
            throw CommandError(kExitBaudSwitch,
                               "the device refused to switch to its maximum baud rate (" +
                                   std::to_string(id.maxBaudrate) + "); flash without --max-baud");
        }
        baudrate = static_cast<std::uint32_t>(id.maxBaudrate);
        std::printf("line: switched to %u baud\n", baudrate);
    }
    if (!boot->EnterBootloader()) {
        throw CommandError(kExitNoProgramMode,
                           "the device on " + options.port +
                               " did not enter programming mode (power-cycle it and try again, "
                               "or try a longer --timeout)");
    }
    int blockSize = ReadBlockSize(options.port.c_str(), options.timeout, baudrate);
    long long blocks = blockSize > 0 ? (imageSize + blockSize - 1) / blockSize : 0;
    if (blockSize > 0) {
        std::printf("writing %lld bytes in %lld blocks of %d bytes\n", imageSize, blocks,
                    blockSize);
    } else {
        std::printf("writing %lld bytes\n", imageSize);
    }
    std::fflush(stdout);

    ProgressReporter::Style style = ProgressReporter::Style::Lines;
    if (options.progress == "none") {
        style = ProgressReporter::Style::None;
    } else if (options.progress == "bar" || (options.progress == "auto" && isTerminal(stderr))) {
        style = ProgressReporter::Style::Bar;
    }
    ProgressReporter reporter(style, stderr, terminalColumns(stderr));
    g_progress = FlashProgress{};
    g_progress.reporter = &reporter;
    boot->ProgressCallback = onProgress;

    SteadyClock::time_point start = SteadyClock::now();
    bool ok = false;
    try {
        InterruptWatch interrupt;
        g_interrupt = &interrupt;
        ok = boot->UpdateFirmware(options.value, options.image.c_str());
        g_interrupt = nullptr;
    } catch (const FlashInterrupted& stop) {
        g_interrupt = nullptr;
        reporter.finish();
        g_progress.reporter = nullptr;
        boot.reset();  // closes the port
        std::string of = blocks > 0 ? " of " + std::to_string(blocks) : "";
        throw CommandError(kExitInterrupted,
                           "interrupted after " + std::to_string(g_progress.calls) + " block" +
                               (g_progress.calls == 1 ? "" : "s") + of + " (" +
                               std::to_string(stop.done) + " of " + std::to_string(imageSize) +
                               " bytes): the device holds a partial image; flash again before "
                               "using it");
    }
    double seconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
    reporter.finish();
    g_progress.reporter = nullptr;

    if (!ok) {
        boot.reset();  // closes the port
        if (ByteArrivesWithin(options.port.c_str(), baudrate, lateWindowMs(options.timeout))) {
            throwLate(options.port, options.timeout);
        }
        if (g_progress.calls == 0) {
            throw CommandError(kExitHeaderRefused,
                               "the device refused the firmware header for a " +
                                   std::to_string(imageSize) +
                                   "-byte image (is the image meant for this device?)");
        }
        // The callback runs before each block, so the last call names the block that failed.
        int failed = g_progress.calls;
        std::string of = blocks > 0 ? " of " + std::to_string(blocks) : "";
        throw CommandError(kExitBlockRejected,
                           "the device rejected block " + std::to_string(failed) + of +
                               " (the device holds a partial image: flash again)");
    }
    double rate = seconds > 0 ? static_cast<double>(imageSize) / seconds : 0;
    // Ten bits cross the line for every byte (start bit, eight data bits, stop bit). A link
    // faster than its nominal baud rate (a pty, a USB adapter that ignores it) makes the share
    // meaningless: it is shown only when the line could have carried the data.
    double lineShare = 100.0 * rate * 10.0 / baudrate;
    std::string share;
    if (lineShare <= 100.0) {
        char text[64];
        std::snprintf(text, sizeof text, ", %.1f%% of the %u baud line", lineShare, baudrate);
        share = text;
    }
    std::printf("flashed %lld bytes to %s in %.1f s: %s%s\n", imageSize, options.port.c_str(),
                seconds, formatRate(rate).c_str(), share.c_str());
}

void addDeviceOptions(CLI::App* cmd, DeviceOptions& options) {
    cmd->add_option("PORT", options.port, "serial port of the device (e.g. /dev/ttyUSB0)")
        ->required();
    cmd->add_option("--timeout", options.timeout, "time-out of each reply in milliseconds")
        ->check(CLI::Range(10, 600000))
        ->capture_default_str();
}

}  // namespace

void addDeviceCommands(CLI::App& app) {
    app.add_subcommand("ports", "List the serial ports this system knows, one per line")
        ->callback(runPorts);

    auto info = std::make_shared<InfoOptions>();
    CLI::App* infoCmd = app.add_subcommand("info", "Show the identity of the device on PORT");
    addDeviceOptions(infoCmd, *info);
    infoCmd->add_flag("--json", info->json, "print one JSON object instead of aligned lines");
    infoCmd->callback([info] { runInfo(*info); });

    auto flash = std::make_shared<FlashOptions>();
    CLI::App* flashCmd =
        app.add_subcommand("flash", "Write the firmware IMAGE to the device on PORT");
    addDeviceOptions(flashCmd, *flash);
    flashCmd->add_option("IMAGE", flash->image, "firmware image file (raw bytes)")->required();
    flashCmd->add_flag("--max-baud", flash->maxBaud,
                       "switch to the device's maximum baud rate first");
    flashCmd
        ->add_option("--value", flash->value,
                     "16-bit value passed to the device in the firmware header (0 to 0xFFFF, "
                     "e.g. 0x1234)")
        ->check(CLI::Range(0, 0xFFFF))
        ->capture_default_str();
    flashCmd
        ->add_option("--progress", flash->progress,
                     "progress display: auto (a bar on a terminal, lines otherwise), bar, lines, "
                     "none")
        ->check(CLI::IsMember({"auto", "bar", "lines", "none"}))
        ->capture_default_str();
    flashCmd->callback([flash] { runFlash(*flash); });
}

}  // namespace quelworks::cli
