// Hatching of an outline into horizontal segments.
#include "quelworks/geometry/hatching.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "geometry/float_to_int.h"
#include "geometry/hatching_internal.h"
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

// 32-bit two's complement arithmetic, wrapping instead of overflowing.
inline int wrapSub(int a, int b) {
    return static_cast<int>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
}
inline int wrapMul(int a, int b) {
    return static_cast<int>(static_cast<std::uint32_t>(a) * static_cast<std::uint32_t>(b));
}

// One outline edge on truncated coordinates, from `prev` to `cur`.
struct OutlineEdge {
    int curX, curY, prevX, prevY;
};

// Whether the edge flips the containment of q (qyT is trunc(q.y)).
inline bool edgeFlips(const OutlineEdge& e, float qx, int qyT) {
    if ((qx > static_cast<float>(e.curX)) != (static_cast<float>(e.prevX) >= qx)) return false;
    int xA = e.prevX, yA = e.prevY, xB = e.curX, yB = e.curY;
    if (e.curX < e.prevX) {
        xA = e.curX;
        yA = e.curY;
        xB = e.prevX;
        yB = e.prevY;
    }
    const int lhs = wrapMul(wrapSub(qyT, yA), wrapSub(xB, xA));
    const int rhs = wrapMul(truncateToInt(qx - static_cast<float>(xA)), wrapSub(yB, yA));
    return lhs < rhs;
}

std::vector<OutlineEdge> outlineEdges(const std::vector<Vector2f>& outline) {
    std::vector<OutlineEdge> edges;
    const std::size_t n = outline.size();
    edges.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        const Vector2f& cur = outline[i];
        const Vector2f& prev = outline[i == 0 ? n - 1 : i - 1];
        edges.push_back({truncateToInt(cur.x), truncateToInt(cur.y), truncateToInt(prev.x),
                         truncateToInt(prev.y)});
    }
    return edges;
}

// The outline's edges listed per band of x, so that a containment test only looks at the edges
// whose x range can hold the point. Flips commute, so the order of the edges does not matter.
class OutlineIndex {
public:
    explicit OutlineIndex(const std::vector<Vector2f>& outline) : edges_(outlineEdges(outline)) {
        if (edges_.size() < 3) return;
        bool first = true;
        for (const OutlineEdge& e : edges_) {
            const float lo = static_cast<float>(std::min(e.curX, e.prevX));
            const float hi = static_cast<float>(std::max(e.curX, e.prevX));
            if (first || lo < lo_) lo_ = lo;
            if (first || hi > hi_) hi_ = hi;
            first = false;
        }
        if (hi_ > lo_) {
            bandCount_ = std::min<std::size_t>(edges_.size(), 1u << 16);
            scale_ = static_cast<double>(bandCount_) / (double(hi_) - double(lo_));
        }
        std::vector<std::uint32_t> counts(bandCount_ + 1, 0);
        auto forEach = [&](auto&& visit) {
            for (std::size_t i = 0; i < edges_.size(); ++i) {
                const OutlineEdge& e = edges_[i];
                if (e.curX == e.prevX) continue;  // its x range is empty
                const std::size_t a = bandOf(static_cast<float>(std::min(e.curX, e.prevX)));
                const std::size_t b = bandOf(static_cast<float>(std::max(e.curX, e.prevX)));
                for (std::size_t k = a; k <= b; ++k) visit(k, static_cast<std::uint32_t>(i));
            }
        };
        forEach([&](std::size_t k, std::uint32_t) { ++counts[k + 1]; });
        for (std::size_t k = 0; k < bandCount_; ++k) counts[k + 1] += counts[k];
        start_ = counts;
        list_.resize(counts[bandCount_]);
        forEach([&](std::size_t k, std::uint32_t i) { list_[counts[k]++] = i; });
    }

    bool contains(Vector2f q) const {
        if (edges_.size() < 3) return false;
        const int qyT = truncateToInt(q.y);
        bool inside = false;
        if (std::isnan(q.x)) {
            // Every range test passes for NaN; look at all edges.
            for (const OutlineEdge& e : edges_) inside ^= edgeFlips(e, q.x, qyT);
            return inside;
        }
        const std::size_t band = bandOf(q.x);
        for (std::uint32_t k = start_[band]; k < start_[band + 1]; ++k) {
            inside ^= edgeFlips(edges_[list_[k]], q.x, qyT);
        }
        return inside;
    }

private:
    std::size_t bandOf(float x) const {
        const double t = (static_cast<double>(x) - double(lo_)) * scale_;
        if (!(t > 0.0)) return 0;
        if (t >= static_cast<double>(bandCount_)) return bandCount_ - 1;
        return static_cast<std::size_t>(t);
    }

    std::vector<OutlineEdge> edges_;
    float lo_ = 0.0f;
    float hi_ = 0.0f;
    double scale_ = 0.0;
    std::size_t bandCount_ = 1;
    std::vector<std::uint32_t> start_;
    std::vector<std::uint32_t> list_;
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

    const OutlineIndex inside(outline);
    const std::size_t n = outline.size();
    std::vector<Vector2f> crossings;
    for (; yEnd > static_cast<float>(y); y += spacing) {
        const float fy = static_cast<float>(y);
        const Vector2f a(x0, fy);
        const Vector2f b(x1, fy);
        crossings.clear();
        for (std::size_t i = 0; i < n; ++i) {
            Vector2f hit;
            if (IntersectSegments(a, b, outline[i], outline[i + 1 == n ? 0 : i + 1], hit)) {
                crossings.push_back(hit);
            }
        }
        if (crossings.size() < 2) continue;
        std::stable_sort(crossings.begin(), crossings.end(),
                         [](const Vector2f& l, const Vector2f& r) { return l.x < r.x; });
        // Drop the first point of every pair that is too short or whose midpoint lies outside.
        // Pairs before the dropped point are unchanged, so the check carries on from there.
        std::size_t p = 0;
        while (p + 1 < crossings.size()) {
            LineSegment piece(crossings[p], crossings[p + 1]);
            if (piece.Length() != 0 && inside.contains(piece.Mid())) {
                p += 2;
            } else {
                crossings.erase(crossings.begin() + static_cast<std::ptrdiff_t>(p));
            }
        }
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
