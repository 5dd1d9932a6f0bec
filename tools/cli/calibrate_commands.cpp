#include "calibrate_commands.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "calibration_check.h"
#include "calibration_file.h"
#include "command_error.h"
#include "polygon_file.h"
#include "quelworks/geometry/prepared_transformation.h"
#include "text_io.h"

namespace {

using quelworks::cli::CalibrationFile;
using quelworks::cli::CalibrationReport;
using quelworks::cli::CellShape;
using quelworks::cli::CommandError;
using quelworks::cli::kExitBadInput;
using quelworks::cli::kExitUsage;

// At most this many mapped points are drawn; the rest are only printed.
constexpr std::size_t kMaxDrawnPoints = 20000;
// Grids of more cells than this on a side are drawn in blocks of cells.
constexpr int kDrawnCells = 64;

struct CheckOptions {
    std::string calibration;
    bool json = false;
    std::string svg;
    double tolerance = 0;
};

struct MapOptions {
    std::string calibration;
    std::string points;
    std::string svg;
};

CalibrationFile readCalibrationFile(const std::string& path) {
    const std::string text = quelworks::cli::readInputFile(path, "a calibration file");
    CalibrationFile file;
    std::string error;
    if (!quelworks::cli::parseCalibrationText(text, file, error)) {
        throw CommandError(kExitBadInput, path + ": " + error);
    }
    return file;
}

std::string jsonText(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", c);
            out += code;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string fmt(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", v);
    return text;
}

// ---- The picture -----------------------------------------------------------------------------

// One side of the picture: a square area of the page showing a set of positions, camera y down
// (as in the image) or device y up.
class Panel {
public:
    Panel(double left, double top, double size, const std::vector<Vector2f>& points, bool yUp)
        : left_(left), top_(top), yUp_(yUp) {
        double x0 = 0, x1 = 0, y0 = 0, y1 = 0;
        bool first = true;
        for (const Vector2f& p : points) {
            if (!std::isfinite(p.x) || !std::isfinite(p.y)) continue;
            x0 = first ? p.x : std::min<double>(x0, p.x);
            x1 = first ? p.x : std::max<double>(x1, p.x);
            y0 = first ? p.y : std::min<double>(y0, p.y);
            y1 = first ? p.y : std::max<double>(y1, p.y);
            first = false;
        }
        const double extent = std::max({x1 - x0, y1 - y0, 1e-30});
        scale_ = size * 0.92 / extent;
        x0_ = x0 - (size / scale_ - (x1 - x0)) / 2;
        y0_ = y0 - (size / scale_ - (y1 - y0)) / 2;
        size_ = size;
    }
    double x(Vector2f p) const { return left_ + (p.x - x0_) * scale_; }
    double y(Vector2f p) const {
        return yUp_ ? top_ + size_ - (p.y - y0_) * scale_ : top_ + (p.y - y0_) * scale_;
    }
    std::string at(Vector2f p) const { return fmt(x(p)) + "," + fmt(y(p)); }
    // Positions far outside the panel (a wild mapped point) are not drawn.
    bool shows(Vector2f p) const {
        return std::isfinite(p.x) && std::isfinite(p.y) && x(p) > left_ - size_ &&
               x(p) < left_ + 2 * size_ && y(p) > top_ - size_ && y(p) < top_ + 2 * size_;
    }

private:
    double left_, top_, scale_ = 1, x0_ = 0, y0_ = 0, size_ = 1;
    bool yUp_;
};

// Blue (smaller) through white to red (larger) for a scale relative to the median; a factor of
// sqrt(2) either way is full colour.
std::string scaleColour(double relative) {
    double t = relative > 0 ? std::log2(relative) * 2 : 0;
    t = std::max(-1.0, std::min(1.0, t));
    const double lo[3] = {44, 123, 182}, mid[3] = {247, 247, 247}, hi[3] = {215, 25, 28};
    char text[16];
    int c[3];
    for (int i = 0; i < 3; ++i) {
        c[i] = static_cast<int>(t < 0 ? mid[i] + (lo[i] - mid[i]) * -t
                                      : mid[i] + (hi[i] - mid[i]) * t);
    }
    std::snprintf(text, sizeof text, "#%02x%02x%02x", c[0], c[1], c[2]);
    return text;
}

// A message cut to the width of the picture.
std::string clipped(const std::string& text) {
    return text.size() <= 160 ? text : text.substr(0, 157) + "...";
}

std::string escapeXml(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '&')
            out += "&amp;";
        else if (c == '"')
            out += "&quot;";
        else
            out += c;
    }
    return out;
}

