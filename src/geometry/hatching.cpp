// Hatching of an outline into horizontal segments.
#include "quelworks/geometry/hatching.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "geometry/float_to_int.h"
#include "geometry/hatching_internal.h"
#include "geometry/outline_index.h"
#include "quelworks/geometry/polygon.h"

using quelworks::detail::truncateToInt;

namespace quelworks {
namespace detail {

bool IntersectSegments(Vector2f a, Vector2f b, Vector2f c, Vector2f d, Vector2f& out) {
    const double ax = a.x, ay = a.y, bx = b.x, by = b.y;
    const double cx = c.x, cy = c.y, dx = d.x, dy = d.y;
    const double den = (ax - bx) * (cy - dy) - (cx - dx) * (ay - by);
    if (den == 0.0) return false;
    const double s = by * ax - ay * bx;
    const double t = dy * cx - cy * dx;
    const double x = ((cx - dx) * s - (ax - bx) * t) / den;
    const double y = ((cy - dy) * s - (ay - by) * t) / den;
    if (x == ax && y == ay) {
        out = a;
        return true;
    }
    if (x == bx && y == by) {
        out = b;
        return true;
    }
    if (x == cx && y == cy) {
        out = c;
        return true;
    }
    if (x == dx && y == dy) {
        out = d;
        return true;
    }
    const bool inFirst = x >= std::min(ax, bx) && x <= std::max(ax, bx) && y >= std::min(ay, by) &&
                         y <= std::max(ay, by);
    const bool inSecond = x >= std::min(cx, dx) && x <= std::max(cx, dx) && y >= std::min(cy, dy) &&
                          y <= std::max(cy, dy);
    if (!inFirst || !inSecond) return false;
    out = Vector2f(static_cast<float>(x), static_cast<float>(y));
    return true;
}

namespace {

// For each scan line, the edges that can give it a crossing, in edge order. An edge meets the
// scan segment (x0, y)-(x1, y) only where y lies in its own y range, or, on the extension of its
// line, exactly at (x0, y) or (x1, y), which IntersectSegments then returns as that end point.
// The second case is found by solving for the y at which the edge's line reaches x0 and x1 and
// taking every scan line within a bound of the double rounding around it. Edges with a
// coordinate that is not finite are tried on every line.
class ScanCandidates {
public:
    ScanCandidates(const std::vector<Vector2f>& outline, const std::vector<long long>& lines,
                   float x0, float x1) {
        const std::size_t n = outline.size();
        const std::size_t count = lines.size();
        const double first = static_cast<double>(lines.front());
        const double step = count > 1 ? static_cast<double>(lines[1] - lines[0]) : 1.0;
        const double yMax = std::max(std::fabs(first), std::fabs(double(lines.back())));
        const double xMax = std::max(std::fabs(double(x0)), std::fabs(double(x1)));
        // (float)y may round for |y| beyond 2^24: widen every range by that much too.
        const double slack = 1.0 + yMax / 8388608.0 / step;
        auto index = [&](double y) { return (y - first) / step; };

        std::vector<std::pair<std::uint32_t, std::uint32_t>> ranges;  // per edge, up to 3
        std::vector<std::uint32_t> owner;
        auto add = [&](double lo, double hi, std::uint32_t edge) {
            if (!(lo <= hi)) return;
            if (hi < 0.0 || lo > double(count - 1)) return;
            const std::uint32_t a = static_cast<std::uint32_t>(std::max(0.0, std::floor(lo)));
            const std::uint32_t b =
                static_cast<std::uint32_t>(std::min(double(count - 1), std::ceil(hi)));
            ranges.emplace_back(a, b);
            owner.push_back(edge);
        };
        for (std::size_t i = 0; i < n; ++i) {
            const Vector2f& c = outline[i];
            const Vector2f& d = outline[i + 1 == n ? 0 : i + 1];
            const std::uint32_t e = static_cast<std::uint32_t>(i);
            if (!std::isfinite(c.x) || !std::isfinite(c.y) || !std::isfinite(d.x) ||
                !std::isfinite(d.y)) {
                add(0.0, double(count - 1), e);
                continue;
            }
            if (c.y == d.y) continue;  // parallel to every scan line
            const double ylo = std::min(c.y, d.y);
            const double yhi = std::max(c.y, d.y);
            add(index(ylo) - slack, index(yhi) + slack, e);
            if (c.x == d.x) {
                // X comes out as c.x (to within rounding) on every line.
                if (c.x == x0 || c.x == x1) add(0.0, double(count - 1), e);
                continue;
            }
            const double dx = double(d.x) - c.x;
            const double dy = double(d.y) - c.y;
            const double t = std::fabs(double(d.y) * c.x) + std::fabs(double(c.y) * d.x);
            const double errX = 1e-14 * ((std::fabs(dx) * yMax + t) / std::fabs(dy) + xMax);
            for (float end : {x0, x1}) {
                const double yHit = c.y + (double(end) - c.x) * dy / dx;
                const double window =
                    errX * std::fabs(dy / dx) +
                    1e-14 * (std::fabs(double(c.y)) + std::fabs((double(end) - c.x) * dy / dx));
                if (!std::isfinite(yHit) || !std::isfinite(window)) {
                    add(0.0, double(count - 1), e);
                } else {
                    add(index(yHit - window) - slack, index(yHit + window) + slack, e);
                }
            }
        }
        // Compressed rows, each in edge order without repeats.
        std::vector<std::uint32_t> sizes(count + 1, 0);
        for (const auto& r : ranges) {
            for (std::uint32_t l = r.first; l <= r.second; ++l) ++sizes[l + 1];
        }
        for (std::size_t l = 0; l < count; ++l) sizes[l + 1] += sizes[l];
        start_ = sizes;
        edges_.assign(sizes[count], 0);
        std::vector<std::uint32_t> fill(sizes.begin(), sizes.end() - 1);
        for (std::size_t k = 0; k < ranges.size(); ++k) {
            for (std::uint32_t l = ranges[k].first; l <= ranges[k].second; ++l) {
                if (fill[l] > start_[l] && edges_[fill[l] - 1] == owner[k]) continue;
                edges_[fill[l]++] = owner[k];
            }
        }
        end_.assign(fill.begin(), fill.end());
    }

