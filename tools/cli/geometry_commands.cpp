#include "geometry_commands.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "command_error.h"
#include "outline_check.h"
#include "polygon_file.h"
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

// An SVG picture in the plane's own coordinates, y pointing up.
class SvgPicture {
public:
    SvgPicture(float minX, float minY, float maxX, float maxY) {
        const float margin = std::max({maxX - minX, maxY - minY, 1.0f}) * 0.03f;
        x0_ = minX - margin;
        top_ = maxY + margin;
        width_ = maxX - minX + 2 * margin;
        height_ = maxY - minY + 2 * margin;
        stroke_ = std::max(width_, height_) / 600.0f;
    }

    void rectangle(const rectanglef& r) {
        body_ << "<rect x=\"" << r.x - x0_ << "\" y=\"" << top_ - (r.y + r.height) << "\" width=\""
              << r.width << "\" height=\"" << r.height << "\"/>\n";
    }
    void segment(const LineSegment& s) {
        body_ << "<line x1=\"" << s.start.x - x0_ << "\" y1=\"" << top_ - s.start.y << "\" x2=\""
              << s.end.x - x0_ << "\" y2=\"" << top_ - s.end.y << "\"/>\n";
    }
    std::string points(const std::vector<pointf>& v) const {
        std::ostringstream out;
        for (const pointf& p : v) out << p.x - x0_ << "," << top_ - p.y << " ";
        return out.str();
    }

    // Writes the picture to the file, or to standard output for "-".
    void write(const std::string& path, const std::string& outline, bool closed,
               const std::string& shapes) {
        std::ostringstream out;
        out << "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " << width_ << " "
            << height_ << "\" width=\"800\" height=\"" << 800.0f * height_ / width_ << "\">\n"
            << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
            << "<g " << shapes << " stroke-width=\"" << stroke_ << "\">\n"
            << body_.str() << "</g>\n"
            << "<" << (closed ? "polygon" : "polyline") << " points=\"" << outline
            << "\" fill=\"none\" stroke=\"black\" stroke-width=\"" << stroke_ * 1.5f << "\"/>\n"
            << "</svg>\n";
        quelworks::cli::writeOutputFile(path, out.str());
    }

private:
    float x0_, top_, width_, height_, stroke_;
    std::ostringstream body_;
};

void runCover(const CoverOptions& o) {
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
    BeginSpreadPolygon(polygon, &rects, area, o.tolerance);
    refuseEmptyFromHugeCoordinates(polygon, rects.empty());
    warnOutside(quelworks::cli::OutlineCheck(polygon).rectangles(rects), rects.size(),
                "rectangles");

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
    for (const rectanglef& r : rects) svg.rectangle(r);
    svg.write(o.svg, svg.points(polygon), false,
              "fill=\"#7fb3e0\" fill-opacity=\"0.6\" stroke=\"#1f4e79\"");
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
    const std::vector<pointf> points = readPolygonFile(o.outline);
    std::vector<Vector2f> outline(points.begin(), points.end());
    const rectanglef box = GetBoundingBox(outline);
    if ((double(box.height) + 2.0 * spacing) / spacing > kMaxScanLines) {
        throw CommandError(kExitUsage,
                           "the outline is too high for this spacing (over a million "
                           "scan lines); use a larger --spacing");
    }
    const std::vector<std::vector<LineSegment>> groups = FragmentToLines(outline, spacing);

    std::size_t segments = 0;
    for (const auto& g : groups) segments += g.size();
    refuseEmptyFromHugeCoordinates(points, segments == 0);
    warnOutside(quelworks::cli::OutlineCheck(points).segments(groups), segments, "segments");
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
    for (const auto& g : groups) {
        for (const LineSegment& s : g) svg.segment(s);
    }
    svg.write(o.svg, svg.points(points), true, "stroke=\"#c0392b\" stroke-linecap=\"round\"");
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
