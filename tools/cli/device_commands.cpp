#include "device_commands.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bootloader/boot_session.h"
#include "bootloader/device_check.h"
#include "command_error.h"
#include "interrupt.h"
#include "platform/port_name.h"
#include "port_select.h"
#include "progress.h"
#include "quelworks/serial/port_details.h"
#include "quelworks/serial/rs232.h"

namespace quelworks::cli {

namespace {

using SteadyClock = std::chrono::steady_clock;

struct DeviceOptions {
    std::string port;
    int timeout = 1000;
};

// The ports a command works on: named ones (--port), every listed one (--all), and --match
// patterns that filter the listing (and name files when they hold a '/').
struct PortChoice {
    std::vector<std::string> ports;
    bool all = false;
    std::vector<std::string> match;
};

struct InfoOptions : DeviceOptions {
    bool json = false;
    std::vector<std::string> positional;
    PortChoice choice;
};

struct FlashOptions : DeviceOptions {
    std::string image;
    bool maxBaud = false;
    int value = 0;
    std::string progress = "auto";
    std::vector<std::string> positional;
    PortChoice choice;
    bool json = false;
    bool watch = false;
    int pollMs = 500;
};

struct PortsOptions {
    bool longForm = false;
    bool json = false;
    std::vector<std::string> match;
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

// Fails with a clear message unless the port exists and is a serial port; true when the system
// lists it as one.
bool checkPortName(const std::string& port) {
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
    return check.status == PortNameCheck::Status::Serial;
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

Identity readIdentity(const BootConnection& boot) {
    Identity id;
    id.deviceType = boot.DeviceType();
    id.subDeviceType = boot.SubDeviceType();
    id.revision = boot.Revision();
    id.firmwareVersion = boot.FirmwareVersion();
    id.bootloaderVersion = boot.BootloaderVersion();
    id.maxBaudrate = boot.MaxBaudrate();
    id.inProgramMode = boot.InProgramMode();
    id.serialNumber = boot.SerialNumber();
    id.description = boot.Description();
    return id;
}

// Opens the device's port (once, for everything that follows until the connection goes),
// drains it, reads the identity and explains a failure.
std::unique_ptr<BootConnection> connectDevice(const std::string& port, int timeout) {
    if (port.empty()) checkPortName(port);
    auto boot = std::make_unique<BootConnection>(port.c_str(), timeout);
    // Only a port that does not open is looked at more closely (looking opens it too).
    if (!boot->IsOpen()) {
        throw CommandError(kExitPortUnavailable, cannotOpen(port, checkPortName(port)));
    }
    boot->Drain();
    if (!boot->AcquireDeviceInfo()) {
        boot.reset();  // the diagnosis asks again on a connection of its own
        diagnose(port, timeout, 9600);
    }
    return boot;
}

// Switches the device and the open port to the device's maximum baud rate; returns that rate.
std::uint32_t switchToMaxBaud(BootConnection& boot, const std::string& port) {
    const std::string rate = std::to_string(boot.MaxBaudrate());
    if (boot.SwitchToMaxBaudrate()) return static_cast<std::uint32_t>(boot.MaxBaudrate());
    // Accepted by the device, but the port cannot run at that rate.
    if (boot.Baudrate() == static_cast<std::uint32_t>(boot.MaxBaudrate()) &&
        boot.Baudrate() != 9600) {
        throw CommandError(kExitBaudSwitch, "the port " + port + " cannot be set to " + rate +
                                                " baud, the device's maximum; flash without "
                                                "--max-baud (and power-cycle the device)");
    }
    throw CommandError(kExitBaudSwitch, "the device refused to switch to its maximum baud rate (" +
                                            rate + "); flash without --max-baud");
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

void printIdentity(const InfoOptions& options, const Identity& id);

void runInfo(const InfoOptions& options) {
    std::unique_ptr<BootConnection> boot = connectDevice(options.port, options.timeout);
    boot->Close();
    printIdentity(options, readIdentity(*boot));
}

void printIdentity(const InfoOptions& options, const Identity& id) {
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

// Explains why UpdateFirmware failed after `calls` progress callbacks; the port is closed.
[[noreturn]] void explainFailedUpdate(const std::string& port, int timeout, std::uint32_t baudrate,
                                      int calls, long long imageSize, long long blocks) {
    std::string of = blocks > 0 ? " of " + std::to_string(blocks) : "";
    // An unplugged adapter (or a simulator that ended) takes its port with it.
    if (CheckPortName(port).status == PortNameCheck::Status::Missing) {
        throw CommandError(kExitPortUnavailable,
                           "the port " + port + " went away during " +
                               (calls == 0 ? std::string("the firmware header")
                                           : "block " + std::to_string(calls) + of) +
                               " (was the device unplugged?); the device may hold a partial "
                               "image: flash it again");
    }
    if (ByteArrivesWithin(port.c_str(), baudrate, lateWindowMs(timeout))) throwLate(port, timeout);
    if (calls == 0) {
        throw CommandError(kExitHeaderRefused,
                           "the device refused the firmware header for a " +
                               std::to_string(imageSize) +
                               "-byte image (is the image meant for this device?)");
    }
    // The callback runs before each block, so the last call names the block that failed.
    throw CommandError(kExitBlockRejected, "the device rejected block " + std::to_string(calls) +
                                               of +
                                               " (the device holds a partial image: flash again)");
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
    std::unique_ptr<BootConnection> boot = connectDevice(options.port, options.timeout);
    Identity id = readIdentity(*boot);
    std::printf("device: type %d, firmware %d, bootloader %d, serial %s\n", id.deviceType,
                id.firmwareVersion, id.bootloaderVersion, printable(id.serialNumber).c_str());

    std::uint32_t baudrate = 9600;
    if (options.maxBaud) {
        baudrate = switchToMaxBaud(*boot, options.port);
        std::printf("line: switched to %u baud\n", baudrate);
    }
    if (!boot->EnterBootloader()) {
        throw CommandError(kExitNoProgramMode,
                           "the device on " + options.port +
                               " did not enter programming mode (power-cycle it and try again, "
                               "or try a longer --timeout)");
    }
    int blockSize = std::max(boot->BlockSize(), 0);
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
        explainFailedUpdate(options.port, options.timeout, baudrate, g_progress.calls, imageSize,
                            blocks);
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

// ---- Several devices at once ----------------------------------------------------------------

// Each device is flashed from one private copy of the image, made once at the start: every
// device gets the same bytes even if the file is replaced while the line is running.
class ImageSnapshot {
public:
    explicit ImageSnapshot(const std::string& source) {
        std::FILE* in = std::fopen(source.c_str(), "rb");
        if (in == nullptr) {
            throw CommandError(kExitBadImage,
                               "cannot read image file '" + source + "': " + std::strerror(errno));
        }
        std::vector<char> bytes;
        char buffer[65536];
        for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, in)) > 0;)
            bytes.insert(bytes.end(), buffer, buffer + got);
        bool failed = std::ferror(in) != 0;
        std::fclose(in);
        if (failed) throw CommandError(kExitBadImage, "cannot read image file '" + source + "'");
        size_ = static_cast<long long>(bytes.size());
        std::error_code error;
        std::filesystem::path folder = std::filesystem::temp_directory_path(error);
        if (error) folder = ".";
        // A name no other run picks: the time and a random number.
        auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
        std::random_device random;
        path_ = (folder / ("quelworks-image-" + std::to_string(stamp) + "-" +
                           std::to_string(random()) + ".bin"))
                    .string();
        std::FILE* out = std::fopen(path_.c_str(), "wb");
        bool written =
            out != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
        if (out != nullptr && std::fclose(out) != 0) written = false;
        if (!written) {
            std::remove(path_.c_str());
            throw CommandError(kExitBadImage, "cannot copy the image to " + path_);
        }
    }
    ~ImageSnapshot() { std::remove(path_.c_str()); }
    ImageSnapshot(const ImageSnapshot&) = delete;
    ImageSnapshot& operator=(const ImageSnapshot&) = delete;
    const std::string& path() const { return path_; }
    long long size() const { return size_; }

private:
    std::string path_;
    long long size_ = 0;
};

std::string canonicalName(const std::string& port) {
    std::error_code error;
    std::filesystem::path path = std::filesystem::canonical(port, error);
    return error ? port : path.string();
}

// The files a path pattern names: a glob in the last part ("/tmp/line/dev*"), links to ports
// included, links whose port is gone left out.
std::vector<std::string> expandPathPattern(const std::string& pattern) {
    std::vector<std::string> found;
    std::filesystem::path path(pattern);
    std::filesystem::path folder = path.parent_path();
    std::string leaf = path.filename().string();
    std::error_code error;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end;
         it.increment(error)) {
        std::string name = it->path().filename().string();
        if (!globMatch(leaf, name)) continue;
        std::error_code missing;
        if (!std::filesystem::exists(it->path(), missing)) continue;
        found.push_back((folder / name).string());
    }
    std::sort(found.begin(), found.end());
    return found;
}

// The listed ports (with path patterns, the files they name) that pass any of the patterns;
// every listed port when there are none.
std::vector<PortDetails> matchingPorts(const std::vector<std::string>& match) {
    std::vector<PortDetails> listed = ListPortDetails();
    for (const std::string& pattern : match) {
        if (!isPathPattern(pattern)) continue;
        for (const std::string& path : expandPathPattern(pattern)) {
            bool known = std::any_of(listed.begin(), listed.end(),
                                     [&](const PortDetails& p) { return p.name == path; });
            if (known) continue;
            PortDetails file;
            file.name = path;
            file.description = "serial port";
            listed.push_back(file);
        }
    }
    if (match.empty()) return listed;
    std::vector<PortDetails> result;
    for (const PortDetails& port : listed) {
        if (std::any_of(match.begin(), match.end(),
                        [&](const std::string& m) { return portMatches(port, m); }))
            result.push_back(port);
    }
    return result;
}

std::string joined(const std::vector<std::string>& words, const char* separator) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
    return text;
}

// The ports a command works on, each once. --match without --all works like --all.
std::vector<std::string> choosePorts(const PortChoice& choice) {
    std::vector<std::string> ports = choice.ports;
    if (choice.all || !choice.match.empty()) {
        std::vector<PortDetails> found = matchingPorts(choice.match);
        if (found.empty()) {
            throw CommandError(kExitPortUnavailable,
                               choice.match.empty()
                                   ? "no serial ports found (see 'quelworks ports')"
                                   : "no port matches --match " + joined(choice.match, ", ") +
                                         " (see 'quelworks ports --long')");
        }
        for (const PortDetails& port : found) {
            if (std::find(ports.begin(), ports.end(), port.name) == ports.end())
                ports.push_back(port.name);
        }
    }
    // The same device named twice (also through a link) would be opened by two workers.
    std::vector<std::string> seen;
    for (const std::string& port : ports) {
        std::string real = canonicalName(port);
        for (std::size_t i = 0; i < seen.size(); ++i) {
            if (seen[i] != real) continue;
            std::string as = ports[i] == port ? "" : " (as " + ports[i] + " and " + port + ")";
            throw CommandError(kExitUsage, "port " + port + " is given twice" + as +
                                               ": each device can be flashed once at a time");
        }
        seen.push_back(real);
    }
    return ports;
}

// The wall-clock time of day, "14:03:07". Called only with the display's lock held, which also
// guards std::localtime's shared result.
std::string clockTime() {
    std::time_t now = std::time(nullptr);
    const std::tm* local = std::localtime(&now);
    char text[16] = "--:--:--";
    if (local != nullptr) std::strftime(text, sizeof text, "%H:%M:%S", local);
    return text;
}

// One device's flash, as its worker thread and the display see it.
struct DeviceRun {
    enum class Result { Running, Verified, Failed, Interrupted, Skipped };

