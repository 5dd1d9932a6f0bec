/// \file
/// Plane vectors and points.
///
/// Vector2f is the working vector of all geometry in the library, with the full set of geometric
/// operations (most of them static); pointf is the lighter vertex type of the polygon operations.
/// The plane has y pointing up: "left" is counter-clockwise, and positive angles turn
/// counter-clockwise. Angles are in degrees.
///
/// All arithmetic is single-precision float unless an operation says otherwise, and every operation
/// is compiled inside the library (never inline in a caller), so results are the same bits whatever
/// flags the calling program is built with. Nothing is guarded: divisions by zero and square roots
/// of negative numbers give infinities and NaN as float arithmetic does.
#ifndef QUELWORKS_GEOMETRY_VECTOR2F_H
#define QUELWORKS_GEOMETRY_VECTOR2F_H

#include <cstdint>
#include <string>

#include "quelworks/export.h"

#if defined(_WIN32)
/// The Windows POINT (two LONGs) from <windows.h>. Declared here without pulling in the Windows
/// headers; code that builds POINT values has included them anyway.
struct tagPOINT;
typedef struct tagPOINT POINT;
#else
/// Elsewhere a look-alike with the same layout: two signed 32-bit ints.
typedef struct tagPOINT {
    std::int32_t x;  ///< horizontal coordinate
    std::int32_t y;  ///< vertical coordinate
} POINT;
#endif

/// A plane point as the polygon operations store it. Trivially copyable.
class QUELWORKS_API pointf {
public:
    float x;  ///< horizontal coordinate
    float y;  ///< vertical coordinate (up)

    /// The origin.
    pointf() : x(0.0f), y(0.0f) {}
    /// The point (px, py).
    pointf(float px, float py) : x(px), y(py) {}

    /// Exact float comparison of x, then y (NaN never compares equal).
    bool operator==(pointf p) const;
    /// Coordinate-wise sum.
    pointf operator+(pointf p) const;
    /// Coordinate-wise difference.
    pointf operator-(pointf p) const;
    /// Both coordinates times s.
    pointf operator*(float s) const;
    /// Dot product.
    float operator*(pointf p) const;
    /// Both coordinates divided by s.
    pointf operator/(float s) const;

    /// sqrt((y - p.y)^2 + (x - p.x)^2).
    float Distancef(pointf p);
    /// Signed differences x - p.x and y - p.y.
    float XDistance(pointf p);
    /// See XDistance.
    float YDistance(pointf p);
};

/// The library's plane vector, with the geometric operations (most of them static).
class QUELWORKS_API Vector2f {
public:
    float x;  ///< horizontal coordinate
    float y;  ///< vertical coordinate (up)

    /// The zero vector.
    Vector2f() : x(0.0f), y(0.0f) {}
    /// The vector (vx, vy).
    Vector2f(float vx, float vy) : x(vx), y(vy) {}
    /// A copy of v.
    Vector2f(const Vector2f& v) : x(v.x), y(v.y) {}
    /// The vector to p.
    Vector2f(pointf p) : x(p.x), y(p.y) {}
    /// Each coordinate converted to the nearest float.
    Vector2f(POINT p);
    /// Nothing to release.
    ~Vector2f() {}
    /// Copies v.
    Vector2f& operator=(const Vector2f& v) {
        x = v.x;
        y = v.y;
        return *this;
    }

    /// Exact float comparison (NaN never compares equal).
    bool operator==(Vector2f v) const;
    /// Coordinate-wise sum.
    Vector2f operator+(Vector2f v) const;
    /// s added to both coordinates.
    Vector2f operator+(float s) const;
    /// Coordinate-wise difference.
    Vector2f operator-(Vector2f v);
    /// s subtracted from both coordinates.
    Vector2f operator-(float s);
    /// Dot product.
    float operator*(Vector2f v) const;
    /// Both coordinates times s.
    Vector2f operator*(float s);
    /// Both coordinates divided by s.
    Vector2f operator/(float s);

    /// (-x, -y) as a new vector; this one is unchanged.
    Vector2f Negate();
    /// sqrt(x * x + y * y).
    float Length();
    /// In place; a vector of length exactly 0 is left as it is.
    void Normalize();
    /// "{x ; y}" with each coordinate as convertFloat writes it.
    std::string ToString();

    /// A normalised copy of v; (0, 0) stays (0, 0).
    static Vector2f Normalize(Vector2f v);
    /// (a . b) / |b|.
    static float ScalarProjection(Vector2f a, Vector2f b);
    /// b * ((a . b) / (|b| |b|)).
    static Vector2f VectorProjection(Vector2f a, Vector2f b);
    /// v turned 90 degrees counter-clockwise: (-v.y, v.x).
    static Vector2f GetLeftPerp(Vector2f v);
    /// v turned 90 degrees clockwise: (v.y, -v.x).
    static Vector2f GetRightPerp(Vector2f v);
    /// The perpendiculars normalised; a zero vector stays (0, 0).
    static Vector2f GetLeftNormal(Vector2f v);
    /// GetRightPerp normalised; a zero vector stays (0, 0).
    static Vector2f GetRightNormal(Vector2f v);
    /// p turned about centre by angle degrees (counter-clockwise for positive angles).
    static Vector2f Rotate(float angle, Vector2f centre, Vector2f p);
    /// The cross product (b - a) x (c - a) truncated toward zero: positive when c lies left of the
    /// directed line a->b, negative when right, 0 on it (or within |v| < 1). A value outside the
    /// int range gives INT_MIN.
    static int Location(Vector2f a, Vector2f b, Vector2f c);
    /// True when p lies within 5 units of segment a-b, measured perpendicular to it, with its foot
    /// on the segment.
    static bool IsPointNearbyLine(Vector2f p, Vector2f a, Vector2f b);
    /// True when |a - b| <= radius.
    static bool IsPointNearbyPoint(Vector2f a, Vector2f b, int radius);
    /// The distance |a - b|.
    static float GetDistanceF(Vector2f a, Vector2f b);
    /// Signed a.x - b.x and a.y - b.y.
    static float GetXDistanceF(Vector2f a, Vector2f b);
    /// See GetXDistanceF.
    static float GetYDistanceF(Vector2f a, Vector2f b);
    /// Signed angle from a to b in degrees, in (-180, 180]. Collinear vectors give 0 (same
    /// direction) or 180 (opposite); a zero vector against a non-zero one gives 180, two zero
    /// vectors 0.
    static float Angle(Vector2f a, Vector2f b);
    /// cos(q) * 360 / 2pi for the cosine ratio q of a and b. Applying the cosine (not the arc
    /// cosine) is long-standing behaviour that callers rely on; a zero vector gives NaN.
    static float AngleEX(Vector2f a, Vector2f b);
    /// b mirrored across the vertical line through a: (a.x - (b.x - a.x), b.y).
    static Vector2f FlipH(Vector2f a, Vector2f b);
    /// b mirrored across the horizontal line through a: (b.x, a.y - (b.y - a.y)).
    static Vector2f FlipV(Vector2f a, Vector2f b);
};

#endif  // QUELWORKS_GEOMETRY_VECTOR2F_H
