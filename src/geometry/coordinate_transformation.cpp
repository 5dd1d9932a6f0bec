#include "quelworks/geometry/coordinate_transformation.h"

#include <cfloat>
#include <cmath>
#include <cstdint>

#include "affine_fit.h"

// Float steps must run in float and double steps in double (SSE arithmetic), never in x87
// extended precision, so that results are the same bits on every platform.
static_assert(FLT_EVAL_METHOD == 0, "float arithmetic must not be evaluated in extended precision");

namespace {

using quelworks::detail::Affine;
using quelworks::detail::isUsableSize;
using quelworks::detail::solveAffine;

// The three calibration points the local map is fitted through: the nearest point, its horizontal
// neighbour and its vertical neighbour.
struct Triangle {
    CalibrationPoint p0;
    CalibrationPoint p1;
    CalibrationPoint p2;
};

std::int32_t byDistance(SortObject left, SortObject right) {
    if (left.distance < right.distance) return -1;
    if (left.distance == right.distance) return 0;
    return 1;
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
    return quelworks::detail::applyAffine(m, p);
}
