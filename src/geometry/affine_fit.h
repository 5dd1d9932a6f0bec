// The pieces of the camera-to-device transformation that the static operation and the prepared
// transformation share, so that both compute the same bits: the usable-size test, the affine fit
// through three calibration points and its application to a camera position.
#ifndef QUELWORKS_GEOMETRY_AFFINE_FIT_H
#define QUELWORKS_GEOMETRY_AFFINE_FIT_H

#include <cmath>
#include <cstdint>

#include "quelworks/geometry/shapes.h"
#include "quelworks/geometry/vector2f.h"

namespace quelworks {
namespace detail {

// x = A*cx + B*cy + E, y = C*cx + D*cy + F.
struct Affine {
    double a, b, c, d, e, f;
};

// n is 3, or a perfect square of at least 4, tested in float.
inline bool isUsableSize(std::int32_t n) {
    if (n == 3) return true;
    if (n < 3) return false;
    const float s = std::sqrt(static_cast<float>(n));
    return static_cast<float>(static_cast<int>(s)) == s;
}

// The grid side for a usable size other than 3 (from the same float square root).
inline int gridSide(std::int32_t n) {
    return static_cast<int>(std::sqrt(static_cast<float>(n)));
}

// Positions of the horizontal and vertical neighbours of the nearest point m on p's side, by list
// position only: across the end of a row the "neighbour" is the first point of the next row (and
// the other way round). Both tests are strict, so a p on the nearest point's x (or y) takes the
// lower neighbour. right/below say whether p.x > camera.x and p.y > camera.y of point m.
inline void neighbours(int m, bool right, bool below, int n, int k, int& h, int& v) {
    h = right ? m + 1 : m - 1;
    if (h < 0) h = m + 1;
    if (h >= n) h = m - 1;
    v = below ? m + k : m - k;
    if (v < 0) v = m + k;
    if (v >= n) v = m - k;
}

// The float camera distance by which calibration points are ranked.
inline float cameraDistance(Vector2f camera, Vector2f p) {
    const float dy = camera.y - p.y;
    const float dx = camera.x - p.x;
    return std::sqrt(dy * dy + dx * dx);
}

// The affine map through three camera/device pairs, in double precision. Collinear camera
// points (den == 0) give B = D = 0: the map then follows camera x only.
//
// Both functions are compiled once and never inlined or cloned: the compiler may swap the operands
// of an addition, which leaves every number alone but changes which of two NaN operands comes
// out, so only one copy of the machine code gives the same NaN bits on every path.
Affine solveAffine(const CalibrationPoint& p0, const CalibrationPoint& p1,
                   const CalibrationPoint& p2);

// Each sum in double with p widened, rounded to float once.
Vector2f applyAffine(const Affine& m, Vector2f p);

}  // namespace detail
}  // namespace quelworks

#endif  // QUELWORKS_GEOMETRY_AFFINE_FIT_H