    explicit DeviceRun(std::string name) : port(std::move(name)) {}
    const std::string port;
    std::atomic<long long> done{0};
    std::atomic<long long> total{0};
    std::atomic<bool> finished{false};
    std::thread thread;
    bool retired = false;  // the display has written its last line (watch mode)

    // Guarded by mutex.
    mutable std::mutex mutex;
    std::string serial, state = "waiting", message;
    Result result = Result::Running;
    int code = 0;
    double seconds = 0, rate = 0;
    int calls = 0;
    std::chrono::steady_clock::time_point start;
    int lastQuarter = -1;
};

// The rows on a terminal or the timestamped lines otherwise, for many workers at once.
class MultiDisplay {
public:
    // Rows on a terminal, lines otherwise; `quiet` leaves out the progress lines and keeps the
    // outcome of each device.
    MultiDisplay(bool rows, bool quiet, std::FILE* out) : rows_(rows), quiet_(quiet), out_(out) {}

    // A line about one device: at once in line mode; on a terminal the device's row shows
    // `state`, and `permanent` lines are printed above the rows.
    void event(DeviceRun& run, const std::string& state, const std::string& line,
               bool permanent = false) {
        {
            std::lock_guard<std::mutex> lock(run.mutex);
            run.state = state;
        }
        if (quiet_ && !permanent) return;
        std::lock_guard<std::mutex> lock(mutex_);
        if (!rows_) {
            std::fprintf(out_, "%s %s: %s\n", clockTime().c_str(), run.port.c_str(), line.c_str());
            std::fflush(out_);
        } else if (permanent) {
            clearLocked();
            std::fprintf(out_, "%s: %s\n", run.port.c_str(), line.c_str());
            drawLocked();
        }
    }
    void note(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (rows_) clearLocked();
        if (rows_) {
            std::fprintf(out_, "%s\n", line.c_str());
            drawLocked();
        } else {
            std::fprintf(out_, "%s %s\n", clockTime().c_str(), line.c_str());
        }
        std::fflush(out_);
    }
    void add(DeviceRun* run) {
        std::lock_guard<std::mutex> lock(mutex_);
        runs_.push_back(run);
        portWidth_ = std::max(portWidth_, static_cast<int>(run->port.size()));
    }
    // Takes a finished run off the rows, leaving `line` in its place.
    void retire(DeviceRun* run, const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (rows_) clearLocked();
        if (rows_) {
            std::fprintf(out_, "%s\n", line.c_str());
        } else {
            std::fprintf(out_, "%s %s\n", clockTime().c_str(), line.c_str());
        }
        runs_.erase(std::remove(runs_.begin(), runs_.end(), run), runs_.end());
        if (rows_) drawLocked();
        std::fflush(out_);
    }
    bool rows() const { return rows_; }
    void setStatus(const std::string& status) {
        std::lock_guard<std::mutex> lock(mutex_);
        status_ = status;
    }
    void redraw() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!rows_) return;
        clearLocked();
        drawLocked();
    }
    // Leaves the last rows on the screen.
    void finish() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (rows_) {
            clearLocked();
            drawLocked();
            drawn_ = 0;
        }
    }

