/// \file
/// Camera coordinates to device coordinates through calibration points.
#ifndef QUELWORKS_GEOMETRY_COORDINATE_TRANSFORMATION_H
#define QUELWORKS_GEOMETRY_COORDINATE_TRANSFORMATION_H

#include "quelworks/export.h"
#include "quelworks/geometry/shapes.h"
#include "quelworks/geometry/vector2f.h"
#include "quelworks/util/rlist.h"

/// Stateless; the transformation is a static operation.
class QUELWORKS_API CoordinateTransformation {
public:
    /// Nothing to set up.
    CoordinateTransformation();
    /// Nothing to copy.
    CoordinateTransformation(const CoordinateTransformation& other) = default;
    /// Nothing to copy.
    CoordinateTransformation& operator=(const CoordinateTransformation& other);
    /// Nothing to move.
    CoordinateTransformation& operator=(CoordinateTransformation&& other);

    /// Maps camera position p to device coordinates. The calibration is either exactly three
    /// points or a k x k grid (k >= 2) listed row by row: the point at position i has its
    /// neighbour of larger camera x at i + 1 and its neighbour of larger camera y at i + k.
    ///
    /// For a grid the map is local: the calibration point nearest to p (the earlier one on a tie)
    /// and its horizontal and vertical neighbours on p's side (by list position, so a neighbour
    /// across the end of a row is the first point of the next row) define an affine map, fitted
    /// and applied in double precision. Three collinear camera points give a map that depends on
    /// camera x only. Any other list size gives (0, 0).
    static Vector2f TransformCameraToDeviceCoordinates(Vector2f p, RList<CalibrationPoint> points);
};

#endif  // QUELWORKS_GEOMETRY_COORDINATE_TRANSFORMATION_H