// The camera grid and the device grid side by side, cells coloured by local scale, problems
// numbered in the picture and listed below it, mapped points (camera, device) drawn on both.
std::string drawCalibration(const std::string& title, const std::vector<CalibrationPoint>& pts,
                            const CalibrationReport& report,
                            const std::vector<std::pair<Vector2f, Vector2f>>& mapped) {
    const double panel = 540, gap = 60, margin = 30, top = 70;
    const int k = report.k;
    std::vector<Vector2f> camera, device;
    for (const CalibrationPoint& c : pts) camera.push_back(c.camera), device.push_back(c.device);
    for (const auto& m : mapped) camera.push_back(m.first), device.push_back(m.second);
    const Panel left(margin, top, panel, camera, false);
    const Panel right(margin + panel + gap, top, panel, device, true);
    const std::size_t listed = std::min<std::size_t>(report.problems.size(), 14);
    const double width = 2 * margin + 2 * panel + gap;
    const double height = top + panel + 90 + 18.0 * (listed + (listed < report.problems.size()));
    std::ostringstream svg;
    svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " << width << " " << height
        << "\" width=\"" << width << "\" height=\"" << height
        << "\" font-family=\"sans-serif\" font-size=\"13\">\n"
        << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
        << "<text x=\"" << margin << "\" y=\"24\" font-size=\"16\" font-weight=\"bold\">"
        << escapeXml(title) << "</text>\n"
        << "<text x=\"" << margin << "\" y=\"" << top - 12 << "\">camera (y down)</text>\n"
        << "<text x=\"" << margin + panel + gap << "\" y=\"" << top - 12
        << "\">device (y up)</text>\n";
    for (int side = 0; side < 2; ++side) {
        const Panel& p = side == 0 ? left : right;
        svg << "<rect x=\"" << (side == 0 ? margin : margin + panel + gap) << "\" y=\"" << top
            << "\" width=\"" << panel << "\" height=\"" << panel
            << "\" fill=\"none\" stroke=\"#bbb\"/>\n";
        auto pos = [&](int i) { return side == 0 ? pts[i].camera : pts[i].device; };
        // Cells, coloured by scale; bad ones dark. A large grid is drawn in blocks of stride x
        // stride cells (scale averaged, dark when any cell in it is bad), every stride-th row.
        const int stride = std::max(1, (k - 1 + kDrawnCells - 1) / kDrawnCells);
        auto next = [&](int i) { return std::min(i + stride, k - 1); };
        for (int row = 0; k > 1 && row < k - 1; row = next(row)) {
            for (int column = 0; column < k - 1; column = next(column)) {
                bool bad = false;
                double scale = 0;
                int count = 0;
                for (int r = row; r < next(row); ++r) {
                    for (int c = column; c < next(column); ++c) {
                        const int cell = r * (k - 1) + c;
                        bad |= report.cameraShape[cell] != CellShape::Ok ||
                               report.deviceShape[cell] != CellShape::Ok;
                        scale += report.scale[cell];
                        ++count;
                    }
                }
                const std::string fill =
                    bad ? "#555"
                        : scaleColour(report.medianScale > 0 ? scale / count / report.medianScale
                                                             : 1);
                const int q[4] = {row * k + column, row * k + next(column),
                                  next(row) * k + next(column), next(row) * k + column};
                svg << "<polygon points=\"";
                for (int i : q) svg << p.at(pos(i)) << " ";
                svg << "\" fill=\"" << fill << "\" fill-opacity=\"" << (bad ? 0.55 : 0.85)
                    << "\" stroke=\"#888\" stroke-width=\"0.6\"/>\n";
            }
        }
        if (k == 0 && pts.size() == 3) {
            svg << "<polygon points=\"" << p.at(pos(0)) << " " << p.at(pos(1)) << " "
                << p.at(pos(2)) << "\" fill=\"#f7f7f7\" stroke=\"#888\"/>\n";
        }
        // Rows as polylines, so the list order shows (a wrong order zig-zags).
        for (int row = 0; k > 1; row = next(row)) {
            svg << "<polyline fill=\"none\" stroke=\"#333\" stroke-width=\"1\" points=\"";
            for (int c = 0; c < k; c = c == k - 1 ? k : next(c))
                svg << p.at(pos(row * k + c)) << " ";
            svg << "\"/>\n";
            if (row == k - 1) break;
        }
        for (std::size_t i = 0; stride == 1 && i < pts.size(); ++i) {
            svg << "<circle cx=\"" << fmt(p.x(pos(static_cast<int>(i)))) << "\" cy=\""
                << fmt(p.y(pos(static_cast<int>(i)))) << "\" r=\"2\" fill=\"#222\"/>\n";
        }
        // Mapped points.
        std::size_t drawn = 0;
        for (const auto& m : mapped) {
            const Vector2f v = side == 0 ? m.first : m.second;
            if (!p.shows(v) || ++drawn > kMaxDrawnPoints) continue;
            svg << "<circle cx=\"" << fmt(p.x(v)) << "\" cy=\"" << fmt(p.y(v))
                << "\" r=\"2.2\" fill=\"#1a9641\" fill-opacity=\"0.8\"/>\n";
        }
        // Problems: rings round the points involved, outlines round bad cells, a number.
        std::vector<std::pair<double, double>> labels;
        for (std::size_t n = 0; n < report.problems.size(); ++n) {
            const auto& problem = report.problems[n];
            const char* colour = problem.kind == "point"      ? "#d7191c"
                                 : problem.kind == "order"    ? "#e66101"
                                 : problem.kind == "triangle" ? "#7b3294"
                                                              : "#000";
            double lx = 0, ly = 0;
            if (problem.kind == "cell" ||
                (problem.kind == "triangle" && problem.points.size() == 3)) {
                svg << "<polygon points=\"";
                for (int i : problem.points) svg << p.at(pos(i)) << " ";
                svg << "\" fill=\"none\" stroke=\"" << colour
                    << "\" stroke-width=\"2.5\" stroke-dasharray=\"5,3\"/>\n";
            } else {
                for (int i : problem.points) {
                    svg << "<circle cx=\"" << fmt(p.x(pos(i))) << "\" cy=\"" << fmt(p.y(pos(i)))
                        << "\" r=\"7\" fill=\"none\" stroke=\"" << colour
                        << "\" stroke-width=\"2.5\"/>\n";
                }
            }
            for (int i : problem.points) lx += p.x(pos(i)), ly += p.y(pos(i));
            if (problem.points.empty() || n >= listed) continue;
            lx = lx / problem.points.size() + 9;
            ly = ly / problem.points.size() - 9;
            // Numbers of problems at the same place are set side by side.
            for (bool moved = true; moved;) {
                moved = false;
                for (const auto& l : labels) {
                    if (std::fabs(l.first - lx) < 16 && std::fabs(l.second - ly) < 14) {
                        lx = l.first + 18;
                        moved = true;
                    }
                }
            }
            labels.push_back({lx, ly});
            svg << "<text x=\"" << fmt(lx) << "\" y=\"" << fmt(ly)
                << "\" font-weight=\"bold\" fill=\"" << colour
                << "\" stroke=\"white\" stroke-width=\"3\" paint-order=\"stroke\">" << n + 1
                << "</text>\n";
        }
    }
    // Colour legend and the problem list.
    double y = top + panel + 28;
    if (k > 1) {
        for (int i = 0; i <= 40; ++i) {
            svg << "<rect x=\"" << margin + i * 6 << "\" y=\"" << y - 12
                << "\" width=\"6\" height=\"12\" fill=\""
                << scaleColour(std::pow(2.0, (i - 20) / 40.0)) << "\"/>\n";
        }
        svg << "<text x=\"" << margin + 252 << "\" y=\"" << y - 1
            << "\">cell scale relative to the median (" << fmt(report.medianScale)
            << " device units per camera unit): 0.71x (blue) to 1.41x (red); grey: bad "
               "cell</text>\n";
    }
    y += 24;
    svg << "<text x=\"" << margin << "\" y=\"" << y << "\" font-weight=\"bold\">"
        << (report.problems.empty() ? "No problems found."
                                    : std::to_string(report.problems.size()) + " problem" +
                                          (report.problems.size() == 1 ? "" : "s") + " found:")
        << "</text>\n";
    for (std::size_t n = 0; n < listed; ++n) {
        y += 18;
        svg << "<text x=\"" << margin << "\" y=\"" << y << "\">" << n + 1 << ". "
            << escapeXml(clipped(report.problems[n].message)) << "</text>\n";
    }
    if (listed < report.problems.size()) {
        svg << "<text x=\"" << margin << "\" y=\"" << y + 18 << "\">... and "
            << report.problems.size() - listed << " more (see the text report)</text>\n";
    }
    svg << "</svg>\n";
    return svg.str();
}

