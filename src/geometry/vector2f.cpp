#include "quelworks/geometry/vector2f.h"

#include <cfloat>
#include <cmath>

#include "geometry/float_to_int.h"
#include "platform/point.h"
#include "quelworks/util/conversions.h"

// Float steps must run in float and double steps in double (SSE arithmetic), never in x87
// extended precision, so that results are the same bits on every platform.
static_assert(FLT_EVAL_METHOD == 0, "float arithmetic must not be evaluated in extended precision");

namespace {

// Used where a step is defined in double precision: the product angle * pi is formed in double,
// and degrees are obtained by dividing by 2pi in double.
constexpr double kPi = 3.141592653589793;
constexpr double kTwoPi = 6.283185307179586;

// Single-precision cosine, sine and arc cosine, evaluated in double and rounded once to float.
// The float functions of the C runtimes differ in the last bit from one platform to the next;
// these roundings give the same bits with glibc and the Windows runtimes (for |x| < 2^22, that is
// rotations below about 2.4e8 degrees), and are the correctly rounded value in all but rare cases.
float cosF(float x) {
    return static_cast<float>(std::cos(static_cast<double>(x)));
}

float sinF(float x) {
    return static_cast<float>(std::sin(static_cast<double>(x)));
}

float acosF(float x) {
    return static_cast<float>(std::acos(static_cast<double>(x)));
}

float length(float x, float y) {
    return std::sqrt(x * x + y * y);
}

void normalizeInPlace(float& x, float& y) {
    const float l = length(x, y);
    if (l == 0.0f) return;
    x /= l;
    y /= l;
}

}  // namespace

// ---- pointf ----

bool pointf::operator==(pointf p) const {
    return x == p.x && y == p.y;
}

pointf pointf::operator+(pointf p) const {
    return pointf(x + p.x, y + p.y);
}

pointf pointf::operator-(pointf p) const {
    return pointf(x - p.x, y - p.y);
}

pointf pointf::operator*(float s) const {
    return pointf(x * s, y * s);
}

float pointf::operator*(pointf p) const {
    return x * p.x + y * p.y;
}

pointf pointf::operator/(float s) const {
    return pointf(x / s, y / s);
}

float pointf::Distancef(pointf p) {
    const float dy = y - p.y;
    const float dx = x - p.x;
    return std::sqrt(dy * dy + dx * dx);
}

float pointf::XDistance(pointf p) {
    return x - p.x;
}

float pointf::YDistance(pointf p) {
    return y - p.y;
}

// ---- Vector2f ----

Vector2f::Vector2f(POINT p) : x(static_cast<float>(p.x)), y(static_cast<float>(p.y)) {}

bool Vector2f::operator==(Vector2f v) const {
    return x == v.x && y == v.y;
}

Vector2f Vector2f::operator+(Vector2f v) const {
    return Vector2f(x + v.x, y + v.y);
}

Vector2f Vector2f::operator+(float s) const {
    return Vector2f(x + s, y + s);
}

Vector2f Vector2f::operator-(Vector2f v) {
    return Vector2f(x - v.x, y - v.y);
}

Vector2f Vector2f::operator-(float s) {
    return Vector2f(x - s, y - s);
}

float Vector2f::operator*(Vector2f v) const {
    return x * v.x + y * v.y;
}

Vector2f Vector2f::operator*(float s) {
    return Vector2f(x * s, y * s);
}

Vector2f Vector2f::operator/(float s) {
    return Vector2f(x / s, y / s);
}

Vector2f Vector2f::Negate() {
    return Vector2f(-x, -y);
}

float Vector2f::Length() {
    return length(x, y);
}

void Vector2f::Normalize() {
    normalizeInPlace(x, y);
}

std::string Vector2f::ToString() {
    std::string text("{");
    text += convertFloat(x);
    text += " ; ";
    text += convertFloat(y);
    text += "}";
    return text;
}

Vector2f Vector2f::Normalize(Vector2f v) {
    normalizeInPlace(v.x, v.y);
    return v;
}

float Vector2f::ScalarProjection(Vector2f a, Vector2f b) {
    return (a * b) / length(b.x, b.y);
}

