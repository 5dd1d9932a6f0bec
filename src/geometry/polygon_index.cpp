// A polygon prepared for many containment tests (the rectangle cover's inside test).
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "geometry/edge_buckets.h"
#include "geometry/float_to_int.h"
#include "geometry/geometry_limits.h"
#include "geometry/polygon_edge.h"
#include "geometry/polygon_internal.h"

namespace quelworks {
namespace detail {

namespace {

std::atomic<std::uint64_t> nextIndexId{0};

// Widening conversions to float, so that an interval only grows.
float floatAtMost(double v) {
    float f = static_cast<float>(v);
    if (static_cast<double>(f) > v) f = std::nextafter(f, -std::numeric_limits<float>::infinity());
    return f;
}
float floatAtLeast(double v) {
    float f = static_cast<float>(v);
    if (static_cast<double>(f) < v) f = std::nextafter(f, std::numeric_limits<float>::infinity());
    return f;
}

// The parity bits (right, left) that a crossing of a gathered row adds for a cross product v.
inline unsigned crossingParity(const GatheredRow& s, std::size_t e, float v) {
    return (s.rightMask[e] & (static_cast<std::uint8_t>(truncatesPositive(v)) ^ s.rightFlip[e])) |
           ((s.leftMask[e] & (static_cast<std::uint8_t>(truncatesNegative(v)) ^ s.leftFlip[e]))
            << 1);
}

// The cross product of a crossing of a gathered row for the point (qx, row y), as every test
// computes it.
inline float crossingProduct(const GatheredRow& s, std::size_t e, float qx) {
    return (s.ax[e] - qx) * s.by[e] - s.ay[e] * (s.bx[e] - qx);
}

// The ranges of v over which the truncated cross product keeps its sign class: (-inf, -1],
// (-1, 1), [1, 2^31), [2^31, inf); -1 for NaN.
inline int productRange(float v) {
    if (std::isnan(v)) return -1;
    if (v <= -1.0f) return 0;
    if (v < 1.0f) return 1;
    return v < 2147483648.0f ? 2 : 3;
}

}  // namespace

void PolygonIndex::bucketRow(GatheredRow& s) const {
    s.bucketTried = true;
    s.bucketed = false;
    const std::size_t k = s.count;
    if (!rowBucketsUsable_ || k < kMinBucketedCrossings) return;
    // Along a row, the cross product of a crossing edge is monotone in x: the row's y lies
    // between the edge's ends, so ay and by have opposite signs (or one is 0) and both products
    // move the same way, and every float operation rounds monotonically. With every coordinate
    // finite and the extent bounded, nothing overflows on [lo, hi]. So where the product lies in
    // the same range of sign class at both ends of an x interval, it does in between, and the
    // crossing adds the same parity there: an interval [lo, x1] and one [x2, hi] around the
    // crossing's x are checked by computing the product at their ends exactly as the test does.
    const float lo = minX_ - 1.0f;
    const float hi = maxX_ + 1.0f;
    const double D = slabExtent_;
    const double base = 2.0 + D * D / kRoundingDivisor;
    s.lo = lo;
    s.hi = hi;
    s.entryLo.resize(k);
    s.entryHi.resize(k);
    s.entryBefore.resize(k);
    s.entryAfter.resize(k);
    double widthSum = 0.0;
    for (std::size_t e = 0; e < k; ++e) {
        const float vLo = crossingProduct(s, e, lo);
        const float vHi = crossingProduct(s, e, hi);
        const int rangeLo = productRange(vLo);
        const int rangeHi = productRange(vHi);
        s.entryBefore[e] = static_cast<std::uint8_t>(crossingParity(s, e, vLo));
        s.entryAfter[e] = static_cast<std::uint8_t>(crossingParity(s, e, vHi));
        float x1 = lo;  // exact tests for lo < x < x2 when the check below fails
        float x2 = hi;
        const double rise = double(s.by[e]) - double(s.ay[e]);
        if (rangeLo >= 0 && rangeHi >= 0 && rise != 0.0) {
            // The row (y = 0 here) meets the edge's line at xe.
            const double xe =
                double(s.ax[e]) - double(s.ay[e]) * (double(s.bx[e]) - s.ax[e]) / rise;
            double margin = base / std::fabs(rise) + 1e-6 * D;
            for (int attempt = 0; attempt < 3; ++attempt, margin *= 8.0) {
                // Any c1 <= c2 will do: the check decides.
                const float c1 =
                    static_cast<float>(std::min(std::max(xe - margin, double(lo)), double(hi)));
                const float c2 =
                    static_cast<float>(std::min(std::max(xe + margin, double(lo)), double(hi)));
                if (productRange(crossingProduct(s, e, c1)) == rangeLo &&
                    productRange(crossingProduct(s, e, c2)) == rangeHi) {
                    x1 = c1;
                    x2 = c2;
                    break;
                }
            }
        }
        s.entryLo[e] = x1;
        s.entryHi[e] = x2;
        widthSum += std::min(double(x2) - x1, (double(hi) - lo) / 64.0);
    }
    // Buckets about as wide as the average interval, and about one per two crossings.
    const double span = double(hi) - lo;
    const double width = std::max(widthSum / static_cast<double>(k), 2.0 * span / k);
    const std::size_t buckets =
        static_cast<std::size_t>(std::max(1.0, std::min(span / width, double(k))));
    s.scale = static_cast<double>(buckets) / span;
    auto bucketOf = [&](float x) {
        const double t = (double(x) - lo) * s.scale;
        if (!(t > 0.0)) return std::size_t(0);
        if (t >= static_cast<double>(buckets)) return buckets - 1;
        return static_cast<std::size_t>(t);
    };
    // Counted, then filled; `entryBucket` keeps each entry's bucket (buckets for wide ones).
    s.bucketStart.assign(buckets + 1, 0);
    s.beforeFrom.assign(buckets + 1, 0);
    s.afterUpTo.assign(buckets + 1, 0);
    s.entryBucket.resize(k);
    s.wide.clear();
    for (std::size_t e = 0; e < k; ++e) {
        const std::size_t b = bucketOf(s.entryLo[e]);
        if (bucketOf(s.entryHi[e]) > b + 1) {
            s.entryBucket[e] = static_cast<std::uint32_t>(buckets);
            s.wide.push_back(static_cast<std::uint32_t>(e));
        } else {
            s.entryBucket[e] = static_cast<std::uint32_t>(b);
            ++s.bucketStart[b + 1];
            s.beforeFrom[b] ^= s.entryBefore[e];
            s.afterUpTo[b + 1] ^= s.entryAfter[e];
        }
    }
    for (std::size_t b = 0; b < buckets; ++b) {
        s.bucketStart[b + 1] += s.bucketStart[b];
        s.afterUpTo[b + 1] ^= s.afterUpTo[b];
    }
    for (std::size_t b = buckets; b-- > 0;) s.beforeFrom[b] ^= s.beforeFrom[b + 1];
    s.entryEdge.resize(s.bucketStart[buckets]);
    s.bucketFill.assign(s.bucketStart.begin(), s.bucketStart.end() - 1);
    for (std::size_t e = 0; e < k; ++e) {
        const std::uint32_t b = s.entryBucket[e];
        if (b < buckets) s.entryEdge[s.bucketFill[b]++] = static_cast<std::uint32_t>(e);
    }
    s.bucketed = true;
}

unsigned PolygonIndex::rowParity(GatheredRow& s, float qx) const {
    const std::size_t k = s.count;
    if (!s.bucketTried && ++s.tests >= kTestsBeforeBucketing) bucketRow(s);
    if (s.bucketed && qx >= s.lo && qx <= s.hi) {
        const std::size_t buckets = s.bucketStart.size() - 1;
        const double t = (double(qx) - s.lo) * s.scale;
        const std::size_t b = !(t > 0.0)                          ? 0
                              : t >= static_cast<double>(buckets) ? buckets - 1
                                                                  : static_cast<std::size_t>(t);
        // Entries listed beyond b start right of qx; those listed before b - 1 end left of it
        // (their interval spans at most two buckets).
        unsigned parity = s.beforeFrom[b + 1] ^ s.afterUpTo[b > 0 ? b - 1 : 0];
        auto one = [&](std::uint32_t e) {
            if (qx <= s.entryLo[e]) return unsigned(s.entryBefore[e]);
            if (qx >= s.entryHi[e]) return unsigned(s.entryAfter[e]);
            return crossingParity(s, e, crossingProduct(s, e, qx));
        };
        for (std::uint32_t i = s.bucketStart[b > 0 ? b - 1 : 0]; i < s.bucketStart[b + 1]; ++i)
            parity ^= one(s.entryEdge[i]);
        for (std::uint32_t e : s.wide) parity ^= one(e);
        return parity;
    }
    unsigned parity = 0;
    for (std::size_t e = 0; e < k; ++e) parity ^= crossingParity(s, e, crossingProduct(s, e, qx));
    return parity;
}

PolygonIndex::PolygonIndex(const std::vector<pointf>& polygon)
    : id_(nextIndexId.fetch_add(1) + 1), points_(polygon) {
    const std::size_t n = points_.size();
    if (n == 0) return;

    // The y range, for skipping rows, is only usable when no y is NaN (a NaN end makes an edge
    // cross rows anywhere).
    bool anyNaN = false;
    minY_ = maxY_ = points_[0].y;
    for (const pointf& p : points_) {
        if (std::isnan(p.y)) {
            anyNaN = true;
        } else {
            minY_ = std::isnan(minY_) || p.y < minY_ ? p.y : minY_;
            maxY_ = std::isnan(maxY_) || p.y > maxY_ ? p.y : maxY_;
        }
    }
    yRangeKnown_ = !anyNaN;

    // Vertices that a point can hit exactly: all but the last.
    for (std::size_t i = 0; i + 1 < n; ++i) {
        if (!std::isnan(points_[i].y)) vertexByY_.push_back(points_[i]);
    }
    std::sort(vertexByY_.begin(), vertexByY_.end(),
              [](const pointf& a, const pointf& b) { return a.y < b.y; });

    // Bands over the finite y range. Edges with equal end y never cross a row; edges with a NaN
    // end are checked on every row.
    double lo = 0.0;
    double hi = 0.0;
    bool haveFinite = false;
    for (const pointf& p : points_) {
        if (!std::isfinite(p.y)) continue;
        if (!haveFinite || p.y < lo) lo = p.y;
        if (!haveFinite || p.y > hi) hi = p.y;
        haveFinite = true;
    }
    double spanSum = 0.0;
    std::size_t crossingEdges = 0;
    for (std::size_t i = 0; i + 1 < n; ++i) {
        const float ay = points_[i].y;
        const float by = points_[i + 1].y;
        if (std::isnan(ay) || std::isnan(by)) {
            alwaysEdges_.push_back(static_cast<std::uint32_t>(i));
            continue;
        }
        if (ay == by) continue;
        ++crossingEdges;
        if (hi > lo) {
            const double a = std::min(std::max(static_cast<double>(std::min(ay, by)), lo), hi);
            const double b = std::min(std::max(static_cast<double>(std::max(ay, by)), lo), hi);
            spanSum += (b - a) / (hi - lo);
        }
    }
    bands_.build(lo, hi, crossingEdges, spanSum, [&](auto&& visit) {
        for (std::size_t i = 0; i + 1 < n; ++i) {
            const float ay = points_[i].y;
            const float by = points_[i + 1].y;
            if (std::isnan(ay) || std::isnan(by) || ay == by) continue;
            visit(static_cast<std::uint32_t>(i), std::min(ay, by), std::max(ay, by));
        }
    });

    buildSlabs();
}

void PolygonIndex::buildSlabs() {
    const std::size_t n = points_.size();
    if (n < 2) return;
    minX_ = maxX_ = points_[0].x;
    for (const pointf& p : points_) {
        if (!std::isfinite(p.x) || !std::isfinite(p.y)) return;
        minX_ = std::min(minX_, p.x);
        maxX_ = std::max(maxX_, p.x);
    }
    // D bounds every coordinate difference between a vertex and a point the slabs answer for
    // (those within one unit of the bounding box). Rounding in a cross product stays below
    // 2^-21 D^2, and |cross product| < 2 D^2 < 2^31.
    const double D = std::max(double(maxX_) - minX_, double(maxY_) - minY_) + 2.0;
    slabExtent_ = D;
    rowBucketsUsable_ = D <= kRowBucketMaxExtent;
    if (D > kSlabMaxExtent) return;
    const double rounding = D * D / kRoundingDivisor;

    slabY_.clear();
    for (const pointf& p : points_) slabY_.push_back(p.y);
    std::sort(slabY_.begin(), slabY_.end());
    slabY_.erase(std::unique(slabY_.begin(), slabY_.end()), slabY_.end());
    if (slabY_.size() < 2) return;
    const std::size_t slabs = slabY_.size() - 1;

    auto slabRange = [&](float ylo, float yhi, std::size_t& first, std::size_t& last) {
        first = static_cast<std::size_t>(std::lower_bound(slabY_.begin(), slabY_.end(), ylo) -
                                         slabY_.begin());
        last = static_cast<std::size_t>(std::lower_bound(slabY_.begin(), slabY_.end(), yhi) -
                                        slabY_.begin());  // slabs first .. last-1
    };
    // Size first: long edges are listed in every slab they cross, which for some shapes is too
    // much; those polygons keep to the bands.
    std::size_t total = 0;
    for (std::size_t i = 0; i + 1 < n; ++i) {
        const pointf a = points_[i], b = points_[i + 1];
        if (a.y == b.y) continue;
        std::size_t first, last;
        slabRange(std::min(a.y, b.y), std::max(a.y, b.y), first, last);
        total += last - first;
    }
    if (!listedEntriesAffordable(total, n)) return;

    struct Entry {
        float lo, hi;
        std::uint32_t edge;
    };
    std::vector<std::vector<Entry>> perSlab(slabs);
    std::vector<std::vector<std::uint32_t>> exact(slabs);
    for (std::size_t i = 0; i + 1 < n; ++i) {
        const pointf a = points_[i], b = points_[i + 1];
        if (a.y == b.y) continue;
        const double h = std::fabs(double(b.y) - a.y);
        std::size_t first, last;
        slabRange(std::min(a.y, b.y), std::max(a.y, b.y), first, last);
        for (std::size_t s = first; s < last; ++s) {
            if (h < 1.0) {
                // A short rise gives a den that truncates to 0: always tested exactly.
                exact[s].push_back(static_cast<std::uint32_t>(i));
                continue;
            }
            // The line's x over the slab, widened by the margin at which |cross product| =
            // h * horizontal distance is at least 2 plus the rounding.
            const double slope = (double(b.x) - a.x) / (double(b.y) - a.y);
            const double x1 = a.x + (double(slabY_[s]) - a.y) * slope;
            const double x2 = a.x + (double(slabY_[s + 1]) - a.y) * slope;
            const double margin = (2.0 + rounding) / h + 1e-6 * D;
            perSlab[s].push_back({floatAtMost(std::min(x1, x2) - margin),
                                  floatAtLeast(std::max(x1, x2) + margin),
                                  static_cast<std::uint32_t>(i)});
        }
    }
    slabStart_.assign(1, 0);
    exactStart_.assign(1, 0);
    slabExtent_ = D;
    slabMinRise_.assign(slabs, std::numeric_limits<double>::infinity());
    for (std::size_t s = 0; s < slabs; ++s) {
        std::vector<Entry>& list = perSlab[s];
        for (const Entry& e : list) {
            const double h = std::fabs(double(points_[e.edge + 1].y) - points_[e.edge].y);
            slabMinRise_[s] = std::min(slabMinRise_[s], h);
        }
        std::sort(list.begin(), list.end(),
                  [](const Entry& l, const Entry& r) { return l.lo < r.lo; });
        float running = -std::numeric_limits<float>::infinity();
        for (const Entry& e : list) {
            running = std::max(running, e.hi);
            slabLo_.push_back(e.lo);
            slabHi_.push_back(e.hi);
            slabMaxHi_.push_back(running);
            slabEdge_.push_back(e.edge);
        }
        slabStart_.push_back(static_cast<std::uint32_t>(slabLo_.size()));
        exactEdge_.insert(exactEdge_.end(), exact[s].begin(), exact[s].end());
        exactStart_.push_back(static_cast<std::uint32_t>(exactEdge_.size()));
    }
    slabsUsable_ = true;
}

int PolygonIndex::slabRowUniform(float qy, float xFirst, float xLast) const {
    if (!slabsUsable_) return -1;
    if (!(qy > slabY_.front() && qy < slabY_.back())) return -1;
    if (!(xFirst >= minX_ - 1.0f && xLast <= maxX_ + 1.0f && xFirst <= xLast)) return -1;
    const std::size_t s = static_cast<std::size_t>(
                              std::upper_bound(slabY_.begin(), slabY_.end(), qy) - slabY_.begin()) -
                          1;
    if (slabY_[s] == qy || exactStart_[s] != exactStart_[s + 1]) return -1;
    const std::uint32_t begin = slabStart_[s];
    const std::uint32_t end = slabStart_[s + 1];
    const float* lo = slabLo_.data();
    const std::uint32_t notRight =
        static_cast<std::uint32_t>(std::upper_bound(lo + begin, lo + end, xLast) - (lo + begin));
    // Any edge near some point of the row makes it mixed.
    if (notRight > 0 && slabMaxHi_[begin + notRight - 1] >= xFirst) return -1;
    // Every edge lies clear of the whole row: right of it (counted) or left of it.
    return ((end - begin - notRight) & 1u) != 0 ? 1 : 0;
}

unsigned PolygonIndex::exactParity(std::uint32_t edge, pointf q) const {
    unsigned right = 0;
    unsigned left = 0;
    countCrossing(q, points_[edge], points_[edge + 1], right, left);
    return (right & 1u) | ((left & 1u) << 1);
}

int PolygonIndex::slabContains(pointf q) const {
    if (!slabsUsable_) return -1;
    // Beyond the y range no edge crosses the row and no vertex can be hit.
    if (q.y < slabY_.front() || q.y > slabY_.back()) return 0;
    // Strictly inside the y range (so no vertex is hit); NaN fails.
    if (!(q.y > slabY_.front() && q.y < slabY_.back())) return -1;
    if (std::isnan(q.x)) return -1;
    const std::size_t s =
        static_cast<std::size_t>(std::upper_bound(slabY_.begin(), slabY_.end(), q.y) -
                                 slabY_.begin()) -
        1;
    if (slabY_[s] == q.y) return -1;  // on a vertex row
    const std::uint32_t begin = slabStart_[s];
    const std::uint32_t end = slabStart_[s + 1];
    unsigned exactPart = 0;
    for (std::uint32_t k = exactStart_[s]; k < exactStart_[s + 1]; ++k) {
        exactPart ^= exactParity(exactEdge_[k], q);
    }
    if (!(q.x >= minX_ - 1.0f && q.x <= maxX_ + 1.0f)) {
        // Left or right of every vertex: every listed edge lies on the same side of q. That
        // decides their counts when the cross products, h times the distance, stay clear of the
        // rounding and of the int range.
        const double dist = q.x < minX_ ? double(minX_) - q.x : double(q.x) - maxX_;
        const double d = slabExtent_ + dist;
        if (d > kSlabMaxExtent || slabMinRise_[s] * dist < 2.0 + d * d / kRoundingDivisor)
            return -1;
        const unsigned listed = (q.x < minX_ && ((end - begin) & 1u)) ? 3u : 0u;
        return (listed ^ exactPart) != 0 ? 1 : 0;
    }
    const float* lo = slabLo_.data();
    const std::uint32_t notLeft =
        static_cast<std::uint32_t>(std::upper_bound(lo + begin, lo + end, q.x) - (lo + begin));
    // Edges entirely right of q add one to both counts.
    unsigned parity = ((end - begin - notLeft) & 1u) ? 3u : 0u;
    for (std::uint32_t i = begin + notLeft; i > begin && slabMaxHi_[i - 1] >= q.x; --i) {
        if (slabHi_[i - 1] >= q.x) parity ^= exactParity(slabEdge_[i - 1], q);
    }
    return (parity ^ exactPart) != 0 ? 1 : 0;
}

GatheredRow& PolygonIndex::gatherRow(float qy, PolygonScratch& scratch) const {
    std::uint32_t bits;
    std::memcpy(&bits, &qy, sizeof bits);
    for (GatheredRow& row : scratch.rows) {
        if (row.owner == id_ && row.yBits == bits) return row;
    }
    GatheredRow& s = scratch.rows[scratch.nextRow];
    scratch.nextRow = (scratch.nextRow + 1) % PolygonScratch::kCachedRows;
    s.owner = id_;
    s.yBits = bits;
    s.count = 0;
    s.vertexX.clear();
    s.tests = 0;
    s.bucketTried = false;
    s.bucketed = false;
    if (std::isnan(qy)) return s;  // no edge crosses a NaN row and no vertex equals it

    const std::size_t band = bands_.bucketOf(qy);
    const std::size_t most =
        static_cast<std::size_t>(bands_.end(band) - bands_.begin(band)) + alwaysEdges_.size();
    if (s.ax.size() < most) {
        for (auto* v : {&s.ax, &s.bx, &s.ay, &s.by}) v->resize(most);
        for (auto* v : {&s.rightMask, &s.rightFlip, &s.leftMask, &s.leftFlip}) v->resize(most);
    }
    // Every edge is written at the next free place, which only advances for edges that cross
    // the row: without a branch on the crossing, which follows no pattern along the band.
    std::size_t k = 0;
    auto consider = [&](std::uint32_t e) {
        const pointf a = points_[e];
        const pointf b = points_[e + 1];
        const bool crossesAbove = (a.y > qy) != (b.y > qy);
        const bool crossesBelow = (a.y < qy) != (b.y < qy);
        const int den = truncateToInt((b.y - qy) - (a.y - b.y));
        s.ax[k] = a.x;
        s.bx[k] = b.x;
        s.ay[k] = a.y - qy;
        s.by[k] = b.y - qy;
        // A right crossing counts when (num > 0) == (den >= 0), a left one when
        // (num < 0) == (den <= 0); as parities: sign class XOR flip.
        s.rightMask[k] = crossesAbove;
        s.rightFlip[k] = !(den >= 0);
        s.leftMask[k] = crossesBelow;
        s.leftFlip[k] = !(den <= 0);
        k += static_cast<std::size_t>(crossesAbove | crossesBelow);
    };
    for (const std::uint32_t* e = bands_.begin(band); e != bands_.end(band); ++e) consider(*e);
    for (std::uint32_t e : alwaysEdges_) consider(e);
    s.count = k;

    auto range = std::equal_range(vertexByY_.begin(), vertexByY_.end(), pointf(0.0f, qy),
                                  [](const pointf& a, const pointf& b) { return a.y < b.y; });
    for (auto it = range.first; it != range.second; ++it) s.vertexX.push_back(it->x);
    return s;
}

bool PolygonIndex::contains(pointf q, PolygonScratch& scratch) const {
    if (points_.empty()) throw std::out_of_range("IsPointInPolygon: the polygon has no vertices");
    const int bySlab = slabContains(q);
    if (bySlab >= 0) return bySlab != 0;
    GatheredRow& s = gatherRow(q.y, scratch);
    for (float x : s.vertexX) {
        if (x == q.x) return true;
    }
    return rowParity(s, q.x) != 0;
}

bool PolygonIndex::bothContained(pointf p, pointf q, PolygonScratch& scratch) const {
    if (points_.empty()) throw std::out_of_range("IsPointInPolygon: the polygon has no vertices");
    std::uint32_t pBits, qBits;
    std::memcpy(&pBits, &p.y, sizeof pBits);
    std::memcpy(&qBits, &q.y, sizeof qBits);
    if (pBits != qBits) return contains(p, scratch) && contains(q, scratch);
    const int pBySlab = slabContains(p);
    if (pBySlab == 0) return false;
    const int qBySlab = slabContains(q);
    if (qBySlab == 0) return false;
    if (pBySlab > 0) return qBySlab > 0 || contains(q, scratch);
    if (qBySlab > 0) return contains(p, scratch);

    // Both need the row: one pass over its crossings answers both, unless the row is bucketed.
    GatheredRow& s = gatherRow(p.y, scratch);
    bool pOnVertex = false;
    bool qOnVertex = false;
    for (float x : s.vertexX) {
        pOnVertex |= x == p.x;
        qOnVertex |= x == q.x;
    }
    if (!s.bucketTried && s.tests + 2 >= kTestsBeforeBucketing) bucketRow(s);
    if (s.bucketed) {
        return (pOnVertex || rowParity(s, p.x) != 0) && (qOnVertex || rowParity(s, q.x) != 0);
    }
    s.tests += 2;
    unsigned pParity = 0;
    unsigned qParity = 0;
    const std::size_t k = s.count;
    for (std::size_t e = 0; e < k; ++e) {
        pParity ^= crossingParity(s, e, crossingProduct(s, e, p.x));
        qParity ^= crossingParity(s, e, crossingProduct(s, e, q.x));
    }
    return (pOnVertex || pParity != 0) && (qOnVertex || qParity != 0);
}

bool PolygonIndex::rowsOutside(float y, float height) const {
    if (!yRangeKnown_) return false;
    if (y > maxY_) return true;
    // Points inside the rectangle are computed from y and height with a few roundings; the margin
    // covers them generously.
    const double top = static_cast<double>(y) + static_cast<double>(height);
    const double margin = 1e-5 * (std::fabs(static_cast<double>(y)) + std::fabs(double(height)));
    return top + margin < static_cast<double>(minY_);
}

bool PolygonIndex::rectangleInside(const rectanglef& r, int tolerance, PolygonScratch& s) const {
    const pointf corners[4] = {pointf(r.x, r.y), pointf(r.x + r.width, r.y),
                               pointf(r.x, r.y + r.height), pointf(r.x + r.width, r.y + r.height)};
    // Corners side by side share their row, so each pair is tested in one pass over it.
    if (!bothContained(corners[0], corners[1], s)) return false;
    if (!bothContained(corners[2], corners[3], s)) return false;

    const int nx = truncateToInt(r.width > 3 ? r.width / 3 : r.width);
    const int ny = truncateToInt(r.height > 3 ? r.height / 3 : r.height);
    const float sx = r.width / static_cast<float>(nx);
    const float sy = r.height / static_cast<float>(ny);
    // The int product wraps like the machine's; the sample count never gets near it in practice.
    const int samples = static_cast<int>(static_cast<unsigned>(nx) * static_cast<unsigned>(ny));
    const int limit =
        static_cast<int>(static_cast<unsigned>(samples / 100) * static_cast<unsigned>(tolerance));
    // The test fails as soon as the count of outside samples reaches the limit, and a single
    // outside sample is already enough when the limit is 0 or less. The order in which samples
    // are counted does not change the outcome, so they are counted row by row.
    const long long reject = std::max(1, limit);
    if (nx <= 0 || ny <= 0) return true;

    s.xs.resize(static_cast<std::size_t>(nx));
    s.parity.resize(static_cast<std::size_t>(nx));
    for (int i = 0; i < nx; ++i)
        s.xs[static_cast<std::size_t>(i)] = static_cast<float>(i) * sx + r.x;

    long long outside = 0;
    const std::size_t count = static_cast<std::size_t>(nx);
    float* xs = s.xs.data();
    std::uint8_t* parity = s.parity.data();
    for (int j = 0; j < ny; ++j) {
        const float qy = static_cast<float>(j) * sy + r.y;
        const int uniform = slabRowUniform(qy, xs[0], xs[count - 1]);
        if (uniform >= 0) {
            if (uniform == 0) outside += static_cast<long long>(count);
            if (outside >= reject) return false;
            continue;
        }
        GatheredRow& row = gatherRow(qy, s);
        if (!row.bucketTried && row.tests + count >= kTestsBeforeBucketing) bucketRow(row);
        row.tests += static_cast<unsigned>(std::min<std::size_t>(count, 1u << 20));
        const std::size_t k = row.bucketed ? 0 : row.count;
        if (row.bucketed) {
            for (std::size_t i = 0; i < count; ++i)
                parity[i] = static_cast<std::uint8_t>(rowParity(row, xs[i]));
        } else {
            std::fill(parity, parity + count, std::uint8_t(0));
        }
        for (std::size_t e = 0; e < k; ++e) {
            const float ax = row.ax[e];
            const float bx = row.bx[e];
            const float ay = row.ay[e];
            const float by = row.by[e];
            const std::uint8_t rm = row.rightMask[e];
            const std::uint8_t rf = row.rightFlip[e];
            const std::uint8_t lm = row.leftMask[e];
            const std::uint8_t lf = row.leftFlip[e];
            for (std::size_t i = 0; i < count; ++i) {
                const float v = (ax - xs[i]) * by - ay * (bx - xs[i]);
                const std::uint8_t pos = truncatesPositive(v);
                const std::uint8_t neg = truncatesNegative(v);
                parity[i] ^=
                    static_cast<std::uint8_t>((rm & (pos ^ rf)) | ((lm & (neg ^ lf)) << 1));
            }
        }
        for (float vx : row.vertexX) {
            for (std::size_t i = 0; i < count; ++i) {
                if (xs[i] == vx) parity[i] = 1;
            }
        }
        std::size_t rowOutside = 0;
        for (std::size_t i = 0; i < count; ++i) rowOutside += parity[i] == 0;
        outside += static_cast<long long>(rowOutside);
        if (outside >= reject) return false;
    }
    return true;
}

}  // namespace detail
}  // namespace quelworks