// ---- The commands ----------------------------------------------------------------------------

void runCheck(const CheckOptions& o) {
    if (!(o.tolerance >= 0)) throw CommandError(kExitUsage, "--tolerance must be 0 or more");
    const CalibrationFile file = readCalibrationFile(o.calibration);
    const CalibrationReport report =
        quelworks::cli::checkCalibration(file.points, file.lines, o.tolerance);
    const bool svgOut = o.svg == "-";
    std::ostringstream text;
    if (o.json) {
        text << "{\"file\": " << jsonText(o.calibration) << ", \"points\": " << report.n
             << ", \"usable\": " << (report.usable ? "true" : "false") << ", \"grid\": " << report.k
             << ", \"ordered\": " << (report.ordered ? "true" : "false")
             << ", \"tolerance\": " << fmt(report.tolerance) << ", \"problems\": [";
        for (std::size_t i = 0; i < report.problems.size(); ++i) {
            const auto& p = report.problems[i];
            text << (i ? ", " : "") << "{\"kind\": \"" << p.kind
                 << "\", \"message\": " << jsonText(p.message) << ", \"points\": [";
            for (std::size_t j = 0; j < p.points.size(); ++j)
                text << (j ? ", " : "") << p.points[j];
            text << "]";
            if (p.cell >= 0) text << ", \"cell\": " << p.cell;
            if (p.kind == "point") text << ", \"error\": " << fmt(p.error);
            text << "}";
        }
        text << "]}\n";
    } else {
        text << o.calibration << ": " << report.n << " points";
        if (report.k > 0) text << ", a " << report.k << " x " << report.k << " grid";
        if (report.n == 3) text << ", one affine map";
        if (report.usable && report.k > 0) {
            text << (report.ordered ? ", listed row by row" : ", NOT in row-by-row order");
        }
        text << "\n";
        // A broken file can give hundreds of findings: the first ones say what is wrong.
        const std::size_t shown = std::min<std::size_t>(report.problems.size(), 25);
        for (std::size_t i = 0; i < shown; ++i) {
            text << "problem: " << report.problems[i].message << "\n";
        }
        if (shown < report.problems.size()) {
            text << "... and " << report.problems.size() - shown << " more (--json lists all)\n";
        }
        if (report.usable) {
            text << (report.problems.empty()
                         ? std::string("no problems found")
                         : std::to_string(report.problems.size()) + " problem" +
                               (report.problems.size() == 1 ? "" : "s") + " found");
            if (report.k > 0 && report.ordered) {
                text << " (points checked against their neighbours to " << fmt(report.tolerance)
                     << " device units)";
            }
            text << "\n";
        }
    }
    (svgOut ? std::cerr : std::cout) << text.str();
    if (!o.svg.empty()) {
        quelworks::cli::writeOutputFile(
            o.svg, drawCalibration("calibration check: " + o.calibration, file.points, report, {}));
        if (!o.json)
            (svgOut ? std::cerr : std::cout)
                << "drawn to " << (svgOut ? "standard output" : o.svg) << "\n";
    }
    std::cout.flush();
    if (!report.usable) {
        throw CommandError(kExitBadInput, o.calibration + ": unusable calibration size (" +
                                              std::to_string(report.n) + " points)");
    }
    if (!report.problems.empty()) {
        throw CommandError(quelworks::cli::kExitCalibrationFaults,
                           std::to_string(report.problems.size()) + " problem" +
                               (report.problems.size() == 1 ? "" : "s") + " found in " +
                               o.calibration);
    }
}

