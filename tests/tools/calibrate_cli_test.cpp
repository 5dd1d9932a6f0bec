// `quelworks calibrate` end to end: check finds each planted fault of a distorted grid and says
// where, malformed files are refused with the line named, and map prints exactly what the
// library computes.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "quelworks/geometry/coordinate_transformation.h"

#include "tool_test_util.h"

namespace {

using namespace qwtest;

// Runs the quelworks program with these shell words (standard input from `input`, if given).
Result quelworks(const std::string& args, const std::string& input = "") {
    const std::string in = tempPath("in"), out = tempPath("out"), err = tempPath("err");
    std::ofstream(in, std::ios::binary) << input;
    const int status = std::system(
        ("timeout -s KILL 60 " QW_CLI_PATH " " + args + " <" + in + " >" + out + " 2>" + err)
            .c_str());
    Result result{WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
    for (const std::string& p : {in, out, err}) std::remove(p.c_str());
    return result;
}

using Grid = std::vector<std::vector<double>>;  // rows of {cx, cy, dx, dy}

// A 10 x 10 target seen through a lens with barrel distortion, camera y down, device y up.
Grid distortedGrid() {
    Grid grid;
    for (int j = 0; j < 10; ++j) {
        for (int i = 0; i < 10; ++i) {
            const double dx = 10.0 * i, dy = 90.0 - 10.0 * j;
            const double u = (dx - 45) * 5, v = (45 - dy) * 5;
            const double f = 1 - 0.08 * (u * u + v * v) / (300.0 * 300.0);
            grid.push_back({400 + u * f, 300 + v * f, dx, dy});
        }
    }
    return grid;
}

std::string save(const std::string& name, const Grid& grid) {
    const std::string path = tempPath(name);
    std::ofstream out(path);
    out << "# a calibration\n";
    char line[128];
    for (const auto& p : grid) {
        std::snprintf(line, sizeof line, "%.3f %.3f %.2f %.2f\n", p[0], p[1], p[2], p[3]);
        out << line;
    }
    return path;
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(CliCalibrate, CheckNamesEachPlantedFault) {
    const Grid clean = distortedGrid();
    Result ok = quelworks("calibrate check " + save("clean.txt", clean));
    EXPECT_EQ(ok.code, 0) << ok.out << ok.err;
    EXPECT_TRUE(has(ok.out, "a 10 x 10 grid, listed row by row")) << ok.out;
    EXPECT_TRUE(has(ok.out, "no problems found")) << ok.out;

    struct Fault {
        const char* name;
        Grid grid;
        std::vector<std::string> expected;
    };
    std::vector<Fault> faults;
    Grid g = clean;
    std::swap_ranges(g.begin() + 30, g.begin() + 40, g.begin() + 40);
    faults.push_back({"swapped-rows", g, {"rows 4 and 5 look swapped", "flipped"}});
    g = clean;
    std::swap(g[54], g[55]);
    faults.push_back(
        {"transposed", g, {"point 54 (line 56, row 6, column 5) and point 55", "look swapped"}});
    g = clean;
    g[44][0] = clean[56][0] + 3, g[44][1] = clean[56][1] + 2;  // pulled across the next cell
    faults.push_back({"folded", g, {"is folded (edges crossing) in camera space"}});
    g = clean;
    for (int i = 0; i < 10; ++i) g[70 + i][0] = clean[60 + i][0], g[70 + i][1] = clean[60 + i][1];
    faults.push_back(
        {"collinear", g, {"collinear, so the map there ignores camera y", "degenerate"}});
    g = clean;
    g[23][2] += 4;  // a mistyped device x
    faults.push_back({"mistyped", g, {"point 23 (line 25, row 3, column 4) disagrees", "by 4."}});
    for (const Fault& f : faults) {
        const std::string path = save(std::string(f.name) + ".txt", f.grid);
        Result r = quelworks("calibrate check " + path);
        EXPECT_EQ(r.code, 12) << f.name << "\n" << r.out << r.err;
        for (const std::string& e : f.expected)
            EXPECT_TRUE(has(r.out, e)) << f.name << "\n" << r.out;
        EXPECT_TRUE(has(r.err, "found in " + path)) << r.err;
        std::remove(path.c_str());
    }
    // Only the mistyped point is named, not its neighbours, and JSON carries the same finding.
    const std::string mistyped = save("mistyped.txt", faults.back().grid);
    Result json = quelworks("calibrate check --json " + mistyped);
    EXPECT_EQ(json.code, 12);
    EXPECT_TRUE(has(json.out, "\"kind\": \"point\"")) << json.out;
    EXPECT_TRUE(has(json.out, "\"points\": [23], \"error\": 4.")) << json.out;
    EXPECT_EQ(json.out.find("\"kind\": \"point\""), json.out.rfind("\"kind\": \"point\""));
    // The picture: both grids, the problem numbered in each, the finding listed.
    Result svg = quelworks("calibrate check " + mistyped + " --svg -");
    EXPECT_EQ(svg.code, 12);
    EXPECT_EQ(svg.out.rfind("<svg ", 0), 0u);
    EXPECT_TRUE(has(svg.out, "camera (y down)") && has(svg.out, "device (y up)"));
    EXPECT_TRUE(has(svg.out, "1. point 23"));
    EXPECT_TRUE(has(svg.err, "disagrees")) << "the report goes to standard error";
    std::remove(mistyped.c_str());
}

TEST(CliCalibrate, ShippedSampleHasItsMistypedPointFound) {
    Result r = quelworks("calibrate check " QW_SOURCE_DIR "/examples/calibration-12x12.txt");
    EXPECT_EQ(r.code, 12) << r.out << r.err;
    EXPECT_TRUE(has(r.out, "point 80 (line 92, row 7, column 9) disagrees")) << r.out;
    EXPECT_TRUE(has(r.out, "1 problem found")) << r.out;
}

TEST(CliCalibrate, MalformedAndUnusableFilesNameTheLine) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"0 0 1 1\n1 0 2\n", "line 2: expected four numbers \"cx cy dx dy\", found 3"},
        {"# x\n\n0 0 1 x\n", "line 3: number 4 is not a finite number"},
        {"0 0 1 1 5\n", "line 1: unexpected text after the four numbers"},
        {"0 0 nan 1\n", "line 1: number 3 is not a finite number"},
        {"0 0 1e39 1\n", "line 1: number 3 is not a finite number"},
        {std::string("0 0 1 1\n1 \0 1 1\n", 16), "line 2: unexpected NUL byte"},
        {"0 0 1 1\n1 0 2 1\n0 1 1 2\n1 1 2 2\n2 2 3 3\n", "unusable calibration size (5 points)"},
        {"", "unusable calibration size (0 points)"},
    };
    for (const auto& [text, message] : cases) {
        const std::string path = tempPath("bad.txt");
        std::ofstream(path, std::ios::binary) << text;
        for (const char* command : {"calibrate check ", "calibrate map "}) {
            Result r = quelworks(command + path, "1 2\n");
            EXPECT_EQ(r.code, 11) << command << message << "\n" << r.err;
            EXPECT_TRUE(has(r.err, message)) << command << "\n" << r.err;
        }
        std::remove(path.c_str());
    }
    Result folder = quelworks("calibrate check " + ::testing::TempDir());
    EXPECT_EQ(folder.code, 11);
    EXPECT_TRUE(has(folder.err, "is a folder, not a calibration file")) << folder.err;
    Result missing = quelworks("calibrate map " + tempPath("none.txt"));
    EXPECT_EQ(missing.code, 11);
    EXPECT_TRUE(has(missing.err, "No such file")) << missing.err;
    // Comments after the numbers, commas and CR LF line ends are read.
    const std::string path = tempPath("commas.txt");
    std::ofstream(path) << "0,0,0,0 # origin\r\n10, 0, 1, 0\r\n0 10 0 1\r\n";
    EXPECT_EQ(quelworks("calibrate check " + path).code, 0);
    std::remove(path.c_str());
}

