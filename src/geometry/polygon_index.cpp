// A polygon prepared for many containment tests (the rectangle cover's inside test).
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include "geometry/float_to_int.h"
#include "geometry/polygon_edge.h"
#include "geometry/polygon_internal.h"

namespace quelworks {
namespace detail {

namespace {

// Keeps the band lists within a few entries per edge on average: long edges are listed in every
// band they span, so many long edges call for fewer bands.
constexpr double kEntriesPerEdge = 64.0;
constexpr std::size_t kMaxBands = 1u << 16;

}  // namespace

PolygonIndex::PolygonIndex(const std::vector<pointf>& polygon) : points_(polygon) {
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
    bandOrigin_ = lo;
    bandCount_ = 1;
    if (hi > lo && crossingEdges > 0) {
        double bands = static_cast<double>(crossingEdges);
        if (spanSum > 0.0) bands = std::min(bands, kEntriesPerEdge * crossingEdges / spanSum);
        bandCount_ = static_cast<std::size_t>(std::max(1.0, std::min(bands, double(kMaxBands))));
        bandScale_ = static_cast<double>(bandCount_) / (hi - lo);
    }

    // Count, then fill, the band lists (compressed rows).
    std::vector<std::uint32_t> counts(bandCount_ + 1, 0);
    auto forEachBand = [&](auto&& visit) {
        for (std::size_t i = 0; i + 1 < n; ++i) {
            const float ay = points_[i].y;
            const float by = points_[i + 1].y;
            if (std::isnan(ay) || std::isnan(by) || ay == by) continue;
            const std::size_t first = bandOf(std::min(ay, by));
            const std::size_t last = bandOf(std::max(ay, by));
            for (std::size_t b = first; b <= last; ++b) visit(b, static_cast<std::uint32_t>(i));
        }
    };
    forEachBand([&](std::size_t b, std::uint32_t) { ++counts[b + 1]; });
    for (std::size_t b = 0; b < bandCount_; ++b) counts[b + 1] += counts[b];
    bandStart_ = counts;
    bandEdges_.resize(counts[bandCount_]);
    forEachBand([&](std::size_t b, std::uint32_t e) { bandEdges_[counts[b]++] = e; });
}

std::size_t PolygonIndex::bandOf(float y) const {
    // Monotone in y, so an edge listed from the band of its lower end to the band of its upper
    // end is found from every row in between.
    const double t = (static_cast<double>(y) - bandOrigin_) * bandScale_;
    if (!(t > 0.0)) return 0;
    if (t >= static_cast<double>(bandCount_)) return bandCount_ - 1;
    return static_cast<std::size_t>(t);
}

void PolygonIndex::gatherRow(float qy, PolygonScratch& s) const {
    s.ax.clear();
    s.bx.clear();
    s.ay.clear();
    s.by.clear();
    s.rightMask.clear();
    s.rightFlip.clear();
    s.leftMask.clear();
    s.leftFlip.clear();
    s.vertexX.clear();
    if (std::isnan(qy)) return;  // no edge crosses a NaN row and no vertex equals it

    auto consider = [&](std::uint32_t e) {
        const pointf a = points_[e];
        const pointf b = points_[e + 1];
        const bool crossesAbove = (a.y > qy) != (b.y > qy);
        const bool crossesBelow = (a.y < qy) != (b.y < qy);
        if (!crossesAbove && !crossesBelow) return;
        const int den = truncateToInt((b.y - qy) - (a.y - b.y));
        s.ax.push_back(a.x);
        s.bx.push_back(b.x);
        s.ay.push_back(a.y - qy);
        s.by.push_back(b.y - qy);
        // A right crossing counts when (num > 0) == (den >= 0), a left one when
        // (num < 0) == (den <= 0); as parities: sign class XOR flip.
        s.rightMask.push_back(crossesAbove);
        s.rightFlip.push_back(!(den >= 0));
        s.leftMask.push_back(crossesBelow);
        s.leftFlip.push_back(!(den <= 0));
    };
    const std::size_t band = bandOf(qy);
    for (std::uint32_t k = bandStart_[band]; k < bandStart_[band + 1]; ++k) consider(bandEdges_[k]);
    for (std::uint32_t e : alwaysEdges_) consider(e);

    auto range = std::equal_range(vertexByY_.begin(), vertexByY_.end(), pointf(0.0f, qy),
                                  [](const pointf& a, const pointf& b) { return a.y < b.y; });
    for (auto it = range.first; it != range.second; ++it) s.vertexX.push_back(it->x);
}

bool PolygonIndex::contains(pointf q, PolygonScratch& s) const {
    if (points_.empty()) throw std::out_of_range("IsPointInPolygon: the polygon has no vertices");
    gatherRow(q.y, s);
    for (float x : s.vertexX) {
        if (x == q.x) return true;
    }
    unsigned parity = 0;
    const std::size_t k = s.ax.size();
    for (std::size_t e = 0; e < k; ++e) {
        const float v = (s.ax[e] - q.x) * s.by[e] - s.ay[e] * (s.bx[e] - q.x);
        parity ^=
            s.rightMask[e] & (static_cast<std::uint8_t>(truncatesPositive(v)) ^ s.rightFlip[e]);
        parity ^=
            (s.leftMask[e] & (static_cast<std::uint8_t>(truncatesNegative(v)) ^ s.leftFlip[e]))
            << 1;
    }
    return parity != 0;
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
    for (const pointf& c : corners) {
        if (!contains(c, s)) return false;
    }

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
        gatherRow(qy, s);
        std::fill(parity, parity + count, std::uint8_t(0));
        const std::size_t k = s.ax.size();
        for (std::size_t e = 0; e < k; ++e) {
            const float ax = s.ax[e];
            const float bx = s.bx[e];
            const float ay = s.ay[e];
            const float by = s.by[e];
            const std::uint8_t rm = s.rightMask[e];
            const std::uint8_t rf = s.rightFlip[e];
            const std::uint8_t lm = s.leftMask[e];
            const std::uint8_t lf = s.leftFlip[e];
            for (std::size_t i = 0; i < count; ++i) {
                const float v = (ax - xs[i]) * by - ay * (bx - xs[i]);
                const std::uint8_t pos = truncatesPositive(v);
                const std::uint8_t neg = truncatesNegative(v);
                parity[i] ^=
                    static_cast<std::uint8_t>((rm & (pos ^ rf)) | ((lm & (neg ^ lf)) << 1));
            }
        }
        for (float vx : s.vertexX) {
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
