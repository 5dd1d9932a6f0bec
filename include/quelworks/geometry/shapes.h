// Small value classes built on Vector2f: line segments, integer and float rectangles, and the
// camera/device point pairs used for calibration.
#ifndef QUELWORKS_GEOMETRY_SHAPES_H
#define QUELWORKS_GEOMETRY_SHAPES_H

#include "quelworks/export.h"
#include "quelworks/geometry/vector2f.h"
#include "quelworks/util/rlist.h"

class QUELWORKS_API LineSegment {
public:
    Vector2f start;
    Vector2f end;

    LineSegment() {}
    LineSegment(Vector2f from, Vector2f to) : start(from), end(to) {}
    LineSegment(const LineSegment& other) = default;
    LineSegment(LineSegment&& other) = default;
    LineSegment& operator=(const LineSegment& other) = default;
    LineSegment& operator=(LineSegment&& other) = default;
    ~LineSegment() {}

    // The midpoint, computed as (end - start) * 0.5 + start per coordinate.
    Vector2f Mid();
    // The length computed in float and truncated toward zero (9.99 gives 9). Use
    // Vector2f::GetDistanceF on the end points for the exact length.
    int Length();
};

// Four ints stored as given; the library never interprets them.
class QUELWORKS_API rectangle {
public:
    int x;
    int y;
    int width;
    int height;

    rectangle() : x(0), y(0), width(0), height(0) {}
    rectangle(int left, int top, int w, int h) : x(left), y(top), width(w), height(h) {}
    rectangle(const rectangle& other) = default;
    rectangle& operator=(const rectangle& other) = default;
    ~rectangle() {}
};

// An axis-aligned rectangle: (x, y) is the corner of smallest coordinates.
class QUELWORKS_API rectanglef {
public:
    float x;
    float y;
    float width;
    float height;

    rectanglef() : x(0.0f), y(0.0f), width(0.0f), height(0.0f) {}
    rectanglef(float left, float top, float w, float h) : x(left), y(top), width(w), height(h) {}
    rectanglef(const rectanglef& other) = default;
    rectanglef& operator=(const rectanglef& other) = default;
    ~rectanglef() {}
};

// One calibration pair: a position seen by the camera and the device position it corresponds to.
class QUELWORKS_API CalibrationPoint {
public:
    Vector2f camera;
    Vector2f device;

    CalibrationPoint() {}
    CalibrationPoint(Vector2f inCamera, Vector2f onDevice) : camera(inCamera), device(onDevice) {}
    CalibrationPoint(const CalibrationPoint& other) = default;
    CalibrationPoint& operator=(const CalibrationPoint& other) = default;
    ~CalibrationPoint() {}

    CalibrationPoint Clone();
};

QUELWORKS_EXTERN_TEMPLATE RList<CalibrationPoint>;

#endif  // QUELWORKS_GEOMETRY_SHAPES_H