Vector2f Vector2f::VectorProjection(Vector2f a, Vector2f b) {
    const float lb = length(b.x, b.y);
    const float factor = (a * b) / (lb * lb);
    return Vector2f(b.x * factor, b.y * factor);
}

Vector2f Vector2f::GetLeftPerp(Vector2f v) {
    return Vector2f(-v.y, v.x);
}

Vector2f Vector2f::GetRightPerp(Vector2f v) {
    return Vector2f(v.y, -v.x);
}

Vector2f Vector2f::GetLeftNormal(Vector2f v) {
    return Normalize(GetLeftPerp(v));
}

Vector2f Vector2f::GetRightNormal(Vector2f v) {
    return Normalize(GetRightPerp(v));
}

Vector2f Vector2f::Rotate(float angle, Vector2f centre, Vector2f p) {
    // The product with pi is formed in double and rounded to float before the division.
    const float r = static_cast<float>(static_cast<double>(angle) * kPi) / 180.0f;
    const float c = cosF(r);
    const float s = sinF(r);
    const float dx = p.x - centre.x;
    const float dy = p.y - centre.y;
    return Vector2f(dx * c - dy * s + centre.x, dx * s + dy * c + centre.y);
}

int Vector2f::Location(Vector2f a, Vector2f b, Vector2f c) {
    const float v = (c.y - a.y) * (b.x - a.x) - (b.y - a.y) * (c.x - a.x);
    return quelworks::detail::truncateToInt(v);
}

bool Vector2f::IsPointNearbyLine(Vector2f p, Vector2f a, Vector2f b) {
    const float dx = b.x - a.x;
    const float dy = b.y - a.y;
    const float wx = p.x - a.x;
    const float wy = p.y - a.y;
    const float len = length(dx, dy);
    // Signed distance of p's foot from a along the segment, then the perpendicular distance.
    const float t = (wx * dx + wy * dy) / len;
    const float w = length(wx, wy);
    const float h = std::sqrt(w * w - t * t);
    // Rounding can make the radicand negative; the NaN then fails this test.
    if (!(5.0f >= h)) return false;
    return t >= 0.0f && len >= t;
}

bool Vector2f::IsPointNearbyPoint(Vector2f a, Vector2f b, int radius) {
    return static_cast<float>(radius) >= GetDistanceF(a, b);
}

float Vector2f::GetDistanceF(Vector2f a, Vector2f b) {
    const float dy = a.y - b.y;
    const float dx = a.x - b.x;
    return std::sqrt(dy * dy + dx * dx);
}

float Vector2f::GetXDistanceF(Vector2f a, Vector2f b) {
    return a.x - b.x;
}

float Vector2f::GetYDistanceF(Vector2f a, Vector2f b) {
    return a.y - b.y;
}

float Vector2f::Angle(Vector2f a, Vector2f b) {
    const float cross = a.x * b.y - a.y * b.x;
    const float dot = a.x * b.x + a.y * b.y;
    const float t = acosF(dot / (length(a.x, a.y) * length(b.x, b.y)));
    // +1 or -1; NaN when the vectors are collinear (cross is 0).
    const float sign = cross / static_cast<float>(std::fabs(static_cast<double>(cross)));
    const float r = t * sign;
    if (!std::isnan(r)) return static_cast<float>(static_cast<double>(r * 360.0f) / kTwoPi);
    // Collinear, zero or rounded past the acos domain: decide between 0 and 180 by direction.
    normalizeInPlace(a.x, a.y);
    normalizeInPlace(b.x, b.y);
    return (a.x == b.x && a.y == b.y) ? 0.0f : 180.0f;
}

float Vector2f::AngleEX(Vector2f a, Vector2f b) {
    const float q = (a.x * b.x + a.y * b.y) / (length(a.x, a.y) * length(b.x, b.y));
    return static_cast<float>(static_cast<double>(cosF(q) * 360.0f) / kTwoPi);
}

Vector2f Vector2f::FlipH(Vector2f a, Vector2f b) {
    return Vector2f(a.x - (b.x - a.x), b.y);
}

Vector2f Vector2f::FlipV(Vector2f a, Vector2f b) {
    return Vector2f(b.x, a.y - (b.y - a.y));
}
