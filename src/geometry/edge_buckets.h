// Edges listed per bucket of one coordinate (y for the polygon index, x for the outline index), so
// that a query at coordinate v only looks at the edges whose range can hold v.
#ifndef QUELWORKS_SRC_GEOMETRY_EDGE_BUCKETS_H
#define QUELWORKS_SRC_GEOMETRY_EDGE_BUCKETS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "geometry/geometry_limits.h"

namespace quelworks {
namespace detail {

class EdgeBuckets {
public:
    // Lists edges over [lo, hi]. `forEachEdge(visit)` calls visit(edge, from, to) once for each
    // edge to be listed, with the edge's range (from <= to); `edges` is how many it lists and
    // `spanSum` the sum of their ranges clipped to [lo, hi], divided by hi - lo.
    //
    // The bucket count is the edge count, lowered so that on average an edge is listed in at most
    // kBucketEntriesPerEdge buckets (long edges are listed in every bucket they span, so many long
    // edges call for fewer buckets), and at most kMaxBuckets.
    template <typename ForEachEdge>
    void build(double lo, double hi, std::size_t edges, double spanSum, ForEachEdge&& forEachEdge) {
        origin_ = lo;
        count_ = 1;
        scale_ = 0.0;
        if (hi > lo && edges > 0) {
            double buckets = static_cast<double>(edges);
            if (spanSum > 0.0) {
                buckets =
                    std::min(buckets, kBucketEntriesPerEdge * static_cast<double>(edges) / spanSum);
            }
            count_ = static_cast<std::size_t>(
                std::max(1.0, std::min(buckets, static_cast<double>(kMaxBuckets))));
            scale_ = static_cast<double>(count_) / (hi - lo);
        }
        // Count, then fill (compressed rows).
        std::vector<std::uint32_t> counts(count_ + 1, 0);
        forEachEdge([&](std::uint32_t, float from, float to) {
            const std::size_t last = bucketOf(to);
            for (std::size_t b = bucketOf(from); b <= last; ++b) ++counts[b + 1];
        });
        for (std::size_t b = 0; b < count_; ++b) counts[b + 1] += counts[b];
        start_ = counts;
        edges_.resize(counts[count_]);
        forEachEdge([&](std::uint32_t edge, float from, float to) {
            const std::size_t last = bucketOf(to);
            for (std::size_t b = bucketOf(from); b <= last; ++b) edges_[counts[b]++] = edge;
        });
    }

    // The bucket of v. Monotone in v, so an edge listed from the bucket of its lower end to the
    // bucket of its upper end is found from every v in between; NaN and anything below the range
    // fall into the first bucket, anything above it into the last.
    std::size_t bucketOf(float v) const {
        const double t = (static_cast<double>(v) - origin_) * scale_;
        if (!(t > 0.0)) return 0;
        if (t >= static_cast<double>(count_)) return count_ - 1;
        return static_cast<std::size_t>(t);
    }

    std::size_t bucketCount() const { return count_; }
    std::size_t entryCount() const { return edges_.size(); }

    // The edges of bucket b.
    const std::uint32_t* begin(std::size_t b) const { return edges_.data() + start_[b]; }
    const std::uint32_t* end(std::size_t b) const { return edges_.data() + start_[b + 1]; }

private:
    double origin_ = 0.0;
    double scale_ = 0.0;
    std::size_t count_ = 1;
    std::vector<std::uint32_t> start_{0, 0};
    std::vector<std::uint32_t> edges_;
};

}  // namespace detail
}  // namespace quelworks

#endif  // QUELWORKS_SRC_GEOMETRY_EDGE_BUCKETS_H
