// Internal steps of the hatching, exported for the tests only (not part of the public headers).
#ifndef QUELWORKS_SRC_GEOMETRY_HATCHING_INTERNAL_H
#define QUELWORKS_SRC_GEOMETRY_HATCHING_INTERNAL_H

#include <vector>

#include "quelworks/export.h"
#include "quelworks/geometry/vector2f.h"

namespace quelworks {
namespace detail {

// The intersection of segment a-b with segment c-d, computed in double precision. A result that
// equals one of the end points exactly (looked for in the order a, b, c, d) is that end point
// itself, even if it lies outside the other segment's range; otherwise the point must lie within
// the x and y ranges of both segments. Parallel or degenerate segments never intersect.
bool IntersectSegments(Vector2f a, Vector2f b, Vector2f c, Vector2f d, Vector2f& out);

// Even-odd containment of q in the closed outline, on vertex coordinates truncated toward zero
// to int: a vertical ray upward from q, each edge whose x range (half-open) holds q.x and that
// passes above q flips the answer. Fewer than 3 points: false.
bool IsPointInOutline(Vector2f q, const std::vector<Vector2f>& outline);

}  // namespace detail
}  // namespace quelworks

#endif  // QUELWORKS_SRC_GEOMETRY_HATCHING_INTERNAL_H
