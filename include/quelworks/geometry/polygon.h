/// \file
/// Polygon operations: point containment, bounding boxes, and the cover of a polygon by
/// axis-aligned rectangles.
///
/// A polygon is a vector of pointf vertices P0, P1, ..., Pn-1 with the edges (P0, P1), (P1, P2),
/// ..., (Pn-2, Pn-1). There is no edge from the last vertex back to the first: give a closed
/// polygon with its first vertex repeated at the end.
#ifndef QUELWORKS_GEOMETRY_POLYGON_H
#define QUELWORKS_GEOMETRY_POLYGON_H

#include <vector>

#include "quelworks/export.h"
#include "quelworks/geometry/shapes.h"
#include "quelworks/geometry/vector2f.h"

/// Whether q lies inside the polygon, the boundary counted as inside. The test counts edge
/// crossings to the right and to the left of q; a vertex hit exactly (any vertex but the last) is
/// inside, and so is a point whose two counts differ in parity. Cross products are truncated toward
/// zero to int, and the two directions treat an edge's end differently, so the answer is not the
/// geometric one for every point:
/// - a point level with a slanted edge (its y within the edge's y-range) can be classified wrongly
///   however far it lies from that edge: for the polygon (0,0), (100,0), (100,100), (50,100.5),
///   (0,100), (0,0), every point with 100 <= y <= 100.5 counts as inside, (-300, 100) and
///   (1000, 100.3) included. Outlines with many gently sloping edges (a finely divided circle)
///   have many such rows;
/// - a point within about one unit of an edge may go either way;
/// - coordinates so large that a cross product leaves the int range give results of their own.
/// Where exact containment matters, check the points that lie level with slanted edges yourself.
/// One vertex gives false; an empty polygon throws std::out_of_range.
QUELWORKS_API bool IsPointInPolygon(pointf q, std::vector<pointf> polygon);

/// The integer-aligned bounding box (x, y, width, height) of the points: each coordinate is
/// truncated toward zero to int (so x = -0.5 and x = 2.7 give the span 0 to 2). An empty vector
/// gives (0, 0, 1, 1); a single point a box of width and height 0.
QUELWORKS_API rectanglef GetBoundingBox(std::vector<Vector2f> points);
/// The same for pointf vertices.
QUELWORKS_API rectanglef GetBoundingBox(std::vector<pointf> points);

/// Covers the inside of the polygon within `area` by axis-aligned rectangles and appends them to
/// *out.
///
/// The area is cut into quarters, and each quarter is subdivided on its own thread: a rectangle is
/// quartered again and again, and a quarter is kept once it is smaller than 240 in both directions
/// and passes the inside test: its four corners must be inside the polygon, and of a grid of
/// sample points about 3 units apart fewer than `tolerance` percent may lie outside (the percentage
/// taken of the sample count in whole hundreds; with t <= 0 or fewer than 100 samples, none may).
/// Rectangles 3 units wide or high or smaller are not divided further. Neighbouring rectangles of
/// equal height (side by side) or equal width (one above the other) are then merged while the
/// result stays under 255 on each side: first within each quarter, then over the whole of *out,
/// including rectangles it held before the call.
///
/// Nothing happens when the area is 3 units wide or high or smaller. An empty polygon throws
/// std::out_of_range (after all four threads have ended; *out is then unchanged). The results are
/// the same whatever the number of cores.
QUELWORKS_API void BeginSpreadPolygon(std::vector<pointf> polygon, std::vector<rectanglef>* out,
                                      rectanglef area, int tolerance);

#endif  // QUELWORKS_GEOMETRY_POLYGON_H
