// The quelworks command end to end: the real program against the quelworks-devsim program.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tool_test_util.h"

namespace {

using namespace qwtest;

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at; (at = text.find(from)) != std::string::npos;)
        text.replace(at, from.size(), to);
    return text;
}

// Runs the quelworks program with these shell words to its end (killed after a minute).
Result quelworks(const std::string& args) {
    std::string out = tempPath("out"), err = tempPath("err");
    std::string command = "timeout -s KILL 60 " QW_CLI_PATH " " + args;
    int status = std::system((command + " </dev/null >" + out + " 2>" + err).c_str());
    Result result{exitCode(status), readFile(out), readFile(err)};
    std::remove(out.c_str());
    std::remove(err.c_str());
    return result;
}

TEST(Cli, FlashWritesTheImageByteForByte) {
    std::string written = tempPath("written.bin"), image = writeImage("image.bin", 5000);
    std::remove(written.c_str());
    Devsim device("--block-size 128 --image-out " + written);
    ASSERT_FALSE(device.port().empty());

    Result r = quelworks("flash " + device.port() + " " + image + " --max-baud --value 0x1234");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("line: switched to 115200 baud"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("flashed 5000 bytes to " + device.port()), std::string::npos);
    // Not a terminal: plain progress lines.
    EXPECT_NE(r.err.find("progress: 100%  5000 / 5000 bytes"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find('\r'), std::string::npos);

    EXPECT_EQ(device.stop(SIGTERM), 0);
    EXPECT_EQ(std::system(("cmp " + image + " " + written).c_str()), 0);
    std::remove(image.c_str());
    std::remove(written.c_str());
}

TEST(Cli, InfoPrintsTheIdentityAndTheSimulatorTracesIt) {
    std::string trace = tempPath("trace.txt");
    Devsim device(
        "--type 0x0102 --serial ABCDEFGH --description 'unit \"one\"' --firmware 7 "
        "--max-baud 57600 --trace " +
        trace);
    Result r = quelworks("info " + device.port());
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "port:               " + device.port() +
                         "\n"
                         "device type:        258 (0x0102)\n"
                         "sub-type:           3\n"
                         "revision:           7\n"
                         "firmware version:   7 (0x0007)\n"
                         "bootloader version: 2\n"
                         "serial number:      ABCDEFGH\n"
                         "description:        unit \"one\"\n"
                         "maximum baud rate:  57600\n"
                         "program mode:       no (application running)\n");
    r = quelworks("info " + device.port() + " --json");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "{\"port\": \"" + device.port() +
                         "\", \"deviceType\": 258, \"subDeviceType\": 3, \"revision\": 7, "
                         "\"firmwareVersion\": 7, \"bootloaderVersion\": 2, \"serialNumber\": "
                         "\"ABCDEFGH\", \"description\": \"unit \\\"one\\\"\", \"maxBaudrate\": "
                         "57600, \"inProgramMode\": false}\n");

    EXPECT_EQ(device.stop(SIGINT), 0);
    std::string text = readFile(trace);
    EXPECT_NE(text.find("17  bootloader version -> 17 00 02"), std::string::npos) << text;
    EXPECT_NE(text.find("1c  description -> 1c"), std::string::npos) << text;
    std::remove(trace.c_str());
}

