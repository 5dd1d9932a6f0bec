#include "geometry_commands.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "command_error.h"
#include "outline_check.h"
#include "polygon_file.h"
#include "progress.h"
#include "quelworks/geometry/hatching.h"
#include "quelworks/geometry/polygon.h"
#include "text_io.h"

namespace {

using quelworks::cli::CommandError;
using quelworks::cli::kExitBadInput;
using quelworks::cli::kExitFailure;
using quelworks::cli::kExitUsage;

// Covers beyond this side take minutes and gigabytes; hatching beyond this many scan lines
// likewise.
constexpr float kMaxCoverSide = 20000.0f;
constexpr double kMaxScanLines = 1e6;

struct CoverOptions {
    std::string polygon;
    std::string area;
    int tolerance = 0;
    std::string svg;
};

struct HatchOptions {
    std::string outline;
    double spacing = 0;
    std::string svg;
};

std::vector<pointf> readPolygonFile(const std::string& path) {
    const std::string text = quelworks::cli::readInputFile(path, "an outline file");
    std::vector<pointf> vertices;
    std::string error;
    if (!quelworks::cli::parsePolygonText(text, vertices, error)) {
        throw CommandError(kExitBadInput, path + ": " + error);
    }
    if (vertices.size() < 3) {
        throw CommandError(kExitBadInput, path + ": an outline needs at least 3 vertices, found " +
                                              std::to_string(vertices.size()));
    }
    return vertices;
}

// "X,Y,W,H" with W and H positive.
rectanglef parseArea(const std::string& text) {
    float v[4];
    std::size_t pos = 0;
    for (int i = 0; i < 4; ++i) {
        if (i > 0) {
            if (pos >= text.size() || text[pos] != ',') {
                throw CommandError(kExitUsage, "--area: expected X,Y,W,H, got \"" + text + "\"");
            }
            ++pos;
        }
        std::size_t end = text.find(',', pos);
        if (end == std::string::npos) end = text.size();
        std::size_t p = pos;
        if (!quelworks::cli::detail::readNumber(text, p, end, v[i]) || p != end) {
            throw CommandError(kExitUsage, "--area: expected X,Y,W,H, got \"" + text + "\"");
        }
        pos = end;
    }
    if (pos != text.size()) {
        throw CommandError(kExitUsage, "--area: expected X,Y,W,H, got \"" + text + "\"");
    }
    if (!(v[2] > 0 && v[3] > 0)) throw CommandError(kExitUsage, "--area: W and H must be positive");
    return rectanglef(v[0], v[1], v[2], v[3]);
}

// Coordinates beyond this make the library's int-truncated arithmetic overflow.
constexpr double kLargeCoordinate = 1e6;

// An empty result from an outline with such coordinates is the arithmetic's doing, not the
// outline's: say so instead of printing nothing.
void refuseEmptyFromHugeCoordinates(const std::vector<pointf>& outline, bool empty) {
    if (!empty) return;
    double largest = 0;
    for (const pointf& p : outline) {
        largest = std::max({largest, std::fabs(double(p.x)), std::fabs(double(p.y))});
    }
    if (largest > kLargeCoordinate || std::isnan(largest)) {
        char text[200];
        std::snprintf(text, sizeof text,
                      "no result: a coordinate of %g is too large for the geometry, which works "
                      "on whole-unit int values (keep coordinates within %g)",
                      largest, kLargeCoordinate);
        throw CommandError(kExitBadInput, text);
    }
}

// Warns on standard error when results reach outside the outline by exact geometry.
void warnOutside(const quelworks::cli::OutsideReport& report, std::size_t total, const char* what) {
    if (!report.checked) {
        std::fprintf(stderr, "note: %zu %s not checked against exact geometry (too large)\n", total,
                     what);
    } else if (report.outside > 0) {
        std::fprintf(stderr,
                     "warning: %zu of %zu %s reach outside the outline, by up to %.3g units "
                     "(the containment test misjudges points level with slanted edges)\n",
                     report.outside, total, what, report.worst);
    }
}

// Shows, on a terminal, which step a long run is at and for how long: "covering 1000000
// vertices... 0:04". The library gives no progress of its own, so the line is redrawn from a
// thread of ours twice a second, once the run has taken a second; it is cleared when the step
// ends. Nothing is shown when standard error is not a terminal, so output stays the same.
class StepNotice {
public:
    StepNotice() : enabled_(quelworks::cli::isTerminal(stderr)) {
        if (enabled_) thread_ = std::thread([this] { run(); });
    }
    ~StepNotice() {
        if (!enabled_) return;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        wake_.notify_all();
        thread_.join();
        clear();
    }
    StepNotice(const StepNotice&) = delete;
    StepNotice& operator=(const StepNotice&) = delete;