private:
    void clearLocked() {
        for (int i = 0; i < drawn_; ++i) std::fputs("\x1b[1A\r\x1b[2K", out_);
        drawn_ = 0;
    }
    void drawLocked() {
        int columns = terminalColumns(out_);
        for (DeviceRun* run : runs_) {
            std::string serial, state;
            {
                std::lock_guard<std::mutex> lock(run->mutex);
                serial = run->serial;
                state = run->state;
                if (run->result == DeviceRun::Result::Running && run->calls > 0) {
                    double elapsed =
                        std::chrono::duration<double>(std::chrono::steady_clock::now() - run->start)
                            .count();
                    if (elapsed > 0) run->rate = static_cast<double>(run->done.load()) / elapsed;
                }
            }
            std::fprintf(out_, "%s\n",
                         deviceRow(run->port, serial, run->done.load(), run->total.load(),
                                   run->rate, state, portWidth_, columns)
                             .c_str());
            ++drawn_;
        }
        if (!status_.empty()) {
            std::fprintf(out_, "%s\n", status_.c_str());
            ++drawn_;
        }
        std::fflush(out_);
    }

    bool rows_;
    bool quiet_;
    std::FILE* out_;
    std::mutex mutex_;
    std::vector<DeviceRun*> runs_;
    std::string status_;
    int drawn_ = 0;
    int portWidth_ = 4;
};