    struct Span {
        const std::uint32_t* first;
        const std::uint32_t* last;
        const std::uint32_t* begin() const { return first; }
        const std::uint32_t* end() const { return last; }
    };
    Span edges(std::size_t line) const {
        return {edges_.data() + start_[line], edges_.data() + end_[line]};
    }

private:
    std::vector<std::uint32_t> start_, end_, edges_;
};

}  // namespace

bool IsPointInOutline(Vector2f q, const std::vector<Vector2f>& outline) {
    if (outline.size() < 3) return false;
    const int qyT = truncateToInt(q.y);
    bool inside = false;
    for (const OutlineEdge& e : outlineEdges(outline)) inside ^= edgeFlips(e, q.x, qyT);
    return inside;
}

}  // namespace detail
}  // namespace quelworks

std::vector<std::vector<LineSegment>> FragmentToLines(std::vector<Vector2f> outline, int spacing) {
    using namespace quelworks::detail;
    std::vector<std::vector<LineSegment>> groups;
    // A spacing of 0 or less would never advance to the next scan line.
    if (spacing <= 0) return groups;

    const rectanglef box = GetBoundingBox(outline);
    const float d = static_cast<float>(spacing);
    const float x0 = box.x - d;
    const float x1 = 2.0f * d + box.width + x0;
    const float yEnd = box.y + box.height + d;
    // The scan lines lie on ints; counted in 64 bits so that a line near the top of the int range
    // cannot wrap around.
    long long y = static_cast<long long>(truncateToInt(box.y - d)) + spacing;
    const std::size_t n = outline.size();

    std::vector<long long> lines;
    for (; yEnd > static_cast<float>(y); y += spacing) lines.push_back(y);
    if (lines.empty()) return groups;

    const OutlineIndex inside(outline);
    const ScanCandidates candidates(outline, lines, x0, x1);
    std::vector<Vector2f> crossings;
    for (std::size_t line = 0; line < lines.size(); ++line) {
        const float fy = static_cast<float>(lines[line]);
        const Vector2f a(x0, fy);
        const Vector2f b(x1, fy);
        crossings.clear();
        for (std::uint32_t i : candidates.edges(line)) {
            Vector2f hit;
            if (IntersectSegments(a, b, outline[i], outline[i + 1 == n ? 0 : i + 1], hit)) {
                crossings.push_back(hit);
            }
        }
        if (crossings.size() < 2) continue;
        std::stable_sort(crossings.begin(), crossings.end(),
                         [](const Vector2f& l, const Vector2f& r) { return l.x < r.x; });
        // Drop the first point of every pair that is too short or whose midpoint lies outside.
        // Pairs before the dropped point are unchanged, so the check carries on from there: the
        // kept points are moved to the front as the check goes, instead of erasing one by one.
        std::size_t kept = 0;
        std::size_t next = 0;
        while (next + 1 < crossings.size()) {
            const Vector2f first = crossings[next];
            const Vector2f second = crossings[next + 1];
            LineSegment piece(first, second);
            if (piece.Length() != 0 && inside.contains(piece.Mid())) {
                crossings[kept] = first;
                crossings[kept + 1] = second;
                kept += 2;
                next += 2;
            } else {
                ++next;
            }
        }
        while (next < crossings.size()) crossings[kept++] = crossings[next++];
        crossings.resize(kept);
        if (crossings.size() < 2) continue;
        std::vector<LineSegment> group;
        group.reserve(crossings.size() / 2);
        for (std::size_t i = 0; i + 1 < crossings.size(); i += 2) {
            group.push_back(LineSegment(crossings[i], crossings[i + 1]));
        }
        groups.push_back(std::move(group));
    }
    return groups;
}