    // Starts a step ("covering 1000000 vertices"); the time shown counts from here.
    void step(const std::string& what) {
        if (!enabled_) return;
        std::lock_guard<std::mutex> lock(mutex_);
        what_ = what;
        since_ = std::chrono::steady_clock::now();
    }

private:
    void run() {
        const auto started = std::chrono::steady_clock::now();
        std::unique_lock<std::mutex> lock(mutex_);
        while (!wake_.wait_for(lock, std::chrono::milliseconds(500), [this] { return stop_; })) {
            const auto now = std::chrono::steady_clock::now();
            if (now - started < std::chrono::seconds(1) || what_.empty()) continue;
            const double seconds = std::chrono::duration<double>(now - since_).count();
            std::string line = what_ + "... " + quelworks::cli::formatDuration(seconds);
            const std::size_t room =
                static_cast<std::size_t>(std::max(10, quelworks::cli::terminalColumns(stderr) - 1));
            if (line.size() > room) line.resize(room);
            std::fprintf(stderr, "\r%s\033[K", line.c_str());
            std::fflush(stderr);
            drawn_ = true;
        }
    }
    void clear() {
        if (!drawn_) return;
        std::fprintf(stderr, "\r\033[K");
        std::fflush(stderr);
    }

    const bool enabled_;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    bool drawn_ = false;
    std::string what_;
    std::chrono::steady_clock::time_point since_ = std::chrono::steady_clock::now();
};

// An SVG picture in the plane's own coordinates, y pointing up.
//
// Large pictures stay within what SVG readers accept: XML readers refuse attribute values over
// 10 MB (a million-vertex outline in one points attribute is about 16 MB), some give up on
// documents of many long elements (seen with elements of 250 KB in a 17 MB file, while 27 MB of
// 70 KB elements read fine), and some load at most a million elements. So the outline is drawn
// as polylines of at most kPointsPerElement points, and beyond kMaxShapeElements rectangles or
// segments the shapes are drawn as paths of kShapesPerPath shapes each.
class SvgPicture {
public:
    static constexpr std::size_t kPointsPerElement = 2000;
    static constexpr std::size_t kMaxShapeElements = 100000;
    static constexpr std::size_t kShapesPerPath = 2000;

    SvgPicture(float minX, float minY, float maxX, float maxY) {
        const float margin = std::max({maxX - minX, maxY - minY, 1.0f}) * 0.03f;
        x0_ = minX - margin;
        top_ = maxY + margin;
        width_ = maxX - minX + 2 * margin;
        height_ = maxY - minY + 2 * margin;
        stroke_ = std::max(width_, height_) / 600.0f;
    }

    void rectangles(const std::vector<rectanglef>& rects) {
        const bool paths = rects.size() > kMaxShapeElements;
        for (std::size_t i = 0; i < rects.size(); ++i) {
            const rectanglef& r = rects[i];
            const float x = r.x - x0_;
            const float y = top_ - (r.y + r.height);
            if (!paths) {
                body_ << "<rect x=\"" << x << "\" y=\"" << y << "\" width=\"" << r.width
                      << "\" height=\"" << r.height << "\"/>\n";
                continue;
            }
            if (i % kShapesPerPath == 0) body_ << "<path d=\"";
            body_ << "M" << x << " " << y << "h" << r.width << "v" << r.height << "h" << -r.width
                  << "z";
            if (i % kShapesPerPath == kShapesPerPath - 1 || i + 1 == rects.size()) {
                body_ << "\"/>\n";
            }
        }
    }

    void segments(const std::vector<std::vector<LineSegment>>& groups) {
        std::size_t total = 0;
        for (const auto& g : groups) total += g.size();
        const bool paths = total > kMaxShapeElements;
        std::size_t i = 0;
        for (const auto& g : groups) {
            for (const LineSegment& s : g) {
                const float x1 = s.start.x - x0_, y1 = top_ - s.start.y;
                const float x2 = s.end.x - x0_, y2 = top_ - s.end.y;
                if (!paths) {
                    body_ << "<line x1=\"" << x1 << "\" y1=\"" << y1 << "\" x2=\"" << x2
                          << "\" y2=\"" << y2 << "\"/>\n";
                    continue;
                }
                if (i % kShapesPerPath == 0) body_ << "<path d=\"";
                body_ << "M" << x1 << " " << y1 << "L" << x2 << " " << y2;
                if (i % kShapesPerPath == kShapesPerPath - 1 || i + 1 == total) body_ << "\"/>\n";
                ++i;
            }
        }
    }