TEST(CliCalibrate, MapPrintsTheLibrarysResultForEveryLine) {
    const Grid grid = distortedGrid();
    const std::string path = save("map.txt", grid);
    RList<CalibrationPoint> list;
    for (const auto& p : grid) {
        // The file holds the values as printed: read them back the same way.
        char text[128];
        std::snprintf(text, sizeof text, "%.3f %.3f %.2f %.2f", p[0], p[1], p[2], p[3]);
        float v[4];
        std::sscanf(text, "%f %f %f %f", &v[0], &v[1], &v[2], &v[3]);
        list.push_back(CalibrationPoint(Vector2f(v[0], v[1]), Vector2f(v[2], v[3])));
    }
    std::string input = "# camera positions\n";
    std::vector<Vector2f> points;
    for (int i = 0; i < 9000; ++i) {  // over two output blocks
        const Vector2f p(150 + (i * 37 % 500) + 0.25f * (i % 4), 60 + (i * 53 % 480));
        points.push_back(p);
        input += std::to_string(p.x) + (i % 2 ? "," : " ") + std::to_string(p.y) + "\n";
    }
    points.push_back(Vector2f(static_cast<float>(grid[12][0]), 0));
    input += std::to_string(points.back().x) + " 0\n\n";
    Result r = quelworks("calibrate map " + path, input);
    ASSERT_EQ(r.code, 0) << r.err;
    std::istringstream out(r.out);
    std::size_t i = 0, same = 0;
    for (float x, y; out >> x >> y; ++i) {
        const Vector2f p(std::stof(std::to_string(points[i].x)),
                         std::stof(std::to_string(points[i].y)));
        const Vector2f e = CoordinateTransformation::TransformCameraToDeviceCoordinates(p, list);
        same += x == e.x && y == e.y;
    }
    EXPECT_EQ(i, points.size());
    EXPECT_EQ(same, points.size());
    // A bad line stops with its number, after the lines before it were printed.
    Result bad = quelworks("calibrate map " + path, "1 2\n3 4\n5 six\n");
    EXPECT_EQ(bad.code, 11);
    EXPECT_TRUE(has(bad.err, "standard input: line 3: expected two numbers")) << bad.err;
    EXPECT_EQ(std::count(bad.out.begin(), bad.out.end(), '\n'), 2);
    // The picture with the mapped points; not on standard output, which carries the points.
    const std::string svg = tempPath("map.svg");
    Result drawn = quelworks("calibrate map " + path + " - --svg " + svg, "300 200\n310 210\n");
    EXPECT_EQ(drawn.code, 0) << drawn.err;
    EXPECT_TRUE(has(drawn.err, "2 points drawn to " + svg));
    EXPECT_TRUE(has(readFile(svg), "fill=\"#1a9641\""));
    EXPECT_EQ(quelworks("calibrate map " + path + " --svg -", "1 2\n").code, 2);
    std::remove(svg.c_str());
    std::remove(path.c_str());
}

}  // namespace
