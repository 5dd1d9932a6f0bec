/// \file
/// Small value classes built on Vector2f: line segments, integer and float rectangles, and the
/// camera/device point pairs used for calibration.
#ifndef QUELWORKS_GEOMETRY_SHAPES_H
#define QUELWORKS_GEOMETRY_SHAPES_H

#include "quelworks/export.h"
#include "quelworks/geometry/vector2f.h"
#include "quelworks/util/rlist.h"

/// A line segment from start to end.
class QUELWORKS_API LineSegment {
public:
    Vector2f start;  ///< first end point
    Vector2f end;    ///< second end point

    /// Both ends at the origin.
    LineSegment() {}
    /// The segment from `from` to `to`.
    LineSegment(Vector2f from, Vector2f to) : start(from), end(to) {}
    /// Copies both ends.
    LineSegment(const LineSegment& other) = default;
    /// Copies both ends.
    LineSegment(LineSegment&& other) = default;
    /// Copies both ends.
    LineSegment& operator=(const LineSegment& other) = default;
    /// Copies both ends.
    LineSegment& operator=(LineSegment&& other) = default;
    /// Nothing to release.
    ~LineSegment() {}

    /// The midpoint, computed as (end - start) * 0.5 + start per coordinate.
    Vector2f Mid();
    /// The length computed in float and truncated toward zero (9.99 gives 9). Use
    /// Vector2f::GetDistanceF on the end points for the exact length.
    int Length();
};

/// Four ints stored as given; the library never interprets them.
class QUELWORKS_API rectangle {
public:
    int x;       ///< left
    int y;       ///< top
    int width;   ///< width
    int height;  ///< height

    /// All four zero.
    rectangle() : x(0), y(0), width(0), height(0) {}
    /// The four values as given.
    rectangle(int left, int top, int w, int h) : x(left), y(top), width(w), height(h) {}
    /// Copies the four values.
    rectangle(const rectangle& other) = default;
    /// Copies the four values.
    rectangle& operator=(const rectangle& other) = default;
    /// Nothing to release.
    ~rectangle() {}
};

/// An axis-aligned rectangle: (x, y) is the corner of smallest coordinates.
class QUELWORKS_API rectanglef {
public:
    float x;       ///< smallest x
    float y;       ///< smallest y
    float width;   ///< extent in x
    float height;  ///< extent in y

    /// All four zero.
    rectanglef() : x(0.0f), y(0.0f), width(0.0f), height(0.0f) {}
    /// The four values as given.
    rectanglef(float left, float top, float w, float h) : x(left), y(top), width(w), height(h) {}
    /// Copies the four values.
    rectanglef(const rectanglef& other) = default;
    /// Copies the four values.
    rectanglef& operator=(const rectanglef& other) = default;
    /// Nothing to release.
    ~rectanglef() {}
};

/// One calibration pair: a position seen by the camera and the device position it corresponds to.
class QUELWORKS_API CalibrationPoint {
public:
    Vector2f camera;  ///< the position in camera coordinates
    Vector2f device;  ///< the same position in device coordinates

    /// Both positions at the origin.
    CalibrationPoint() {}
    /// The pair (inCamera, onDevice).
    CalibrationPoint(Vector2f inCamera, Vector2f onDevice) : camera(inCamera), device(onDevice) {}
    /// Copies both positions.
    CalibrationPoint(const CalibrationPoint& other) = default;
    /// Copies both positions.
    CalibrationPoint& operator=(const CalibrationPoint& other) = default;
    /// Nothing to release.
    ~CalibrationPoint() {}

    /// A copy, returned by value.
    CalibrationPoint Clone();
};

QUELWORKS_EXTERN_TEMPLATE RList<CalibrationPoint>;

#endif  // QUELWORKS_GEOMETRY_SHAPES_H
