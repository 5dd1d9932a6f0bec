#include "quelworks/geometry/coordinate_transformation.h"

#include <cfloat>
#include <cmath>
#include <cstdint>

// Float steps must run in float and double steps in double (SSE arithmetic), never in x87
// extended precision, so that results are the same bits on every platform.
static_assert(FLT_EVAL_METHOD == 0, "float arithmetic must not be evaluated in extended precision");

namespace {

// The three calibration points the local map is fitted through: the nearest point, its horizontal
// neighbour and its vertical neighbour.
struct Triangle {
    CalibrationPoint p0;
    CalibrationPoint p1;
    CalibrationPoint p2;
};

// x = A*cx + B*cy + E, y = C*cx + D*cy + F.
struct Affine {
    double a, b, c, d, e, f;
};

std::int32_t byDistance(SortObject left, SortObject right) {
    if (left.distance < right.distance) return -1;
    if (left.distance == right.distance) return 0;
    return 1;
}

// n is 3, or a perfect square of at least 4, tested in float.
bool isUsableSize(std::int32_t n) {
    if (n == 3) return true;
    if (n < 3) return false;
    const float s = std::sqrt(static_cast<float>(n));
    return static_cast<float>(static_cast<int>(s)) == s;
}

Triangle selectTriangle(Vector2f p, RList<CalibrationPoint>& points) {
    const int n = points.length();
    if (n == 3) {
        Node<CalibrationPoint>* first = points.pFront;
        return Triangle{first->data, first->pNext->data, first->pNext->pNext->data};
    }
    const int k = static_cast<int>(std::sqrt(static_cast<float>(n)));

    // Rank every calibration point by its camera distance from p. The merge sort is stable, so of
    // two points at the same distance the earlier one in the list wins.
    RList<SortObject> ranking;
    int position = 0;
    for (Node<CalibrationPoint>* node = points.pFront; node != nullptr; node = node->pNext) {
        const float dy = node->data.camera.y - p.y;
        const float dx = node->data.camera.x - p.x;
        ranking.push_back(SortObject{position++, std::sqrt(dy * dy + dx * dx)});
    }
    ranking.msort(CompareStruct<SortObject>{byDistance});
    const int m = ranking.pFront->data.index;

    const Node<CalibrationPoint>* nearestNode = points.pFront;
    for (int i = 0; i < m; ++i) nearestNode = nearestNode->pNext;
    const Vector2f nearest = nearestNode->data.camera;

    // Neighbours on p's side, by list position only: across the end of a row the "neighbour" is
    // the first point of the next row (and the other way round). Both tests are strict, so a p on
    // the nearest point's x (or y) takes the lower neighbour.
    int h = p.x > nearest.x ? m + 1 : m - 1;
    if (h < 0) h = m + 1;
    if (h >= n) h = m - 1;
    int v = p.y > nearest.y ? m + k : m - k;
    if (v < 0) v = m + k;
    if (v >= n) v = m - k;

    // One walk down the list picks all three.
    Triangle t;
    int found = 0;
    int i = 0;
    for (const Node<CalibrationPoint>* node = points.pFront; found < 3; node = node->pNext, ++i) {
        if (i == m) {
            t.p0 = node->data;
            ++found;
        } else if (i == h) {
            t.p1 = node->data;
            ++found;
        } else if (i == v) {
            t.p2 = node->data;
            ++found;
        }
    }
    return t;
}

// The affine map through three camera/device pairs, in double precision. Collinear camera
// points (den == 0) give B = D = 0: the map then follows camera x only.
Affine solveAffine(const CalibrationPoint& p0, const CalibrationPoint& p1,
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

}  // namespace

CoordinateTransformation::CoordinateTransformation() {}

CoordinateTransformation& CoordinateTransformation::operator=(const CoordinateTransformation&) {
    return *this;
}

CoordinateTransformation& CoordinateTransformation::operator=(CoordinateTransformation&&) {
    return *this;
}

Vector2f CoordinateTransformation::TransformCameraToDeviceCoordinates(
    Vector2f p, RList<CalibrationPoint> points) {
    if (!isUsableSize(points.length())) return Vector2f(0.0f, 0.0f);
    const Triangle t = selectTriangle(p, points);
    const Affine m = solveAffine(t.p0, t.p1, t.p2);
    const double px = p.x;
    const double py = p.y;
    return Vector2f(static_cast<float>(px * m.a + py * m.b + m.e),
                    static_cast<float>(px * m.c + py * m.d + m.f));
}