// What every worker of one command shares.
struct FlashJob {
    const FlashOptions* options = nullptr;
    std::string imagePath;
    long long imageSize = 0;
    MultiDisplay* display = nullptr;
    const std::atomic<bool>* stop = nullptr;
    // Watch mode: the serial numbers already flashed in this session.
    std::mutex* flashedMutex = nullptr;
    std::set<std::string>* flashedSerials = nullptr;
};

// The progress callback is a plain function pointer: each worker's run is found through its
// thread.
thread_local DeviceRun* t_run = nullptr;
thread_local const FlashJob* t_job = nullptr;

void onDeviceProgress(int done, int total) {
    DeviceRun* run = t_run;
    if (run == nullptr) return;
    if (t_job->stop->load() && done < total) throw FlashInterrupted{done};
    int quarter = -1;
    {
        std::lock_guard<std::mutex> lock(run->mutex);
        if (run->calls == 0) run->start = SteadyClock::now();
        ++run->calls;
        int now = total > 0 ? static_cast<int>(4LL * done / total) : 0;
        if (now != run->lastQuarter) quarter = run->lastQuarter = now;
    }
    run->done.store(done);
    run->total.store(total);
    if (quarter > 0 && done < total) {
        t_job->display->event(*run, "writing",
                              std::to_string(quarter * 25) + "%  " + std::to_string(done) + " / " +
                                  std::to_string(total) + " bytes");
    }
}

void finishRun(DeviceRun& run, DeviceRun::Result result, int code, const std::string& message) {
    std::lock_guard<std::mutex> lock(run.mutex);
    run.result = result;
    run.code = code;
    run.message = message;
}

void flashOneDevice(DeviceRun& run, const FlashJob& job) {
    const FlashOptions& options = *job.options;
    MultiDisplay& display = *job.display;
    try {
        display.event(run, "connecting", "connecting");
        std::unique_ptr<BootConnection> boot = connectDevice(run.port, options.timeout);
        Identity id = readIdentity(*boot);
        std::string serial = printable(id.serialNumber);
        {
            std::lock_guard<std::mutex> lock(run.mutex);
            run.serial = serial;
        }
        display.event(run, "identified",
                      "device type " + std::to_string(id.deviceType) + ", firmware " +
                          std::to_string(id.firmwareVersion) + ", serial " +
                          (serial.empty() ? "-" : serial));
        if (job.flashedSerials != nullptr && !id.serialNumber.empty()) {
            std::lock_guard<std::mutex> lock(*job.flashedMutex);
            if (job.flashedSerials->count(id.serialNumber) != 0) {
                finishRun(run, DeviceRun::Result::Skipped, 0,
                          "serial " + serial + " was flashed already in this session");
                run.finished.store(true);
                return;
            }
        }
        std::uint32_t baudrate = 9600;
        if (options.maxBaud) baudrate = switchToMaxBaud(*boot, run.port);
        if (job.stop->load()) {
            finishRun(run, DeviceRun::Result::Interrupted, kExitInterrupted,
                      "interrupted before writing: the device still holds its old firmware");
            run.finished.store(true);
            return;
        }
        display.event(run, "entering", "entering programming mode");
        if (!boot->EnterBootloader()) {
            throw CommandError(kExitNoProgramMode,
                               "the device did not enter programming mode (power-cycle it and "
                               "try again, or try a longer --timeout)");
        }
        int blockSize = std::max(boot->BlockSize(), 0);
        long long blocks = blockSize > 0 ? (job.imageSize + blockSize - 1) / blockSize : 0;
        run.total.store(job.imageSize);
        display.event(run, "writing",
                      "writing " + std::to_string(job.imageSize) + " bytes" +
                          (blocks > 0 ? " in " + std::to_string(blocks) + " blocks" : ""));
        t_run = &run;
        t_job = &job;
        boot->ProgressCallback = onDeviceProgress;
        SteadyClock::time_point start = SteadyClock::now();
        bool ok = false;
        try {
            ok = boot->UpdateFirmware(options.value, job.imagePath.c_str());
        } catch (const FlashInterrupted& stop) {
            t_run = nullptr;
            boot.reset();  // closes the port
            run.done.store(stop.done);
            int calls = 0;
            {
                std::lock_guard<std::mutex> lock(run.mutex);
                calls = run.calls;
            }
            std::string of = blocks > 0 ? " of " + std::to_string(blocks) : "";
            finishRun(run, DeviceRun::Result::Interrupted, kExitInterrupted,
                      "interrupted after block " + std::to_string(calls) + of + " (" +
                          std::to_string(stop.done) + " of " + std::to_string(job.imageSize) +
                          " bytes): the device holds a partial image; flash again before "
                          "using it");
            run.finished.store(true);
            return;
        }
        t_run = nullptr;
        double seconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
        if (!ok) {
            int calls = 0;
            {
                std::lock_guard<std::mutex> lock(run.mutex);
                calls = run.calls;
            }
            boot.reset();  // closes the port
            explainFailedUpdate(run.port, options.timeout, baudrate, calls, job.imageSize, blocks);
        }
        {
            std::lock_guard<std::mutex> lock(run.mutex);
            run.seconds = seconds;
            run.rate = seconds > 0 ? static_cast<double>(job.imageSize) / seconds : 0;
        }
        run.done.store(job.imageSize);
        if (job.flashedSerials != nullptr && !id.serialNumber.empty()) {
            std::lock_guard<std::mutex> lock(*job.flashedMutex);
            job.flashedSerials->insert(id.serialNumber);
        }
        finishRun(run, DeviceRun::Result::Verified, 0, "");
    } catch (const CommandError& e) {
        t_run = nullptr;
        finishRun(run, DeviceRun::Result::Failed, e.code(), e.what());
    } catch (const std::exception& e) {
        t_run = nullptr;
        finishRun(run, DeviceRun::Result::Failed, kExitFailure, e.what());
    }
    run.finished.store(true);
}