TEST(Cli, EveryFailureSaysWhatHappenedWithItsOwnExitCode) {
    std::string image = writeImage("failure.bin", 1000), empty = writeImage("empty.bin", 0),
                missing = tempPath("missing.bin");
    // PORT and IMAGE stand for the device's port and a 1000-byte image.
    const struct {
        const char* devsim;
        std::string command;
        int code;
        std::string message;
        bool held = false;  // another program holds the port
    } cases[] = {
        {"--silent", "info PORT", 4,
         "no answer from the device on PORT (is it powered and on this port?)"},
        {"--wrong-echo 0x17", "info PORT", 5,
         "the device on PORT answered the bootloader version request (0x17) with 0x97 instead of "
         "its echo (wrong baud rate, or not a bootloader device?)"},
        {"--block-size 128 --reject-block 3", "flash PORT IMAGE", 10,
         "the device rejected block 3 of 8 (the device holds a partial image: flash again)"},
        {"--never-enter", "flash PORT IMAGE", 7,
         "the device on PORT did not enter programming mode (power-cycle it and try again, or "
         "try a longer --timeout)"},
        {"--wrong-echo 0x1B", "flash PORT IMAGE --max-baud", 6,
         "the device refused to switch to its maximum baud rate (115200); flash without "
         "--max-baud"},
        {"--refuse-header", "flash PORT IMAGE", 9,
         "the device refused the firmware header for a 1000-byte image (is the image meant for "
         "this device?)"},
        {"", "flash PORT " + missing, 8,
         "cannot read image file '" + missing + "': No such file or directory"},
        {"", "flash PORT " + empty, 8, "image file '" + empty + "' is empty: nothing to flash"},
        {"", "info /dev/quelworks-no-such-port", 3,
         "no such port '/dev/quelworks-no-such-port': No such file or directory (see "
         "'quelworks ports' for the ports this system knows)"},
        {"", "info PORT", 3,
         "cannot open port PORT (is another program using it? do you have permission?)", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        Devsim device(c.devsim);
        ASSERT_FALSE(device.port().empty());
        int held = c.held ? ::open(device.port().c_str(), O_RDWR | O_NOCTTY) : -1;
        ASSERT_TRUE(!c.held || ::flock(held, LOCK_EX | LOCK_NB) == 0);
        Result r = quelworks(replaced(replaced(c.command, "PORT", device.port()), "IMAGE", image) +
                             " --timeout 300");
        EXPECT_EQ(r.code, c.code);
        // The message is the last line on standard error (progress lines may come before it).
        std::string message = "quelworks: " + replaced(c.message, "PORT", device.port()) + "\n";
        ASSERT_GE(r.err.size(), message.size()) << r.err;
        EXPECT_EQ(r.err.substr(r.err.size() - message.size()), message) << r.err;
        if (held >= 0) ::close(held);
    }
    std::remove(image.c_str());
    std::remove(empty.c_str());
}

TEST(Cli, UsageAndHelp) {
    EXPECT_EQ(quelworks("").code, 2);
    EXPECT_EQ(quelworks("flash").code, 2);
    EXPECT_EQ(quelworks("info /dev/null --timeout 5").code, 2);
    Result r = quelworks("--help");
    EXPECT_EQ(r.code, 0);
    for (const char* command : {"ports", "info", "flash"}) {
        EXPECT_NE(r.out.find(command), std::string::npos) << command;
    }
    r = quelworks("flash --help");
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.out.find("--max-baud"), std::string::npos);
    EXPECT_EQ(quelworks("ports").code, 0);
}

// Device text reaches JSON as UTF-8: valid sequences unchanged, each stray byte as U+FFFD.
TEST(Cli, InfoJsonKeepsUtf8AndReplacesInvalidBytes) {
    // "Ger\xC3\xA4t \xC3\xA9" is valid UTF-8; \xFF, a lone \xC3 and an overlong \xC0\xAF are not.
    Devsim device("--description \"$(printf 'Ger\\303\\244t \\303\\251 \\377 \\303 \\300\\257')\"");
    Result r = quelworks("info " + device.port() + " --json");
    ASSERT_EQ(r.code, 0) << r.err;
    std::string json = tempPath("info.json");
    std::ofstream(json, std::ios::binary) << r.out;
    std::string check =
        "python3 -c 'import json,sys; d=json.load(open(sys.argv[1],encoding=\"utf-8\"));"
        " sys.exit(d[\"description\"] != \"Ger\\u00e4t \\u00e9 \\ufffd \\ufffd "
        "\\ufffd\\ufffd\")' " +
        json;
    EXPECT_EQ(std::system(check.c_str()), 0) << r.out;
    std::remove(json.c_str());
}

// A device that answers after the time-out is reported as slow, with the option that helps.
TEST(Cli, LateRepliesSuggestALongerTimeout) {
    for (const char* command : {"info PORT", "flash PORT IMAGE"}) {
        SCOPED_TRACE(command);
        std::string image = writeImage("late.bin", 600);
        Devsim device("--reply-delay 700 --block-size 256");
        Result r = quelworks(replaced(replaced(command, "PORT", device.port()), "IMAGE", image) +
                             " --timeout 300");
        EXPECT_EQ(r.code, 5) << r.err;
        EXPECT_NE(r.err.find("answers, but later than the --timeout of 300 ms"), std::string::npos)
            << r.err;
        EXPECT_NE(r.err.find("try a longer --timeout, e.g. --timeout 1200"), std::string::npos);
        std::remove(image.c_str());
    }
}