void runMap(const MapOptions& o) {
    if (o.svg == "-") {
        throw CommandError(kExitUsage,
                           "map prints the mapped points on standard output: give --svg a file");
    }
    const CalibrationFile file = readCalibrationFile(o.calibration);
    const PreparedTransformation transform(file.points.data(), file.points.size());
    if (!transform.IsUsable()) {
        throw CommandError(kExitBadInput, o.calibration + ": unusable calibration size (" +
                                              std::to_string(file.points.size()) +
                                              " points): it needs exactly 3 or a k x k grid");
    }
    std::istream* source = &std::cin;
    std::istringstream fileText;
    if (!o.points.empty() && o.points != "-") {
        fileText.str(quelworks::cli::readInputFile(o.points, "a points file"));
        source = &fileText;
    }
    const std::string sourceName =
        o.points.empty() || o.points == "-" ? "standard input" : o.points;
    std::vector<std::pair<Vector2f, Vector2f>> drawn;
    std::vector<Vector2f> block;
    std::string out;
    auto flush = [&] {
        std::vector<Vector2f> mapped(block.size());
        transform.Transform(block.data(), mapped.data(), block.size());
        for (std::size_t i = 0; i < block.size(); ++i) {
            char line[64];
            std::snprintf(line, sizeof line, "%.9g %.9g\n", mapped[i].x, mapped[i].y);
            out += line;
            if (!o.svg.empty() && drawn.size() < kMaxDrawnPoints)
                drawn.push_back({block[i], mapped[i]});
        }
        std::fwrite(out.data(), 1, out.size(), stdout);
        out.clear();
        block.clear();
    };
    std::string line;
    std::size_t lineNumber = 0;
    while (std::getline(*source, line)) {
        ++lineNumber;
        pointf p;
        std::string error;
        const int got = quelworks::cli::parsePointLine(line, 0, line.size(), p, error);
        if (got < 0) {
            flush();
            std::fflush(stdout);
            throw CommandError(kExitBadInput,
                               sourceName + ": line " + std::to_string(lineNumber) + ": " + error);
        }
        if (got == 0) continue;
        block.push_back(Vector2f(p.x, p.y));
        if (block.size() == 4096) flush();
    }
    flush();
    std::fflush(stdout);
    if (!o.svg.empty()) {
        const CalibrationReport report =
            quelworks::cli::checkCalibration(file.points, file.lines, 0);
        quelworks::cli::writeOutputFile(
            o.svg, drawCalibration("mapped through " + o.calibration, file.points, report, drawn));
        std::fprintf(stderr, "%zu points drawn to %s\n", drawn.size(), o.svg.c_str());
    }
}

}  // namespace

