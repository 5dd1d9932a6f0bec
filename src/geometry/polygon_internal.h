// Internal pieces of the polygon operations, exported for the tests and benchmarks only (they are
// not part of the public headers).
#ifndef QUELWORKS_SRC_GEOMETRY_POLYGON_INTERNAL_H
#define QUELWORKS_SRC_GEOMETRY_POLYGON_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "geometry/edge_buckets.h"
#include "quelworks/export.h"
#include "quelworks/geometry/shapes.h"
#include "quelworks/geometry/vector2f.h"

namespace quelworks {
namespace detail {

// Merges neighbouring rectangles of `rects` in place, exactly as the cover's merge step: while
// some pair (i, j) is mergeable, the first such pair (i ascending, then j ascending) is removed
// and the merged rectangle appended. Runs in about n log n for the usual inputs; the first pair
// is found through indexes keyed by the shared edges instead of a fresh scan each round.
void MergeRectangles(std::vector<rectanglef>& rects);

// Whether a and b may be merged (side by side with equal y and height, or one above the other
// with equal x and width, the merged rectangle under 255 on each side); if so, `merged` receives
// the merged rectangle computed from a, then b.
bool TryMergeRectangles(const rectanglef& a, const rectanglef& b, rectanglef& merged);

// The edges that cross one sample row, with their row-constant terms.
struct GatheredRow {
    std::uint64_t owner = 0;  // the id of the index that gathered it; 0: empty slot
    std::uint32_t yBits = 0;  // the row's y, bit for bit
    // The first `count` entries of the arrays below hold them (the arrays only grow).
    std::size_t count = 0;
    std::vector<float> ax, bx, by, ay;
    std::vector<std::uint8_t> rightMask, rightFlip, leftMask, leftFlip;
    // x of the vertices lying exactly on the row.
    std::vector<float> vertexX;

    // Point tests on this row so far; a row tested often gets its crossings bucketed by x.
    unsigned tests = 0;
    bool bucketTried = false;
    bool bucketed = false;
    // The bucketed crossings, for points with lo <= x <= hi. Every crossing adds a constant to
    // the parities left of an x interval around it (`before`) and another right of it (`after`);
    // inside the interval it is tested exactly. Crossings whose interval spans at most two
    // buckets are listed by the bucket of their lower end, the others (`wide`) are always looked
    // at.
    float lo = 0.0f;
    float hi = 0.0f;
    double scale = 0.0;
    std::vector<std::uint32_t> bucketStart;
    std::vector<std::uint8_t> beforeFrom;  // per bucket b, the XOR of `before` over buckets >= b
    std::vector<std::uint8_t> afterUpTo;   // per bucket b, the XOR of `after` over buckets < b
    std::vector<float> entryLo, entryHi;
    std::vector<std::uint32_t> entryEdge;
    std::vector<std::uint8_t> entryBefore, entryAfter;
    std::vector<std::uint32_t> wide;
    std::vector<std::uint32_t> entryBucket, bucketFill;  // work space of the bucketing
};

// Work buffers for PolygonIndex queries; one per thread.
struct PolygonScratch {
    // The last rows gathered: neighbouring rectangles of the cover share their rows (a
    // rectangle's bottom corners and first sample row, the quarters of one rectangle), so most
    // rows are gathered once instead of several times.
    static constexpr unsigned kCachedRows = 4;
    GatheredRow rows[kCachedRows];
    unsigned nextRow = 0;
    // One sample row of a rectangle test.
    std::vector<float> xs;
    std::vector<std::uint8_t> parity;
};

// A polygon prepared for many containment tests: the same answers as IsPointInPolygon, bit for
// bit, but each test only looks at the edges whose y range holds the point (found through bands
// over y) and never copies the polygon.
class PolygonIndex {
public:
    explicit PolygonIndex(const std::vector<pointf>& polygon);

    std::size_t size() const { return points_.size(); }

    // IsPointInPolygon(q, polygon). Throws std::out_of_range for an empty polygon.
    bool contains(pointf q, PolygonScratch& scratch) const;

    // contains(p) && contains(q); one pass over the row when p and q lie on the same row.
    bool bothContained(pointf p, pointf q, PolygonScratch& scratch) const;

    // The inside test of a rectangle: four corners, then the sample grid with the tolerance.
    bool rectangleInside(const rectanglef& r, int tolerance, PolygonScratch& scratch) const;

    // True when no point whose y lies in the closed range spanned by a rectangle starting at
    // `y` with height `height` (or by anything inside it) can be inside the polygon.
    bool rowsOutside(float y, float height) const;

private:
    GatheredRow& gatherRow(float qy, PolygonScratch& scratch) const;
    // Buckets the row's crossings by x when the row has been tested often enough to pay off.
    void bucketRow(GatheredRow& row) const;
    // The parity bits (right, left) of a point of a gathered row.
    unsigned rowParity(GatheredRow& row, float qx) const;
    void buildSlabs();
    // The containment of a point strictly inside a slab, or -1 when the slabs cannot decide it.
    int slabContains(pointf q) const;
    unsigned exactParity(std::uint32_t edge, pointf q) const;
    // Whether every point (x, qy) with xFirst <= x <= xLast is inside (1) or every one outside
    // (0), when the slabs can tell; -1 otherwise.
    int slabRowUniform(float qy, float xFirst, float xLast) const;

    // Tells the rows this index gathered into a scratch from those of any other index.
    std::uint64_t id_;
    std::vector<pointf> points_;
    // Edges (index of their first vertex) listed per band of y.
    EdgeBuckets bands_;
    // Edges with a NaN y: looked at on every row.
    std::vector<std::uint32_t> alwaysEdges_;
    // (y, x) of the vertices that can be hit exactly (all but the last), sorted by y.
    std::vector<pointf> vertexByY_;
    // The y range of all vertices, for skipping rows that cannot be inside.
    bool yRangeKnown_ = false;
    float minY_ = 0.0f;
    float maxY_ = 0.0f;

    // Slabs: the open ranges between neighbouring distinct vertex y values. Within a slab every
    // edge crossing it crosses every row of it, and an edge whose line lies far enough right of a
    // point (by a margin that outweighs float rounding and the truncation to int) adds one to
    // both crossing counts, one far enough left adds nothing. So a point needs a binary search
    // for the count of edges right of it, and the exact test only for the edges near it.
    // Used when every coordinate is finite and the polygon is small enough (under 30000 units a
    // side, kSlabMaxExtent) that no cross product can leave the int range.
    bool slabsUsable_ = false;
    float minX_ = 0.0f;
    float maxX_ = 0.0f;
    std::vector<float> slabY_;              // distinct vertex y values, ascending
    std::vector<std::uint32_t> slabStart_;  // per slab, its range in the four arrays below
    std::vector<float> slabLo_, slabHi_, slabMaxHi_;  // sorted by lo; maxHi a running maximum
    std::vector<std::uint32_t> slabEdge_;
    std::vector<std::uint32_t> exactStart_;  // per slab, edges always tested exactly
    std::vector<std::uint32_t> exactEdge_;
    // Rows bucketed by x answer for points within one unit of the bounding box, when every
    // coordinate is finite and the box is small enough that no cross product overflows.
    bool rowBucketsUsable_ = false;
    double slabExtent_ = 0.0;          // D: the larger side of the bounding box plus 2
    std::vector<double> slabMinRise_;  // per slab, the smallest y extent of its listed edges
};

}  // namespace detail
}  // namespace quelworks

#endif  // QUELWORKS_SRC_GEOMETRY_POLYGON_INTERNAL_H