// Ctrl-C stops a flash between two blocks: every block sent was received whole, and the message
// says how far it got.
TEST(Cli, InterruptedFlashStopsBetweenBlocks) {
    std::string image = writeImage("interrupt.bin", 4000), out = tempPath("int_out"),
                err = tempPath("int_err"), trace = tempPath("int_trace");
    Devsim device("--block-size 128 --line-rate 9600 --trace " + trace);
    // A background job of a non-interactive shell ignores SIGINT; the subshell's trap restores
    // the default disposition before the program starts.
    std::string command = "( trap - INT; " QW_CLI_PATH " flash " + device.port() + " " + image +
                          " >" + out + " 2>" + err +
                          " & pid=$!; sleep 1; kill -INT $pid; wait $pid )";
    int code = exitCode(std::system(command.c_str()));
    std::string message = readFile(err);
    EXPECT_EQ(code, 130) << message;
    std::size_t at = message.find("interrupted after ");
    ASSERT_NE(at, std::string::npos) << message;
    int blocks = std::atoi(message.c_str() + at + 18);
    EXPECT_GT(blocks, 0);
    EXPECT_NE(message.find(" blocks of 32 (" + std::to_string(blocks * 128) +
                           " of 4000 bytes): the device holds a partial image; flash again "
                           "before using it"),
              std::string::npos)
        << message;
    // The device saw exactly those blocks, each whole, and nothing of the next.
    ::usleep(1200 * 1000);  // past the device's one-second pause that ends a waiting block
    Result r = quelworks("info " + device.port());
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(device.stop(SIGTERM), 0);
    std::string log = readFile(trace);
    EXPECT_NE(log.find("block " + std::to_string(blocks) + "/32: 128 bytes, checksum"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find("block " + std::to_string(blocks + 1) + "/32"), std::string::npos) << log;
    EXPECT_EQ(log.find("WRONG"), std::string::npos) << log;
    for (const std::string& path : {image, out, err, trace}) std::remove(path.c_str());
}

TEST(Cli, ThroughputNamesTheLineShareOnlyWhenTheLineLimitsIt) {
    std::string image = writeImage("share.bin", 1000);
    {
        Devsim device("");
        Result r = quelworks("flash " + device.port() + " " + image);
        EXPECT_EQ(r.code, 0) << r.err;
        EXPECT_EQ(r.out.find("baud line"), std::string::npos) << r.out;
    }
    {
        Devsim device("--line-rate device");
        Result r = quelworks("flash " + device.port() + " " + image);
        EXPECT_EQ(r.code, 0) << r.err;
        EXPECT_NE(r.out.find("% of the 9600 baud line"), std::string::npos) << r.out;
    }
    std::remove(image.c_str());
}

TEST(Cli, PortNamesThatAreNoSerialPort) {
    std::string file = tempPath("regular");
    std::ofstream(file) << "x";
    const struct {
        std::string command, message;
    } cases[] = {
        {"info ''", "quelworks: no port given: the port name is empty (see 'quelworks ports')\n"},
        {"info /dev/null", "quelworks: '/dev/null' is not a serial port\n"},
        {"info " + file, "quelworks: '" + file + "' is not a serial port\n"},
        {"info qw-no-such-port",
         "quelworks: no such port 'qw-no-such-port': No such file or directory (a name without a "
         "directory means /dev/qw-no-such-port; write ./qw-no-such-port for a file here) (see "
         "'quelworks ports' for the ports this system knows)\n"},
    };
    for (const auto& c : cases) {
        Result r = quelworks(c.command);
        EXPECT_EQ(r.code, 3) << c.command;
        EXPECT_EQ(r.err, c.message);
    }
    std::remove(file.c_str());
}

TEST(Cli, CommandLineMistakesAreNamed) {
    Result r = quelworks("bogus");
    EXPECT_EQ(r.code, 2);
    EXPECT_EQ(r.err,
              "quelworks: unknown subcommand 'bogus' (see 'quelworks --help' for the "
              "subcommands)\n");
    r = quelworks("--version");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "quelworks " QW_PROJECT_VERSION "\n");
    // The firmware header carries 16 bits: wider values are refused, not cut.
    for (const char* value : {"0x12345", "-1", "65536"}) {
        r = quelworks(std::string("flash /dev/null /dev/null --value ") + value);
        EXPECT_EQ(r.code, 2) << value;
    }
}

