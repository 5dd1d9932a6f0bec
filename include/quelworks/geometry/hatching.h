/// \file
/// Hatching: a polygon outline filled with horizontal line segments.
#ifndef QUELWORKS_GEOMETRY_HATCHING_H
#define QUELWORKS_GEOMETRY_HATCHING_H

#include <vector>

#include "quelworks/export.h"
#include "quelworks/geometry/shapes.h"
#include "quelworks/geometry/vector2f.h"

/// Cuts the area inside `outline` into horizontal segments `spacing` units apart.
///
/// The outline is closed implicitly (an edge runs from the last vertex back to the first). Scan
/// lines lie on integer y values, `spacing` apart, from the lower edge of the outline's
/// integer-aligned bounding box (see GetBoundingBox) to one spacing beyond its upper edge. Each
/// scan line that crosses the area gives one group: its pieces inside the outline, left to right,
/// each segment's start its left end. A piece counts as inside when its midpoint is inside the
/// outline on integer-truncated coordinates and it is at least one unit long.
///
/// An outline of fewer than 3 points gives no groups, and so does a spacing of 0 or less.
/// Coordinates of the segments can come out as -0.0 (where an intersection lands on 0 from the
/// negative side); -0.0 equals 0 in every comparison but prints as "-0".
QUELWORKS_API std::vector<std::vector<LineSegment>> FragmentToLines(std::vector<Vector2f> outline,
                                                                    int spacing);

#endif  // QUELWORKS_GEOMETRY_HATCHING_H