    // Writes the picture to the file, or to standard output for "-".
    void write(const std::string& path, const std::vector<pointf>& outline, bool closed,
               const std::string& shapes) {
        std::ostringstream out;
        out << "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " << width_ << " "
            << height_ << "\" width=\"800\" height=\"" << 800.0f * height_ / width_ << "\">\n"
            << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
            << "<g " << shapes << " stroke-width=\"" << stroke_ << "\">\n"
            << body_.str() << "</g>\n";
        writeOutline(out, outline, closed);
        out << "</svg>\n";
        quelworks::cli::writeOutputFile(path, out.str());
    }

private:
    // The outline as one polygon (closed) or polyline, or, when long, as polylines that share
    // their end points. Points that print the same as the one before are left out.
    void writeOutline(std::ostream& out, const std::vector<pointf>& outline, bool closed) const {
        std::vector<std::string> points;
        std::ostringstream text;
        for (const pointf& p : outline) {
            text.str("");
            text << p.x - x0_ << "," << top_ - p.y;
            if (points.empty() || points.back() != text.str()) points.push_back(text.str());
        }
        const bool split = points.size() > kPointsPerElement;
        if (split && closed && !points.empty()) points.push_back(points.front());
        const char* element = closed && !split ? "polygon" : "polyline";
        for (std::size_t first = 0; first < points.size() || first == 0;
             first += kPointsPerElement - 1) {
            const std::size_t last = std::min(points.size(), first + kPointsPerElement);
            out << "<" << element << " points=\"";
            for (std::size_t i = first; i < last; ++i) out << points[i] << " ";
            out << "\" fill=\"none\" stroke=\"black\" stroke-width=\"" << stroke_ * 1.5f
                << "\"/>\n";
            if (last == points.size()) break;
        }
    }