TEST(Devsim, RefusesBadOptionsAtStartUp) {
    const struct {
        const char* options;
        const char* message;  // part of standard error
    } cases[] = {
        {"--bogus", "--bogus"},
        {"--serial 123456789", "--serial takes at most 8 characters"},
        {"--image-out /nonexistent-dir/image.bin", "cannot write the image"},
        {"--line-rate -5", "--line-rate wants a number of baud"},
        {"--wrong-echo 0x999", "--wrong-echo"},
        {"--max-baud 0", "--max-baud"},
        {"--reply-delay -1", "--reply-delay"},
        {"--type 0x12345", "--type"},
        {"--reject-block -3", "--reject-block"},
    };
    std::string err = tempPath("devsim_err");
    for (const auto& c : cases) {
        int code = exitCode(std::system(("timeout -s KILL 10 " QW_DEVSIM_PATH " " +
                                         std::string(c.options) + " </dev/null >/dev/null 2>" + err)
                                            .c_str()));
        std::string text = readFile(err);
        EXPECT_EQ(code, 2) << c.options << ": " << text;
        EXPECT_NE(text.find(c.message), std::string::npos) << c.options << ": " << text;
    }
    std::remove(err.c_str());
    EXPECT_EQ(exitCode(std::system(QW_DEVSIM_PATH " --version >/dev/null")), 0);
    // The help names what each option takes, without the parser's type names and bounds.
    std::string help = tempPath("devsim_help");
    EXPECT_EQ(exitCode(std::system((QW_DEVSIM_PATH " --help >" + help).c_str())), 0);
    std::string text = readFile(help);
    for (const char* noise : {" INT", "UINT", "TEXT:", " in ["}) {
        EXPECT_EQ(text.find(noise), std::string::npos) << noise << "\n" << text;
    }
    EXPECT_NE(text.find("Enter Progmode"), std::string::npos) << text;
    std::remove(help.c_str());
}

// The cover and the hatching check their result against exact geometry: a finely divided circle
// has rows the containment test misjudges, and the command says how far its result reaches out.
TEST(Cli, CoverAndHatchWarnWhenTheResultLeavesTheOutline) {
    const std::string circle = tempPath("circle.txt");
    {
        std::ofstream out(circle);
        for (int i = 0; i < 1000; ++i) {
            const double a = 2 * 3.14159265358979 * i / 1000;
            out << 500 + 400 * std::cos(a) << " " << 500 + 400 * std::sin(a) << "\n";
        }
    }
    Result cover = quelworks("cover " + circle);
    EXPECT_EQ(cover.code, 0);
    EXPECT_NE(cover.err.find("rectangles reach outside the outline, by up to 1"), std::string::npos)
        << cover.err;
    const std::string square = tempPath("square.txt");
    std::ofstream(square) << "0 0\n100 0\n100 100\n0 100\n";
    for (const char* command : {"cover ", "hatch --spacing 3 "}) {
        Result clean = quelworks(command + square);
        EXPECT_EQ(clean.code, 0);
        EXPECT_EQ(clean.err.find("outside the outline"), std::string::npos) << clean.err;
    }
    std::remove(circle.c_str());
    std::remove(square.c_str());
}

// The default area is the polygon's bounding box; files that cannot be read or written are named
// with the reason; "--svg -" writes the picture to standard output.
TEST(Cli, GeometryCommandsAreaFilesAndStandardOutput) {
    const std::string square = tempPath("box.txt");
    std::ofstream(square) << "0 0\n100 0\n100 100\n0 100\n";
    EXPECT_EQ(quelworks("cover " + square).out, "0 0 100 100\n");
    Result svg = quelworks("cover " + square + " --svg -");
    EXPECT_EQ(svg.code, 0);
    EXPECT_EQ(svg.out.rfind("<svg ", 0), 0u) << svg.out;
    EXPECT_NE(svg.err.find("drawn to standard output"), std::string::npos) << svg.err;
    Result folder = quelworks("hatch " + ::testing::TempDir() + " --spacing 2");
    EXPECT_EQ(folder.code, 11);
    EXPECT_NE(folder.err.find("is a folder"), std::string::npos) << folder.err;
    Result missing = quelworks("hatch " + tempPath("none.txt") + " --spacing 2");
    EXPECT_NE(missing.err.find("No such file"), std::string::npos) << missing.err;
    // Options out of range are refused with a reason.
    Result spacing = quelworks("hatch " + square + " --spacing 2.5");
    EXPECT_EQ(spacing.code, 2);
    EXPECT_NE(spacing.err.find("whole number"), std::string::npos) << spacing.err;
    EXPECT_EQ(quelworks("hatch " + square + " --spacing 25").code, 0);
    Result tolerance = quelworks("cover " + square + " --tolerance 150");
    EXPECT_EQ(tolerance.code, 2);
    EXPECT_NE(tolerance.err.find("0 to 100"), std::string::npos) << tolerance.err;
    // Coordinates too large for the int arithmetic give no result: the command says why.
    const std::string huge = tempPath("huge.txt");
    std::ofstream(huge) << "0 0\n1e30 0\n1e30 10\n0 10\n";
    for (const char* command : {"cover ", "hatch --spacing 1 "}) {
        Result result = quelworks(command + huge);
        EXPECT_EQ(result.code, 11);
        EXPECT_NE(result.err.find("too large"), std::string::npos) << result.err;
    }
    std::remove(huge.c_str());
    // This triangle's hatching holds a -0 from the library; the command prints 0.
    const std::string triangle = tempPath("tri.txt");
    std::ofstream(triangle) << "-3.5 -2\n0 5\n3.5 -2\n";
    Result hatch = quelworks("hatch " + triangle + " --spacing 1");
    EXPECT_EQ(hatch.code, 0);
    EXPECT_FALSE(hatch.out.empty());
    EXPECT_EQ(hatch.out.find("-0 "), std::string::npos) << hatch.out;
    EXPECT_EQ(hatch.out.find("-0\n"), std::string::npos) << hatch.out;
    std::remove(triangle.c_str());
    Result unwritable = quelworks("cover " + square + " --svg /nonexistent/dir/x.svg");
    EXPECT_NE(unwritable.err.find("No such file"), std::string::npos) << unwritable.err;
    std::remove(square.c_str());
}