const char* resultName(DeviceRun::Result result) {
    switch (result) {
        case DeviceRun::Result::Verified:
            return "verified";
        case DeviceRun::Result::Failed:
            return "FAILED";
        case DeviceRun::Result::Interrupted:
            return "INTERRUPTED";
        case DeviceRun::Result::Skipped:
            return "skipped";
        case DeviceRun::Result::Running:
            break;
    }
    return "running";
}

// The one line that says how a device ended.
std::string outcomeLine(const DeviceRun& run) {
    std::lock_guard<std::mutex> lock(run.mutex);
    std::string line = run.port + ": " + resultName(run.result);
    if (run.result == DeviceRun::Result::Verified) {
        char text[96];
        std::snprintf(text, sizeof text, " in %.1f s (%s)", run.seconds,
                      formatRate(run.rate).c_str());
        line += text;
    }
    if (!run.message.empty()) line += ": " + run.message;
    return line;
}

std::string jsonRecord(const DeviceRun& run) {
    std::lock_guard<std::mutex> lock(run.mutex);
    char numbers[96];
    std::snprintf(numbers, sizeof numbers, ", \"seconds\": %.3f, \"bytesPerSecond\": %.1f",
                  run.seconds, run.rate);
    std::string text = "{\"port\": " + jsonString(run.port) +
                       ", \"serialNumber\": " + jsonString(run.serial) + ", \"result\": \"" +
                       (run.result == DeviceRun::Result::Verified      ? "verified"
                        : run.result == DeviceRun::Result::Interrupted ? "interrupted"
                        : run.result == DeviceRun::Result::Skipped     ? "skipped"
                                                                       : "failed") +
                       "\", \"exitCode\": " + std::to_string(run.code) + numbers +
                       ", \"bytes\": " + std::to_string(run.done.load());
    if (!run.message.empty()) text += ", \"error\": " + jsonString(run.message);
    return text + "}";
}

void printTable(const std::vector<std::unique_ptr<DeviceRun>>& runs) {
    std::size_t portWidth = 4, serialWidth = 6;
    for (const auto& run : runs) {
        std::lock_guard<std::mutex> lock(run->mutex);
        portWidth = std::max(portWidth, run->port.size());
        serialWidth = std::max(serialWidth, run->serial.size());
    }
    std::printf("%-*s  %-*s  %-11s  %7s  %-12s  %s\n", static_cast<int>(portWidth), "PORT",
                static_cast<int>(serialWidth), "SERIAL", "RESULT", "SECONDS", "THROUGHPUT",
                "PROBLEM");
    for (const auto& run : runs) {
        std::lock_guard<std::mutex> lock(run->mutex);
        bool verified = run->result == DeviceRun::Result::Verified;
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%.1f", run->seconds);
        std::printf("%-*s  %-*s  %-11s  %7s  %-12s  %s\n", static_cast<int>(portWidth),
                    run->port.c_str(), static_cast<int>(serialWidth),
                    run->serial.empty() ? "-" : run->serial.c_str(), resultName(run->result),
                    verified ? seconds : "-", verified ? formatRate(run->rate).c_str() : "-",
                    run->message.empty() ? "-" : run->message.c_str());
    }
}

// 0 when every device verified; the shared code when all failures agree; 130 when Ctrl-C left
// a device unfinished; 1 otherwise.
int combinedExitCode(const std::vector<std::unique_ptr<DeviceRun>>& runs) {
    std::set<int> codes;
    bool interrupted = false;
    for (const auto& run : runs) {
        std::lock_guard<std::mutex> lock(run->mutex);
        if (run->result == DeviceRun::Result::Interrupted) interrupted = true;
        if (run->code != 0) codes.insert(run->code);
    }
    if (interrupted) return kExitInterrupted;
    if (codes.empty()) return kExitOk;
    return codes.size() == 1 ? *codes.begin() : kExitFailure;
}

bool useRows(const std::string& progress) {
    return progress == "bar" || (progress == "auto" && isTerminal(stderr));
}

