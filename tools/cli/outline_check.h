// Checks the command's geometry results against exact geometry: the library's containment test
// truncates cross products to int, so a cover or a hatching can reach outside its outline (points
// level with a slanted edge are the usual case). The check samples each rectangle's border or
// each segment and tests the samples with an exact even-odd rule in double precision.
#ifndef QUELWORKS_TOOLS_CLI_OUTLINE_CHECK_H
#define QUELWORKS_TOOLS_CLI_OUTLINE_CHECK_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "quelworks/geometry/shapes.h"
#include "quelworks/geometry/vector2f.h"

namespace quelworks::cli {

// How many results leave the outline, and the farthest any sample of them lies outside it.
struct OutsideReport {
    std::size_t outside = 0;
    double worst = 0;
    bool checked = true;  // false when the result was too large to check
};

class OutlineCheck {
public:
    // The outline is closed implicitly.
    explicit OutlineCheck(const std::vector<pointf>& outline) : points_(outline) {
        if (!points_.empty() && !(points_.front() == points_.back())) {
            points_.push_back(points_.front());
        }
    }

    // How far (x, y) lies outside the outline; 0 inside or on it (within a small tolerance for
    // float noise).
    double outsideBy(double x, double y) const {
        bool inside = false;
        double nearest = HUGE_VAL;
        for (std::size_t i = 0; i + 1 < points_.size(); ++i) {
            const double ax = points_[i].x, ay = points_[i].y;
            const double bx = points_[i + 1].x, by = points_[i + 1].y;
            if ((ay > y) != (by > y) && x < ax + (y - ay) * (bx - ax) / (by - ay)) inside = !inside;
            const double dx = bx - ax, dy = by - ay, len2 = dx * dx + dy * dy;
            double t = len2 > 0 ? ((x - ax) * dx + (y - ay) * dy) / len2 : 0;
            t = std::clamp(t, 0.0, 1.0);
            nearest = std::min(nearest, std::hypot(x - (ax + t * dx), y - (ay + t * dy)));
        }
        if (inside || nearest < 1e-3) return 0;
        return nearest;
    }

    OutsideReport rectangles(const std::vector<rectanglef>& rects) const {
        OutsideReport report;
        if (tooLarge(rects.size() * 4 * kSamplesPerSide)) return {0, 0, false};
        for (const rectanglef& r : rects) {
            double worst = 0;
            for (int i = 0; i < kSamplesPerSide; ++i) {
                const double t = double(i) / kSamplesPerSide;
                const double x0 = r.x, y0 = r.y, x1 = double(r.x) + r.width,
                             y1 = double(r.y) + r.height;
                worst = std::max(
                    {worst, outsideBy(x0 + t * (x1 - x0), y0), outsideBy(x1, y0 + t * (y1 - y0)),
                     outsideBy(x1 - t * (x1 - x0), y1), outsideBy(x0, y1 - t * (y1 - y0))});
            }
            note(report, worst);
        }
        return report;
    }

    OutsideReport segments(const std::vector<std::vector<LineSegment>>& groups) const {
        OutsideReport report;
        std::size_t count = 0;
        for (const auto& g : groups) count += g.size();
        if (tooLarge(count * (kSamplesPerSide + 1))) return {0, 0, false};
        for (const auto& g : groups) {
            for (const LineSegment& s : g) {
                double worst = 0;
                for (int i = 0; i <= kSamplesPerSide; ++i) {
                    const double t = double(i) / kSamplesPerSide;
                    worst =
                        std::max(worst, outsideBy(s.start.x + t * (double(s.end.x) - s.start.x),
                                                  s.start.y + t * (double(s.end.y) - s.start.y)));
                }
                note(report, worst);
            }
        }
        return report;
    }

private:
    static constexpr int kSamplesPerSide = 16;

    // The check costs samples x edges; beyond this it would take longer than the work itself.
    bool tooLarge(std::size_t samples) const {
        return double(samples) * double(points_.size()) > 5e8;
    }

    static void note(OutsideReport& report, double worst) {
        if (worst > 0) {
            ++report.outside;
            report.worst = std::max(report.worst, worst);
        }
    }

    std::vector<pointf> points_;
};

}  // namespace quelworks::cli

#endif  // QUELWORKS_TOOLS_CLI_OUTLINE_CHECK_H