// Large pictures: the outline is split into polylines of at most 2000 points that share their
// ends (XML readers refuse attributes over 10 MB and struggle with many long elements), over
// 100,000 segments are drawn as paths; an SVG reader, when installed, accepts both pictures.
TEST(Cli, LargePicturesStayWithinWhatSvgReadersAccept) {
    const std::string circle = tempPath("big_circle.txt");
    {
        std::ofstream out(circle);
        for (int i = 0; i < 9000; ++i) {
            const double a = 2 * 3.14159265358979 * i / 9000;
            out << 3000 + 2500 * std::cos(a) << " " << 3000 + 2500 * std::sin(a) << "\n";
        }
    }
    const std::string comb = tempPath("comb.txt");
    {
        // 200 teeth 600 units high: a segment per tooth on each of about 600 scan lines.
        std::ofstream out(comb);
        out << "0 -10\n800 -10\n";
        for (int t = 199; t >= 0; --t) {
            out << 4 * t + 2.5 << " 0\n" << 4 * t + 2.5 << " 600\n";
            out << 4 * t + 0.5 << " 600\n" << 4 * t + 0.5 << " 0\n";
        }
    }
    const bool reader = std::system("command -v rsvg-convert >/dev/null 2>&1") == 0;
    for (const std::string& args :
         {"hatch " + circle + " --spacing 50 --svg ", "hatch " + comb + " --spacing 1 --svg "}) {
        const std::string picture = tempPath("big.svg");
        Result result = quelworks(args + picture);
        ASSERT_EQ(result.code, 0) << result.err;
        std::ifstream in(picture);
        std::string line;
        std::vector<std::string> points;
        std::size_t polylines = 0, paths = 0, lines = 0, longest = 0;
        while (std::getline(in, line)) {
            longest = std::max(longest, line.size());
            paths += line.rfind("<path ", 0) == 0;
            lines += line.rfind("<line ", 0) == 0;
            if (line.rfind("<polyline points=\"", 0) != 0) continue;
            ++polylines;
            const std::size_t from = std::string("<polyline points=\"").size();
            std::istringstream list(line.substr(from, line.find('"', from) - from));
            std::vector<std::string> these;
            for (std::string p; list >> p;) these.push_back(p);
            EXPECT_LE(these.size(), 2000u);
            // Each polyline starts where the one before ended.
            if (!points.empty()) {
                EXPECT_EQ(these.front(), points.back());
            }
            points.insert(points.end(), these.begin() + (points.empty() ? 0 : 1), these.end());
        }
        EXPECT_LT(longest, 100000u);
        if (args.find(circle) != std::string::npos) {
            EXPECT_EQ(points.size(), 9001u);  // every vertex, and back to the first
            EXPECT_EQ(points.front(), points.back());
            EXPECT_GT(lines, 0u);
            EXPECT_EQ(paths, 0u);
        } else {
            EXPECT_EQ(lines, 0u);
            EXPECT_GE(paths, 59u);  // about 120,000 segments, 2000 to a path
        }
        if (reader) {
            EXPECT_EQ(std::system(("rsvg-convert " + picture + " -o " + picture + ".png").c_str()),
                      0);
            std::remove((picture + ".png").c_str());
        }
        std::remove(picture.c_str());
    }
    std::remove(circle.c_str());
    std::remove(comb.c_str());
}

}  // namespace