    float x0_, top_, width_, height_, stroke_;
    std::ostringstream body_;
};

void runCover(const CoverOptions& o) {
    auto notice = std::make_unique<StepNotice>();
    notice->step("reading " + o.polygon);
    std::vector<pointf> polygon = readPolygonFile(o.polygon);
    // The cover's polygon has no edge from its last vertex back to the first: close it here.
    if (!(polygon.front() == polygon.back())) polygon.push_back(polygon.front());
    rectanglef area;
    if (o.area.empty()) {
        area = GetBoundingBox(polygon);
    } else {
        area = parseArea(o.area);
    }
    if (area.width > kMaxCoverSide || area.height > kMaxCoverSide) {
        throw CommandError(kExitUsage, "the area may be at most 20000 units on a side");
    }
    std::vector<rectanglef> rects;
    if (o.tolerance < 0 || o.tolerance > 100) {
        throw CommandError(kExitUsage, "--tolerance is a percentage from 0 to 100");
    }
    notice->step("covering " + std::to_string(polygon.size()) + " vertices");
    BeginSpreadPolygon(polygon, &rects, area, o.tolerance);
    refuseEmptyFromHugeCoordinates(polygon, rects.empty());
    notice->step("checking " + std::to_string(rects.size()) + " rectangles");
    const quelworks::cli::OutsideReport report =
        quelworks::cli::OutlineCheck(polygon).rectangles(rects);
    notice.reset();
    warnOutside(report, rects.size(), "rectangles");

    if (o.svg.empty()) {
        for (const rectanglef& r : rects) {
            std::printf("%g %g %g %g\n", r.x, r.y, r.width, r.height);
        }
        return;
    }
    float minX = area.x, minY = area.y, maxX = area.x + area.width, maxY = area.y + area.height;
    for (const pointf& p : polygon) {
        minX = std::min(minX, p.x);
        minY = std::min(minY, p.y);
        maxX = std::max(maxX, p.x);
        maxY = std::max(maxY, p.y);
    }
    SvgPicture svg(minX, minY, maxX, maxY);
    svg.rectangles(rects);
    svg.write(o.svg, polygon, false, "fill=\"#7fb3e0\" fill-opacity=\"0.6\" stroke=\"#1f4e79\"");
    double covered = 0;
    for (const rectanglef& r : rects) covered += double(r.width) * r.height;
    // With the picture on standard output the summary goes to standard error.
    std::fprintf(o.svg == "-" ? stderr : stdout,
                 "%zu rectangles covering %.0f square units, drawn to %s\n", rects.size(), covered,
                 o.svg == "-" ? "standard output" : o.svg.c_str());
}

void runHatch(const HatchOptions& o) {
    // Scan lines lie on whole units, so the spacing is a whole number.
    if (!(o.spacing >= 1) || o.spacing != std::floor(o.spacing) || o.spacing > 1e6) {
        throw CommandError(kExitUsage,
                           "--spacing must be a whole number of units from 1 to 1000000 (scan "
                           "lines lie on whole units)");
    }
    const int spacing = static_cast<int>(o.spacing);
    auto notice = std::make_unique<StepNotice>();
    notice->step("reading " + o.outline);
    const std::vector<pointf> points = readPolygonFile(o.outline);
    std::vector<Vector2f> outline(points.begin(), points.end());
    const rectanglef box = GetBoundingBox(outline);
    if ((double(box.height) + 2.0 * spacing) / spacing > kMaxScanLines) {
        throw CommandError(kExitUsage,
                           "the outline is too high for this spacing (over a million "
                           "scan lines); use a larger --spacing");
    }
    notice->step("hatching " + std::to_string(outline.size()) + " vertices");
    const std::vector<std::vector<LineSegment>> groups = FragmentToLines(outline, spacing);

    std::size_t segments = 0;
    for (const auto& g : groups) segments += g.size();
    refuseEmptyFromHugeCoordinates(points, segments == 0);
    notice->step("checking " + std::to_string(segments) + " segments");
    const quelworks::cli::OutsideReport report =
        quelworks::cli::OutlineCheck(points).segments(groups);
    notice.reset();
    warnOutside(report, segments, "segments");
    if (o.svg.empty()) {
        for (const auto& g : groups) {
            for (const LineSegment& s : g) {
                // Adding 0 turns a -0 from the library into 0.
                std::printf("%g %g %g %g\n", s.start.x + 0.0f, s.start.y + 0.0f, s.end.x + 0.0f,
                            s.end.y + 0.0f);
            }
        }
        return;
    }
    float minX = points[0].x, minY = points[0].y, maxX = minX, maxY = minY;
    for (const pointf& p : points) {
        minX = std::min(minX, p.x);
        minY = std::min(minY, p.y);
        maxX = std::max(maxX, p.x);
        maxY = std::max(maxY, p.y);
    }
    SvgPicture svg(minX, minY, maxX, maxY);
    svg.segments(groups);
    svg.write(o.svg, points, true, "stroke=\"#c0392b\" stroke-linecap=\"round\"");
    std::fprintf(o.svg == "-" ? stderr : stdout, "%zu segments on %zu scan lines, drawn to %s\n",
                 segments, groups.size(), o.svg == "-" ? "standard output" : o.svg.c_str());
}

}  // namespace

void addGeometryCommands(CLI::App& app) {
    auto cover = std::make_shared<CoverOptions>();
    CLI::App* c = app.add_subcommand(
        "cover", "Cover a polygon with rectangles (printed as \"x y width height\", or drawn)");
    c->add_option("polygon", cover->polygon,
                  "Text file, one vertex per line as \"x y\" or \"x,y\"; closed implicitly")
        ->required();
    c->add_option("--area", cover->area,
                  "The area to cover, X,Y,W,H (default: the polygon's bounding box)");
    c->add_option("--tolerance", cover->tolerance,
                  "Percentage (0 to 100) of sample points that may lie outside a kept rectangle")
        ->default_val(0);
    c->add_option("--svg", cover->svg,
                  "Draw the polygon and the rectangles into this SVG file ('-': standard output)");
    c->callback([cover] { runCover(*cover); });

    auto hatch = std::make_shared<HatchOptions>();
    CLI::App* h = app.add_subcommand(
        "hatch", "Fill an outline with horizontal segments (printed as \"x1 y1 x2 y2\", or drawn)");
    h->add_option("outline", hatch->outline,
                  "Text file, one vertex per line as \"x y\" or \"x,y\"; closed implicitly")
        ->required();
    h->add_option("--spacing", hatch->spacing, "Distance between scan lines, in whole units")
        ->required();
    h->add_option("--svg", hatch->svg,
                  "Draw the outline and the segments into this SVG file ('-': standard output)");
    h->callback([hatch] { runHatch(*hatch); });
}
