#include "affine_fit.h"

#include <cfloat>

static_assert(FLT_EVAL_METHOD == 0, "float arithmetic must not be evaluated in extended precision");

#if defined(__clang__)
#define QW_ONE_COPY __attribute__((noinline))
#elif defined(__GNUC__)
#define QW_ONE_COPY __attribute__((noipa))
#else
#define QW_ONE_COPY
#endif

namespace quelworks {
namespace detail {

QW_ONE_COPY Affine solveAffine(const CalibrationPoint& p0, const CalibrationPoint& p1,
                               const CalibrationPoint& p2) {
    const double cx0 = p0.camera.x, cy0 = p0.camera.y, dx0 = p0.device.x, dy0 = p0.device.y;
    const double cx1 = p1.camera.x, cy1 = p1.camera.y, dx1 = p1.device.x, dy1 = p1.device.y;
    const double cx2 = p2.camera.x, cy2 = p2.camera.y, dx2 = p2.device.x, dy2 = p2.device.y;

    const double u1 = cx0 - cx1;
    const double u2 = cx0 - cx2;
    const double den = (cy0 - cy2) * u1 - (cy0 - cy1) * u2;

    Affine m;
    m.b = 0.0;
    if (den != 0.0) m.b = ((dx0 - dx2) * u1 - (dx0 - dx1) * u2) / den;
    if (u1 != 0.0) {
        m.a = ((dx0 - dx1) - (cy0 - cy1) * m.b) / u1;
    } else {
        m.a = ((dx0 - dx2) - (cy0 - cy2) * m.b) / u2;
    }
    m.d = 0.0;
    if (den != 0.0) m.d = ((dy0 - dy2) * u1 - (dy0 - dy1) * u2) / den;
    if (u1 != 0.0) {
        m.c = ((dy0 - dy1) - (cy0 - cy1) * m.d) / u1;
    } else {
        m.c = ((dy0 - dy2) - (cy0 - cy2) * m.d) / u2;
    }
    m.e = dx0 - cx0 * m.a - cy0 * m.b;
    m.f = dy0 - cx0 * m.c - cy0 * m.d;
    return m;
}

QW_ONE_COPY Vector2f applyAffine(const Affine& m, Vector2f p) {
    const double px = p.x;
    const double py = p.y;
    return Vector2f(static_cast<float>(px * m.a + py * m.b + m.e),
                    static_cast<float>(px * m.c + py * m.d + m.f));
}

}  // namespace detail
}  // namespace quelworks
