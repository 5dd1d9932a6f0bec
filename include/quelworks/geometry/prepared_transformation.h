// A camera-to-device transformation prepared once from a calibration list, for mapping many
// camera positions quickly.
#ifndef QUELWORKS_GEOMETRY_PREPARED_TRANSFORMATION_H
#define QUELWORKS_GEOMETRY_PREPARED_TRANSFORMATION_H

#include <cstddef>
#include <memory>

#include "quelworks/export.h"
#include "quelworks/geometry/shapes.h"
#include "quelworks/geometry/vector2f.h"
#include "quelworks/util/rlist.h"

/// The camera-to-device transformation prepared once from a calibration list: every point maps
/// to exactly the bits CoordinateTransformation::TransformCameraToDeviceCoordinates gives for it.
///
/// Preparing copies the calibration, builds a spatial index of the camera positions and fits the
/// affine maps of every triangle a point can select, so that mapping a point costs a handful of
/// distance computations instead of a pass over the whole list and a sort. After construction the
/// object is immutable: any number of threads may map points through it (or through copies of
/// it, which share the prepared data) at the same time.
class QUELWORKS_API PreparedTransformation {
public:
    /// Prepares the transformation for a calibration list (three points or a k x k grid, row by
    /// row); the list is copied, not kept. Any other size maps every point to (0, 0).
    explicit PreparedTransformation(const RList<CalibrationPoint>& points);
    /// Prepares the transformation for count calibration points in list order. More than
    /// 2^31 - 1 points throw std::length_error.
    PreparedTransformation(const CalibrationPoint* points, std::size_t count);

    /// True when the calibration has a usable size (3 points, or k x k with k >= 2).
    bool IsUsable() const;
    /// Number of calibration points the transformation was prepared from.
    std::size_t Size() const;

    /// Maps one camera position to device coordinates.
    Vector2f Transform(Vector2f p) const;
    /// Maps count camera positions from in to out; in and out may be the same array. Arrays of
    /// 65536 points or more are shared out to up to four threads (one per core).
    void Transform(const Vector2f* in, Vector2f* out, std::size_t count) const;

private:
    struct Data;
    std::shared_ptr<const Data> data_;
};

#endif  // QUELWORKS_GEOMETRY_PREPARED_TRANSFORMATION_H
