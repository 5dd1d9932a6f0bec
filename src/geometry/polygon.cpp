// Point containment and bounding boxes.
#include "quelworks/geometry/polygon.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

#include "geometry/float_to_int.h"
#include "geometry/polygon_edge.h"

using quelworks::detail::truncateToInt;

namespace {

// Edges are looked at in blocks: a first pass over a block only asks whether any edge in it
// crosses the point's row or starts exactly at the point, which is cheap and branch-free; only a
// block that does is looked at edge by edge. Most blocks of a large polygon are skipped whole.
constexpr std::size_t kBlock = 16;

}  // namespace

bool IsPointInPolygon(pointf q, std::vector<pointf> polygon) {
    const std::size_t n = polygon.size();
    if (n == 0) throw std::out_of_range("IsPointInPolygon: the polygon has no vertices");
    const pointf* p = polygon.data();
    const std::size_t edges = n - 1;
    unsigned right = 0;
    unsigned left = 0;
    for (std::size_t base = 0; base < edges; base += kBlock) {
        const std::size_t end = std::min(base + kBlock, edges);
        unsigned any = 0;
        for (std::size_t i = base; i < end; ++i) {
            const float ay = p[i].y;
            const float by = p[i + 1].y;
            any |= static_cast<unsigned>((p[i].x == q.x) & (ay == q.y)) |
                   static_cast<unsigned>((ay > q.y) != (by > q.y)) |
                   static_cast<unsigned>((ay < q.y) != (by < q.y));
        }
        if (any == 0) continue;
        for (std::size_t i = base; i < end; ++i) {
            if (p[i].x == q.x && p[i].y == q.y) return true;
            quelworks::detail::countCrossing(q, p[i], p[i + 1], right, left);
        }
    }
    // Counts of different parity mean q is on the boundary; equal parities decide by themselves.
    return ((right | left) & 1u) != 0;
}

rectanglef GetBoundingBox(std::vector<Vector2f> points) {
    if (points.empty()) return rectanglef(0.0f, 0.0f, 1.0f, 1.0f);
    int minX = truncateToInt(points[0].x);
    int maxX = minX;
    int minY = truncateToInt(points[0].y);
    int maxY = minY;
    for (const Vector2f& p : points) {
        if (static_cast<float>(minX) > p.x) minX = truncateToInt(p.x);
        if (p.x > static_cast<float>(maxX)) maxX = truncateToInt(p.x);
        if (static_cast<float>(minY) > p.y) minY = truncateToInt(p.y);
        if (p.y > static_cast<float>(maxY)) maxY = truncateToInt(p.y);
    }
    // The extent is an int difference; it wraps (as two's complement) rather than overflowing.
    const int width = static_cast<int>(static_cast<unsigned>(maxX) - static_cast<unsigned>(minX));
    const int height = static_cast<int>(static_cast<unsigned>(maxY) - static_cast<unsigned>(minY));
    return rectanglef(static_cast<float>(minX), static_cast<float>(minY), static_cast<float>(width),
                      static_cast<float>(height));
}

rectanglef GetBoundingBox(std::vector<pointf> points) {
    std::vector<Vector2f> converted;
    converted.reserve(points.size());
    for (const pointf& p : points) converted.push_back(Vector2f(p));
    return GetBoundingBox(std::move(converted));
}