void runMultiFlash(const FlashOptions& options, const std::vector<std::string>& ports) {
    checkImage(options.image);
    ImageSnapshot image(options.image);
    MultiDisplay display(useRows(options.progress), options.progress == "none", stderr);
    InterruptWatch interrupt;
    std::atomic<bool> stop{false};
    FlashJob job;
    job.options = &options;
    job.imagePath = image.path();
    job.imageSize = image.size();
    job.display = &display;
    job.stop = &stop;

    std::vector<std::unique_ptr<DeviceRun>> runs;
    for (const std::string& port : ports) {
        runs.push_back(std::make_unique<DeviceRun>(port));
        display.add(runs.back().get());
    }
    display.note("flashing " + std::to_string(image.size()) + " bytes to " +
                 std::to_string(ports.size()) + " devices");
    for (auto& run : runs) {
        DeviceRun* device = run.get();
        device->thread = std::thread([device, &job] { flashOneDevice(*device, job); });
    }
    std::set<DeviceRun*> reported;
    for (bool running = true; running;) {
        running = false;
        for (auto& run : runs) {
            if (!run->finished.load()) {
                running = true;
            } else if (reported.insert(run.get()).second) {
                display.event(*run, resultName(run->result),
                              outcomeLine(*run).substr(run->port.size() + 2), true);
                if (options.json) std::printf("%s\n", jsonRecord(*run).c_str());
                std::fflush(stdout);
            }
        }
        if (interrupt.requested() && !stop.exchange(true))
            display.note("interrupted: each device stops after the block in flight");
        display.redraw();
        if (running) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    for (auto& run : runs) run->thread.join();
    display.finish();
    if (!options.json) printTable(runs);
    std::vector<std::string> failed;
    for (const auto& run : runs) {
        std::lock_guard<std::mutex> lock(run->mutex);
        if (run->result != DeviceRun::Result::Verified) failed.push_back(run->port);
    }
    std::fflush(stdout);
    int code = combinedExitCode(runs);
    if (code != kExitOk) {
        throw CommandError(code, std::to_string(failed.size()) + " of " +
                                     std::to_string(runs.size()) +
                                     " devices not verified: " + joined(failed, ", "));
    }
    std::fprintf(stderr, "all %zu devices verified\n", runs.size());
}

// Watch mode: flashes each device that appears, once, until Ctrl-C.
void runWatch(const FlashOptions& options) {
    checkImage(options.image);
    ImageSnapshot image(options.image);
    MultiDisplay display(useRows(options.progress), options.progress == "none", stderr);
    InterruptWatch interrupt;
    std::atomic<bool> stop{false};
    std::mutex flashedMutex;
    std::set<std::string> flashedSerials;
    FlashJob job;
    job.options = &options;
    job.imagePath = image.path();
    job.imageSize = image.size();
    job.display = &display;
    job.stop = &stop;
    job.flashedMutex = &flashedMutex;
    job.flashedSerials = &flashedSerials;

    std::vector<std::unique_ptr<DeviceRun>> active;
    std::set<std::string> attached;  // ports handled while they stay attached
    int flashed = 0, failed = 0, skipped = 0, interrupted = 0;
    auto tally = [&] {
        return "flashed " + std::to_string(flashed) + ", failed " + std::to_string(failed) +
               ", in progress " + std::to_string(active.size()) +
               (skipped > 0 ? ", skipped " + std::to_string(skipped) : "");
    };
    display.note("watching for devices" +
                 (options.choice.match.empty()
                      ? std::string()
                      : " matching " + joined(options.choice.match, ", ")) +
                 "; Ctrl-C stops");
    auto nextPoll = SteadyClock::now();
    while (!(stop.load() && active.empty())) {
        if (interrupt.requested() && !stop.exchange(true) && !active.empty())
            display.note("interrupted: each device stops after the block in flight");
        if (!stop.load() && SteadyClock::now() >= nextPoll) {
            nextPoll = SteadyClock::now() + std::chrono::milliseconds(options.pollMs);
            std::set<std::string> present;
            for (const PortDetails& port : matchingPorts(options.choice.match))
                present.insert(canonicalName(port.name) + "\n" + port.name);
            // A port that went away may come back with another device.
            for (auto it = attached.begin(); it != attached.end();) {
                it = present.count(*it) == 0 ? attached.erase(it) : std::next(it);
            }
            for (const std::string& key : present) {
                std::string name = key.substr(key.find('\n') + 1);
                // A port that came back while its last flash is still ending waits a poll.
                bool busy = std::any_of(active.begin(), active.end(),
                                        [&](const auto& run) { return run->port == name; });
                if (busy || !attached.insert(key).second) continue;
                auto run = std::make_unique<DeviceRun>(name);
                display.add(run.get());
                DeviceRun* device = run.get();
                device->thread = std::thread([device, &job] { flashOneDevice(*device, job); });
                active.push_back(std::move(run));
            }
        }
        bool changed = false;
        for (auto it = active.begin(); it != active.end();) {
            if (!(*it)->finished.load()) {
                ++it;
                continue;
            }
            // Kept alive until the display has let go of it.
            std::unique_ptr<DeviceRun> owned = std::move(*it);
            DeviceRun& run = *owned;
            run.thread.join();
            DeviceRun::Result result;
            {
                std::lock_guard<std::mutex> lock(run.mutex);
                result = run.result;
            }
            if (result == DeviceRun::Result::Verified) ++flashed;
            if (result == DeviceRun::Result::Failed) ++failed;
            if (result == DeviceRun::Result::Skipped) ++skipped;
            if (result == DeviceRun::Result::Interrupted) ++interrupted;
            it = active.erase(it);
            display.setStatus(tally());
            display.retire(&run, outcomeLine(run));
            if (options.json) {
                std::printf("%s\n", jsonRecord(run).c_str());
                std::fflush(stdout);
            }
            changed = true;
        }
        display.setStatus(tally());
        // On a terminal the tally is the last row; in lines it follows each change.
        if (changed && !display.rows()) display.note(tally());
        display.redraw();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    display.finish();
    std::fprintf(stderr, "watch ended: %s\n", tally().c_str());
    if (interrupted > 0)
        throw CommandError(kExitInterrupted,
                           std::to_string(interrupted) + " device(s) interrupted mid-flash");
    if (failed > 0) throw CommandError(kExitFailure, std::to_string(failed) + " device(s) failed");
}

// ---- ports and info over several ports ------------------------------------------------------

void runPortsDetailed(const PortsOptions& options) {
    if (!options.longForm && !options.json && options.match.empty()) return runPorts();
    std::vector<PortDetails> ports = matchingPorts(options.match);
    if (options.json) {
        std::printf("[");
        for (std::size_t i = 0; i < ports.size(); ++i) {
            const PortDetails& p = ports[i];
            auto id = [](int value) {
                return value < 0 ? std::string("null") : std::to_string(value);
            };
            std::printf(
                "%s\n  {\"name\": %s, \"description\": %s, \"vendorId\": %s, "
                "\"productId\": %s, \"serialNumber\": %s, \"manufacturer\": %s, "
                "\"product\": %s, \"location\": %s, \"driver\": %s}",
                i == 0 ? "" : ",", jsonString(p.name).c_str(), jsonString(p.description).c_str(),
                id(p.vendorId).c_str(), id(p.productId).c_str(), jsonString(p.serialNumber).c_str(),
                jsonString(p.manufacturer).c_str(), jsonString(p.product).c_str(),
                jsonString(p.location).c_str(), jsonString(p.driver).c_str());
        }
        std::printf("%s]\n", ports.empty() ? "" : "\n");
    } else if (options.longForm) {
        std::vector<std::vector<std::string>> rows = {
            {"PORT", "VID:PID", "SERIAL", "DESCRIPTION", "MANUFACTURER", "LOCATION", "DRIVER"}};
        for (const PortDetails& p : ports) {
            auto dash = [](const std::string& text) {
                return text.empty() ? "-" : printable(text);
            };
            rows.push_back({p.name, dash(formatVidPid(p.vendorId, p.productId)),
                            dash(p.serialNumber), dash(p.description), dash(p.manufacturer),
                            dash(p.location), dash(p.driver)});
        }
        std::vector<std::size_t> widths(rows[0].size(), 0);
        for (const auto& row : rows)
            for (std::size_t c = 0; c < row.size(); ++c)
                widths[c] = std::max(widths[c], row[c].size());
        for (const auto& row : rows) {
            std::string line;
            for (std::size_t c = 0; c < row.size(); ++c) {
                line += row[c];
                if (c + 1 < row.size()) line += std::string(widths[c] - row[c].size() + 2, ' ');
            }
            std::printf("%s\n", line.c_str());
        }
    } else {
        for (const PortDetails& p : ports) std::printf("%s\n", p.name.c_str());
    }
    if (ports.empty()) {
        std::fflush(stdout);
        std::cerr << (options.match.empty() ? "quelworks: no serial ports found\n"
                                            : "quelworks: no port matches --match " +
                                                  joined(options.match, ", ") + "\n");
    }
}

std::string identityJson(const std::string& port, const Identity& id) {
    return "{\"port\": " + jsonString(port) + ", \"deviceType\": " + std::to_string(id.deviceType) +
           ", \"subDeviceType\": " + std::to_string(id.subDeviceType) +
           ", \"revision\": " + std::to_string(id.revision) +
           ", \"firmwareVersion\": " + std::to_string(id.firmwareVersion) +
           ", \"bootloaderVersion\": " + std::to_string(id.bootloaderVersion) +
           ", \"serialNumber\": " + jsonString(id.serialNumber) +
           ", \"description\": " + jsonString(id.description) +
           ", \"maxBaudrate\": " + std::to_string(id.maxBaudrate) +
           ", \"inProgramMode\": " + (id.inProgramMode ? "true" : "false") + "}";
}

void runInfoMany(const InfoOptions& options, const std::vector<std::string>& ports) {
    struct Answer {
        Identity id;
        int code = 0;
        std::string error;
    };
    std::vector<Answer> answers(ports.size());
    std::vector<std::thread> workers;
    // Each device is asked on a thread of its own, so a silent one delays none of the others.
    for (std::size_t i = 0; i < ports.size(); ++i) {
        workers.emplace_back([&, i] {
            try {
                std::unique_ptr<BootConnection> boot = connectDevice(ports[i], options.timeout);
                boot->Close();
                answers[i].id = readIdentity(*boot);
            } catch (const CommandError& e) {
                answers[i].code = e.code();
                answers[i].error = e.what();
            } catch (const std::exception& e) {
                answers[i].code = kExitFailure;
                answers[i].error = e.what();
            }
        });
    }
    for (std::thread& worker : workers) worker.join();
    int code = kExitOk;
    std::vector<std::string> failed;
    if (options.json) std::printf("[");
    for (std::size_t i = 0; i < ports.size(); ++i) {
        const Answer& a = answers[i];
        if (a.code != 0) {
            if (code == kExitOk) code = a.code;
            failed.push_back(ports[i]);
        }
        if (options.json) {
            std::string record = a.code == 0 ? identityJson(ports[i], a.id)
                                             : "{\"port\": " + jsonString(ports[i]) +
                                                   ", \"exitCode\": " + std::to_string(a.code) +
                                                   ", \"error\": " + jsonString(a.error) + "}";
            std::printf("%s\n  %s", i == 0 ? "" : ",", record.c_str());
            continue;
        }
        if (i > 0) std::printf("\n");
        if (a.code != 0) {
            std::printf("%-20s%s\n%-20s%s\n", "port:", ports[i].c_str(), "error:", a.error.c_str());
            continue;
        }
        InfoOptions one = options;
        one.port = ports[i];
        printIdentity(one, a.id);
    }
    if (options.json) std::printf("\n]\n");
    std::fflush(stdout);
    if (code != kExitOk) {
        throw CommandError(code, std::to_string(failed.size()) + " of " +
                                     std::to_string(ports.size()) +
                                     " devices did not answer: " + joined(failed, ", "));
    }
}

void addTimeout(CLI::App* cmd, DeviceOptions& options) {
    cmd->add_option("--timeout", options.timeout, "time-out of each reply in milliseconds")
        ->check(CLI::Range(10, 600000))
        ->capture_default_str();
}

void addPortChoice(CLI::App* cmd, PortChoice& choice) {
    cmd->add_option("--port", choice.ports, "a device's serial port; give it once per device")
        ->allow_extra_args(false);
    cmd->add_flag("--all", choice.all, "every listed port (that passes --match)");
    cmd->add_option("--match", choice.match,
                    "only ports whose USB ids (VID:PID), serial number or name (a glob such as "
                    "'ttyUSB*' or '/dev/serial/by-id/*') match; implies --all")
        ->allow_extra_args(false);
}

bool choosesPorts(const PortChoice& choice) {
    return !choice.ports.empty() || choice.all || !choice.match.empty();
}

void dispatchInfo(InfoOptions& options) {
    PortChoice choice = options.choice;
    choice.ports.insert(choice.ports.begin(), options.positional.begin(), options.positional.end());
    if (choice.ports.empty() && !choice.all && choice.match.empty()) {
        throw CommandError(kExitUsage, "info needs a PORT (or --port, --all, --match)");
    }
    if (choice.ports.size() == 1 && !choice.all && choice.match.empty()) {
        options.port = choice.ports[0];
        return runInfo(options);
    }
    runInfoMany(options, choosePorts(choice));
}

void dispatchFlash(FlashOptions& options) {
    const std::vector<std::string>& words = options.positional;
    bool many = choosesPorts(options.choice) || options.watch;
    // Today's form "flash PORT IMAGE" and the form for several devices "flash IMAGE --port ...".
    if (!many && words.size() == 2) {
        options.port = words[0];
        options.image = words[1];
        if (!options.json) return runFlash(options);
        return runMultiFlash(options, {options.port});
    }
    if (!many || words.size() != 1) {
        throw CommandError(kExitUsage,
                           many ? "flash with --port, --all, --match or --watch takes only the "
                                  "IMAGE as argument"
                                : "flash needs PORT IMAGE, or IMAGE with --port, --all, "
                                  "--match or --watch");
    }
    options.image = words[0];
    if (options.watch) {
        if (!options.choice.ports.empty() || options.choice.all) {
            throw CommandError(kExitUsage,
                               "--watch finds its ports itself: give --match, not --port or --all");
        }
        return runWatch(options);
    }
    checkImage(options.image);
    runMultiFlash(options, choosePorts(options.choice));
}

}  // namespace

void addDeviceCommands(CLI::App& app) {
    auto ports = std::make_shared<PortsOptions>();
    CLI::App* portsCmd =
        app.add_subcommand("ports", "List the serial ports this system knows, one per line");
    portsCmd->add_flag("--long,-l", ports->longForm,
                       "a table with USB ids, serial number, description, location and driver");
    portsCmd->add_flag("--json", ports->json, "a JSON array with every port's details");
    portsCmd
        ->add_option("--match", ports->match,
                     "only ports whose USB ids (VID:PID), serial number or name match")
        ->allow_extra_args(false);
    portsCmd->callback([ports] { runPortsDetailed(*ports); });

    auto info = std::make_shared<InfoOptions>();
    CLI::App* infoCmd =
        app.add_subcommand("info", "Show the identity of the device on PORT (or on several)");
    infoCmd->add_option("PORT", info->positional,
                        "serial port of the device (e.g. /dev/ttyUSB0); several are allowed");
    addPortChoice(infoCmd, info->choice);
    addTimeout(infoCmd, *info);
    infoCmd->add_flag("--json", info->json,
                      "print one JSON object (an array of them for several ports) instead of "
                      "aligned lines");
    infoCmd->callback([info] { dispatchInfo(*info); });

    auto flash = std::make_shared<FlashOptions>();
    CLI::App* flashCmd = app.add_subcommand(
        "flash",
        "Write the firmware IMAGE to the device on PORT (flash PORT IMAGE), or to several devices "
        "at once (flash IMAGE --port P1 --port P2, --all, --match, --watch)");
    flashCmd
        ->add_option("PORT IMAGE", flash->positional,
                     "serial port of the device and the firmware image file (raw bytes); only "
                     "the IMAGE with --port, --all, --match or --watch")
        ->expected(1, 2)
        ->required();
    addPortChoice(flashCmd, flash->choice);
    addTimeout(flashCmd, *flash);
    flashCmd->add_flag("--watch", flash->watch,
                       "wait for devices to appear (those passing --match) and flash each new one "
                       "once, until Ctrl-C");
    flashCmd->add_option("--poll", flash->pollMs, "how often --watch looks for new ports, in ms")
        ->check(CLI::Range(50, 60000))
        ->capture_default_str();
    flashCmd->add_flag("--json", flash->json,
                       "one JSON record per device (one per line) instead of the summary table");
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
    flashCmd->callback([flash] { dispatchFlash(*flash); });
}

}  // namespace quelworks::cli
