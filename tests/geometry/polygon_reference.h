// Straightforward versions of the polygon cover and the hatching, written step by step as the
// procedures are defined, for comparing the library's fast versions against (tests) and for
// measuring them (benchmarks). Every containment test copies the polygon and walks every edge,
// the subdivision queue removes its front element by moving the rest, the merge rescans all pairs
// from the front after every merge, and the hatching's cleaning restarts from the first pair.
// The four quarter jobs of the cover run one after another: they share nothing, so the result
// does not depend on it.
#ifndef QUELWORKS_TESTS_GEOMETRY_POLYGON_REFERENCE_H
#define QUELWORKS_TESTS_GEOMETRY_POLYGON_REFERENCE_H

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <vector>

#include "quelworks/geometry/polygon.h"
#include "quelworks/geometry/shapes.h"
#include "quelworks/geometry/vector2f.h"

namespace reference {

// Truncation toward zero; out of range and NaN give INT_MIN.
inline int trunc(float v) {
    if (v >= -2147483648.0f && v < 2147483648.0f) return static_cast<int>(v);
    return INT_MIN;
}

inline bool IsPointInPolygon(pointf q, std::vector<pointf> polygon) {
    const std::size_t n = polygon.size();
    (void)polygon.at(0);  // an empty polygon throws std::out_of_range
    int rightCross = 0, leftCross = 0;
    for (std::size_t i = 0; i + 1 < n; ++i) {
        const pointf a = polygon.at(i), b = polygon.at(i + 1);
        if (q.x == a.x && q.y == a.y) return true;
        const int num = trunc((a.x - q.x) * (b.y - q.y) - (a.y - q.y) * (b.x - q.x));
        const int den = trunc((b.y - q.y) - (a.y - b.y));
        if ((a.y > q.y) != (b.y > q.y) && (num > 0) == (den >= 0)) rightCross += 1;
        if ((a.y < q.y) != (b.y < q.y) && (num < 0) == (den <= 0)) leftCross += 1;
    }
    // Different parities: on the boundary.
    return rightCross % 2 != leftCross % 2 || rightCross % 2 == 1;
}

inline bool IsRectInsidePolygon(rectanglef r, std::vector<pointf> polygon, int tolerance) {
    const pointf corners[4] = {pointf(r.x, r.y), pointf(r.x + r.width, r.y),
                               pointf(r.x, r.y + r.height), pointf(r.x + r.width, r.y + r.height)};
    for (const pointf& c : corners)
        if (!reference::IsPointInPolygon(c, polygon)) return false;
    const int nx = trunc(r.width > 3 ? r.width / 3 : r.width);
    const int ny = trunc(r.height > 3 ? r.height / 3 : r.height);
    const float sx = r.width / nx, sy = r.height / ny;
    // int arithmetic, wrapping as the machine does
    const int product = static_cast<int>(static_cast<std::uint32_t>(nx) * std::uint32_t(ny));
    const int limit = static_cast<int>(static_cast<std::uint32_t>(product / 100) *
                                       static_cast<std::uint32_t>(tolerance));
    int outside = 0;
    for (int i = 0; i < nx; ++i) {
        for (int j = 0; j < ny; ++j) {
            if (!reference::IsPointInPolygon(pointf(i * sx + r.x, j * sy + r.y), polygon) &&
                ++outside >= limit)
                return false;
        }
    }
    return true;
}

inline void Merge(std::vector<rectanglef>& r) {
    for (std::size_t i = 0; i < r.size(); ++i) {
        for (std::size_t j = 0; j < r.size(); ++j) {
            if (i == j) continue;
            const rectanglef a = r[i], b = r[j];
            const bool side = a.y == b.y && a.height == b.height &&
                              (b.x == a.x + a.width || b.x + b.width == a.x);
            const bool above = a.x == b.x && a.width == b.width &&
                               (b.y == a.y + a.height || b.y + b.height == a.y);
            if (!side && !above) continue;
            const float width = side ? a.width + b.width : a.width;
            const float height = above ? a.height + b.height : a.height;
            if (!(width < 255 && height < 255)) continue;
            r.erase(r.begin() + static_cast<long>(i));
            r.erase(r.begin() + static_cast<long>(i < j ? j - 1 : j));
            r.push_back(rectanglef(std::min(a.x, b.x), std::min(a.y, b.y), width, height));
            i = static_cast<std::size_t>(-1);  // start again from the first pair
            break;
        }
    }
}

// Quarter k of r, in the order (x, y), (x + hw, y), (x, y + hh), (x + hw, y + hh).
inline rectanglef quarter(rectanglef r, int k) {
    const float hw = r.width * 0.5f;
    const float hh = r.height * 0.5f;
    return rectanglef(k % 2 ? r.x + hw : r.x, k / 2 ? r.y + hh : r.y, hw, hh);
}

inline void Worker(std::vector<pointf> polygon, std::vector<rectanglef>* result,
                   std::vector<rectanglef> queue, int tolerance) {
    std::vector<rectanglef> accepted;
    while (!queue.empty()) {
        const rectanglef r = queue.front();
        queue.erase(queue.begin());
        if (!(r.width > 3 && r.height > 3)) continue;
        for (int k = 0; k < 4; ++k) {
            const rectanglef q = quarter(r, k);
            if (reference::IsRectInsidePolygon(q, polygon, tolerance) && q.width < 240 &&
                q.height < 240) {
                accepted.push_back(q);
            } else {
                queue.push_back(q);
            }
        }
    }
    reference::Merge(accepted);
    result->insert(result->end(), accepted.begin(), accepted.end());
}

inline void BeginSpreadPolygon(std::vector<pointf> polygon, std::vector<rectanglef>* out,
                               rectanglef area, int tolerance) {
    if (area.width <= 3 || area.height <= 3) return;
    std::vector<rectanglef> results[4];
    for (int k = 0; k < 4; ++k)
        reference::Worker(polygon, &results[k], {quarter(area, k)}, tolerance);
    for (const auto& r : results) out->insert(out->end(), r.begin(), r.end());
    reference::Merge(*out);
}

inline bool IntersectSegments(Vector2f a, Vector2f b, Vector2f c, Vector2f d, Vector2f& out) {
    const double ax = a.x, ay = a.y, bx = b.x, by = b.y, cx = c.x, cy = c.y, dx = d.x, dy = d.y;
    const double den = (ax - bx) * (cy - dy) - (cx - dx) * (ay - by);
    if (den == 0) return false;
    const double s = by * ax - ay * bx;
    const double t = dy * cx - cy * dx;
    const double x = ((cx - dx) * s - (ax - bx) * t) / den;
    const double y = ((cy - dy) * s - (ay - by) * t) / den;
    for (const Vector2f& e : {a, b, c, d}) {
        if (x == e.x && y == e.y) {
            out = e;
            return true;
        }
    }
    auto within = [](double v, double p, double q) {
        return v >= std::min(p, q) && v <= std::max(p, q);
    };
    if (!within(x, ax, bx) || !within(y, ay, by) || !within(x, cx, dx) || !within(y, cy, dy))
        return false;
    out = Vector2f(static_cast<float>(x), static_cast<float>(y));
    return true;
}

inline int wrap(long long v) {
    return static_cast<int>(static_cast<std::uint32_t>(v));
}

inline bool IsPointInOutline(Vector2f q, std::vector<Vector2f> p) {
    const std::size_t n = p.size();
    if (n < 3) return false;
    bool inside = false;
    std::size_t prev = n - 1;
    for (std::size_t i = 0; i < n; prev = i++) {
        const int cx = trunc(p[i].x), cy = trunc(p[i].y);
        const int px = trunc(p[prev].x), py = trunc(p[prev].y);
        const int xA = cx < px ? cx : px, yA = cx < px ? cy : py;
        const int xB = cx < px ? px : cx, yB = cx < px ? py : cy;
        if ((q.x > cx) == (px >= q.x)) {
            const int lhs =
                wrap((long long)wrap((long long)trunc(q.y) - yA) * wrap((long long)xB - xA));
            const int rhs = wrap((long long)trunc(q.x - xA) * wrap((long long)yB - yA));
            if (lhs < rhs) inside = !inside;
        }
    }
    return inside;
}

inline std::vector<std::vector<LineSegment>> FragmentToLines(std::vector<Vector2f> p, int d) {
    std::vector<std::vector<LineSegment>> result;
    const std::size_t n = p.size();
    const rectanglef box = GetBoundingBox(p);  // the library's: a plain transcription
    const float bx = box.x, by = box.y, bw = box.width, bh = box.height;
    const float x0 = bx - d;
    const float x1 = (float)(2 * d) + bw + x0;
    const float yEnd = by + bh + d;
    for (int y = trunc(by - d) + d; yEnd > (float)y; y += d) {
        std::vector<Vector2f> pts;
        for (std::size_t i = 0; i < n; ++i) {
            Vector2f hit;
            if (reference::IntersectSegments(Vector2f(x0, (float)y), Vector2f(x1, (float)y), p[i],
                                             p[(i + 1) % n], hit)) {
                pts.push_back(hit);
            }
        }
        std::stable_sort(pts.begin(), pts.end(),
                         [](const Vector2f& l, const Vector2f& r) { return l.x < r.x; });
        bool again = true;
        while (again) {
            again = false;
            for (std::size_t k = 0; k + 1 < pts.size(); k += 2) {
                const Vector2f a = pts[k], b = pts[k + 1];
                const Vector2f mid((b.x - a.x) * 0.5f + a.x, (b.y - a.y) * 0.5f + a.y);
                const float len = std::sqrt((b.x - a.x) * (b.x - a.x) + (b.y - a.y) * (b.y - a.y));
                if (!reference::IsPointInOutline(mid, p) || trunc(len) == 0) {
                    pts.erase(pts.begin() + static_cast<long>(k));
                    again = true;
                    break;
                }
            }
        }
        if (pts.size() >= 2) {
            std::vector<LineSegment> group;
            for (std::size_t k = 0; k + 1 < pts.size(); k += 2)
                group.emplace_back(pts[k], pts[k + 1]);
            result.push_back(group);
        }
    }
    return result;
}

}  // namespace reference

#endif  // QUELWORKS_TESTS_GEOMETRY_POLYGON_REFERENCE_H