void addCalibrateCommands(CLI::App& app) {
    CLI::App* calibrate = app.add_subcommand(
        "calibrate", "Check a camera calibration, or map camera positions to device positions");
    calibrate->require_subcommand(1);

    auto check = std::make_shared<CheckOptions>();
    CLI::App* c = calibrate->add_subcommand(
        "check",
        "Find faults in a calibration file (exit 0 when clean, 12 when problems are found)");
    c->add_option("calibration", check->calibration,
                  "Text file, one calibration point per line: \"cx cy dx dy\" (camera, device)")
        ->required();
    c->add_flag("--json", check->json, "Print one JSON object instead of lines");
    c->add_option("--tolerance", check->tolerance,
                  "How far (device units) a point may lie off the fit through its neighbours "
                  "(default: a tenth of the median spacing)");
    c->add_option("--svg", check->svg,
                  "Draw the camera and device grids with the problems into this SVG file ('-': "
                  "standard output)");
    c->callback([check] { runCheck(*check); });

    auto map = std::make_shared<MapOptions>();
    CLI::App* m = calibrate->add_subcommand(
        "map", "Map camera positions (\"x y\" lines) to device positions through a calibration");
    m->add_option("calibration", map->calibration,
                  "Text file, one calibration point per line: \"cx cy dx dy\" (camera, device)")
        ->required();
    m->add_option("points", map->points,
                  "Text file of camera positions, \"x y\" or \"x,y\" per line (default or '-': "
                  "standard input)");
    m->add_option("--svg", map->svg,
                  "Also draw the grids and the mapped points into this SVG file");
    m->callback([map] { runMap(*map); });
}
