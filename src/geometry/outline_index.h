// The containment test of the hatching (even-odd, on vertex coordinates truncated to int), plain
// and prepared for many points.
#ifndef QUELWORKS_SRC_GEOMETRY_OUTLINE_INDEX_H
#define QUELWORKS_SRC_GEOMETRY_OUTLINE_INDEX_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "geometry/edge_buckets.h"
#include "geometry/float_to_int.h"
#include "geometry/geometry_limits.h"
#include "quelworks/geometry/vector2f.h"

namespace quelworks {
namespace detail {

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

inline std::vector<OutlineEdge> outlineEdges(const std::vector<Vector2f>& outline) {
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

// The outline's edges listed per bucket of x, so that a containment test only looks at the edges
// whose x range can hold the point, and, where the coordinates allow it, per unit column with
// sorted thresholds. Same answers as IsPointInOutline. Flips commute, so the order in which edges
// are looked at does not matter.
class OutlineIndex {
public:
    explicit OutlineIndex(const std::vector<Vector2f>& outline) : edges_(outlineEdges(outline)) {
        if (edges_.size() < 3) return;
        float lo = 0.0f;
        float hi = 0.0f;
        bool first = true;
        for (const OutlineEdge& e : edges_) {
            const float l = static_cast<float>(std::min(e.curX, e.prevX));
            const float h = static_cast<float>(std::max(e.curX, e.prevX));
            if (first || l < lo) lo = l;
            if (first || h > hi) hi = h;
            first = false;
        }
        std::size_t listed = 0;
        double spanSum = 0.0;
        for (const OutlineEdge& e : edges_) {
            if (e.curX == e.prevX) continue;  // its x range is empty
            ++listed;
            if (hi > lo) {
                spanSum += std::fabs(double(e.curX) - double(e.prevX)) / (double(hi) - double(lo));
            }
        }
        buckets_.build(lo, hi, listed, spanSum, [&](auto&& visit) {
            for (std::size_t i = 0; i < edges_.size(); ++i) {
                const OutlineEdge& e = edges_[i];
                if (e.curX == e.prevX) continue;
                visit(static_cast<std::uint32_t>(i), static_cast<float>(std::min(e.curX, e.prevX)),
                      static_cast<float>(std::max(e.curX, e.prevX)));
            }
        });
        buildColumns();
    }

    bool contains(Vector2f q) const {
        if (edges_.size() < 3) return false;
        const int qyT = truncateToInt(q.y);
        const int byColumn = columnContains(q.x, qyT);
        if (byColumn >= 0) return byColumn != 0;
        bool inside = false;
        if (std::isnan(q.x)) {
            // Every range test passes for NaN; look at all edges.
            for (const OutlineEdge& e : edges_) inside ^= edgeFlips(e, q.x, qyT);
            return inside;
        }
        const std::size_t b = buckets_.bucketOf(q.x);
        for (const std::uint32_t* k = buckets_.begin(b); k != buckets_.end(b); ++k) {
            inside ^= edgeFlips(edges_[*k], q.x, qyT);
        }
        return inside;
    }

    // Whether the per-column lists were built (they answer most points by one binary search).
    bool hasColumns() const { return columnsUsable_; }

private:
    // For a point this close below a column's end, k + 1 - q.x < 1/256, q.x - xA may round up to
    // k + 1 - xA, making T one larger than the column's thresholds assume: such points are tested
    // edge by edge. Farther below, the rounding cannot reach it: |q.x - xA| < 2^15, where a float
    // rounds by at most 2^-10.
    static constexpr float kColumnEndGuard = 0.00390625f;

    // Columns: when every truncated coordinate is small enough that no product in the test can
    // leave the int range, the test of an edge is an exact integer inequality. For a point in
    // the column (k, k + 1] between two ints, the edges whose x range holds it are fixed, and
    // T = trunc(q.x - xA) is k - xA (or k + 1 - xA at q.x = k + 1), so each edge flips exactly
    // when trunc(q.y) <= a threshold of its own: (Y - yA) w < T dy  <=>  Y w < yA w + T dy.
    // Sorted thresholds answer a point with one binary search.
    void buildColumns() {
        int minX = edges_[0].curX, maxX = minX;
        for (const OutlineEdge& e : edges_) {
            for (int v : {e.curX, e.curY, e.prevX, e.prevY}) {
                if (v < -kColumnCoordinateLimit || v > kColumnCoordinateLimit) return;
            }
            minX = std::min(minX, e.curX);
            maxX = std::max(maxX, e.curX);
        }
        std::size_t total = 0;
        for (const OutlineEdge& e : edges_) total += std::abs(e.curX - e.prevX);
        if (!listedEntriesAffordable(total, edges_.size()) || maxX == minX) return;
        columnMinX_ = minX;
        const std::size_t columns = static_cast<std::size_t>(maxX - minX);
        // Count, then fill: thresholds of column c at [columnStart_[c], columnStart_[c + 1]).
        columnStart_.assign(columns + 1, 0);
        for (const OutlineEdge& e : edges_) {
            const int from = std::min(e.curX, e.prevX);
            const int to = std::max(e.curX, e.prevX);
            for (int k = from; k < to; ++k) ++columnStart_[static_cast<std::size_t>(k - minX) + 1];
        }
        for (std::size_t c = 0; c < columns; ++c) columnStart_[c + 1] += columnStart_[c];
        columnInside_.resize(columnStart_[columns]);
        columnAtEnd_.resize(columnStart_[columns]);
        std::vector<std::uint32_t> fill(columnStart_.begin(), columnStart_.end() - 1);
        for (const OutlineEdge& e : edges_) {
            if (e.curX == e.prevX) continue;
            const bool curFirst = e.curX < e.prevX;
            const long long xA = curFirst ? e.curX : e.prevX;
            const long long yA = curFirst ? e.curY : e.prevY;
            const long long w = (curFirst ? e.prevX : e.curX) - xA;
            const long long dy = (curFirst ? e.prevY : e.curY) - yA;
            for (long long k = xA; k < xA + w; ++k) {
                const std::size_t column = static_cast<std::size_t>(k - minX);
                const std::uint32_t at = fill[column]++;
                columnInside_[at] = floorDiv(yA * w + (k - xA) * dy - 1, w);
                columnAtEnd_[at] = floorDiv(yA * w + (k + 1 - xA) * dy - 1, w);
            }
        }
        for (std::size_t c = 0; c < columns; ++c) {
            std::sort(columnInside_.begin() + columnStart_[c],
                      columnInside_.begin() + columnStart_[c + 1]);
            std::sort(columnAtEnd_.begin() + columnStart_[c],
                      columnAtEnd_.begin() + columnStart_[c + 1]);
        }
        columnsUsable_ = true;
    }

    static int floorDiv(long long a, long long b) {  // b > 0
        long long q = a / b;
        if (a % b != 0 && a < 0) --q;
        return static_cast<int>(q);
    }

    // The containment by columns, or -1 when they cannot decide it.
    int columnContains(float qx, int qyT) const {
        if (!columnsUsable_ || !(qyT >= -kColumnCoordinateLimit && qyT <= kColumnCoordinateLimit) ||
            std::isnan(qx)) {
            return -1;
        }
        const float first = static_cast<float>(columnMinX_);
        const float last =
            static_cast<float>(columnMinX_ + static_cast<int>(columnStart_.size()) - 1);
        if (!(qx > first && qx <= last)) return 0;          // no edge's x range holds q.x
        const int k = static_cast<int>(std::ceil(qx)) - 1;  // q.x lies in (k, k + 1]
        const std::vector<int>* thresholds = &columnInside_;
        if (qx == static_cast<float>(k + 1)) {
            thresholds = &columnAtEnd_;
        } else if (static_cast<float>(k + 1) - qx < kColumnEndGuard) {
            return -1;
        }
        const std::size_t column = static_cast<std::size_t>(k - columnMinX_);
        const int* begin = thresholds->data() + columnStart_[column];
        const int* end = thresholds->data() + columnStart_[column + 1];
        const std::size_t flips = static_cast<std::size_t>(end - std::lower_bound(begin, end, qyT));
        return (flips & 1u) != 0 ? 1 : 0;
    }

    std::vector<OutlineEdge> edges_;
    EdgeBuckets buckets_;
    bool columnsUsable_ = false;
    int columnMinX_ = 0;
    std::vector<std::uint32_t> columnStart_;
    std::vector<int> columnInside_;  // per column, sorted thresholds for k < q.x < k + 1
    std::vector<int> columnAtEnd_;   // and for q.x = k + 1
};

}  // namespace detail
}  // namespace quelworks

#endif  // QUELWORKS_SRC_GEOMETRY_OUTLINE_INDEX_H
