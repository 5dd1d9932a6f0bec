// Limits shared by the prepared containment tests (the polygon index of the cover and the outline
// index of the hatching), with where each bound comes from.
#ifndef QUELWORKS_SRC_GEOMETRY_GEOMETRY_LIMITS_H
#define QUELWORKS_SRC_GEOMETRY_GEOMETRY_LIMITS_H

#include <cstddef>

namespace quelworks {
namespace detail {

// Edge buckets: at most this many, so the bucket start array stays small (256 KiB) while a
// bucket of a large outline still holds only a few edges.
constexpr std::size_t kMaxBuckets = std::size_t(1) << 16;

// Edge buckets: an edge is listed in every bucket it spans; the bucket count is lowered until the
// edges are listed this many times each on average, so the lists stay linear in the edge count.
constexpr double kBucketEntriesPerEdge = 64.0;

// Precomputed per-slab or per-column lists (an edge listed once for every slab or column it
// crosses) are built only up to this many entries; beyond, the index keeps to its buckets. Four
// million entries (some 50 MB) whatever the size, plus 64 per edge, so that large outlines of
// short edges still get them.
inline bool listedEntriesAffordable(std::size_t entries, std::size_t edges) {
    return entries <= 4000000 + 64 * edges;
}

// Outline columns: with every truncated coordinate within +-16383, differences stay within
// 32766 and the products (Y - yA) w and T dy of the outline test within 32766^2 < 2^31, so the
// int arithmetic never wraps and the test is an exact integer inequality.
constexpr int kColumnCoordinateLimit = 16383;

// Polygon slabs: D is the larger side of the bounding box plus 2, bounding every coordinate
// difference the slabs answer for. The float cross product of two such differences stays below
// 2 D^2, which is under 2^31 (so its truncation to int never overflows) while D <= 30000.
constexpr double kSlabMaxExtent = 30000.0;

// Polygon slabs: the float rounding in a cross product stays below 2^-21 D^2 (a few roundings of
// at most 2^-24 relative each); the slabs use twice that, D^2 / 2^20.
constexpr double kRoundingDivisor = 1048576.0;

// Bucketed rows of the polygon index: with the extent D at most this, every coordinate
// difference stays within 2 D and every product within 4 D^2, far from the float range, so the
// cross products never overflow and stay monotone along a row.
constexpr double kRowBucketMaxExtent = 1e12;

// Bucketed rows: a row's crossings are bucketed once it has had this many point tests (about
// what bucketing costs in passes over the crossings), and only rows with this many crossings.
constexpr unsigned kTestsBeforeBucketing = 8;
constexpr std::size_t kMinBucketedCrossings = 64;

}  // namespace detail
}  // namespace quelworks

#endif  // QUELWORKS_SRC_GEOMETRY_GEOMETRY_LIMITS_H
