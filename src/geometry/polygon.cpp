// Point containment and bounding boxes.
#include "quelworks/geometry/polygon.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include "geometry/float_to_int.h"
#include "geometry/polygon_edge.h"

using quelworks::detail::truncatesNegative;
using quelworks::detail::truncatesNonNegative;
using quelworks::detail::truncatesPositive;

using quelworks::detail::truncateToInt;

// QUELWORKS_FORCE_SCALAR (the CMake option of that name) builds the plain loops instead, so that
// they are compiled and tested too.
#if (defined(__SSE2__) || defined(_M_X64)) && !defined(QUELWORKS_FORCE_SCALAR)
#include <emmintrin.h>
#include <xmmintrin.h>
#define QW_POLYGON_SSE2 1
#endif

namespace {

// Marks, for up to 64 vertices from `p`, which lie above and which below row q.y. Bit j stands for
// vertex j. A vertex in neither (on the row, or with a NaN y) may be a hit of q.
struct VertexBits {
    std::uint64_t above = 0, below = 0;
};

// Vertices 0 .. count (inclusive, count <= 63) of p.
inline VertexBits markVertices(const pointf* p, std::size_t count, pointf q) {
    VertexBits b;
    std::size_t j = 0;
#if defined(QW_POLYGON_SSE2)
    const __m128 qy = _mm_set1_ps(q.y);
    for (; j + 3 <= count; j += 4) {
        const __m128 lo = _mm_loadu_ps(&p[j].x);      // x0 y0 x1 y1
        const __m128 hi = _mm_loadu_ps(&p[j + 2].x);  // x2 y2 x3 y3
        const __m128 ys = _mm_shuffle_ps(lo, hi, _MM_SHUFFLE(3, 1, 3, 1));
        b.above |= static_cast<std::uint64_t>(_mm_movemask_ps(_mm_cmpgt_ps(ys, qy))) << j;
        b.below |= static_cast<std::uint64_t>(_mm_movemask_ps(_mm_cmplt_ps(ys, qy))) << j;
    }
#endif
    for (; j <= count; ++j) {
        b.above |= static_cast<std::uint64_t>(p[j].y > q.y) << j;
        b.below |= static_cast<std::uint64_t>(p[j].y < q.y) << j;
    }
    return b;
}

inline unsigned lowestBit(std::uint64_t v) {
#if defined(__GNUC__)
    return static_cast<unsigned>(__builtin_ctzll(v));
#else
    unsigned n = 0;
    while ((v & 1u) == 0) {
        v >>= 1;
        ++n;
    }
    return n;
#endif
}

// The parity of a 4-bit mask.
inline unsigned parity4(unsigned v) {
    return (0x6996u >> (v & 15u)) & 1u;
}

}  // namespace

bool IsPointInPolygon(pointf q, std::vector<pointf> polygon) {
    const std::size_t n = polygon.size();
    if (n == 0) throw std::out_of_range("IsPointInPolygon: the polygon has no vertices");
    const pointf* p = polygon.data();
    const std::size_t edges = n - 1;
    unsigned right = 0;
    unsigned left = 0;
    // Edges are looked at 64 at a time: first, branch-free, which of them cross q's row (their
    // ends lie on different sides of it) or start on it; then only those.
    for (std::size_t base = 0; base < edges; base += 64) {
        const std::size_t count = std::min<std::size_t>(64, edges - base);
        // Edge j runs from vertex j to j + 1, so vertices 0 .. count are needed.
        VertexBits bits = markVertices(p + base, std::min<std::size_t>(count, 63), q);
        std::uint64_t aboveNext = bits.above >> 1;
        std::uint64_t belowNext = bits.below >> 1;
        if (count == 64) {
            const float y = p[base + 64].y;
            aboveNext |= static_cast<std::uint64_t>(y > q.y) << 63;
            belowNext |= static_cast<std::uint64_t>(y < q.y) << 63;
        }
        const std::uint64_t valid =
            count == 64 ? ~std::uint64_t(0) : (std::uint64_t(1) << count) - 1;
        for (std::uint64_t row = ~(bits.above | bits.below) & valid; row != 0; row &= row - 1) {
            const pointf v = p[base + lowestBit(row)];
            if (v.x == q.x && v.y == q.y) return true;
        }
        const std::uint64_t crossesAbove = (bits.above ^ aboveNext) & valid;
        const std::uint64_t crossesBelow = (bits.below ^ belowNext) & valid;
        std::uint64_t crossing = crossesAbove | crossesBelow;
#if defined(QW_POLYGON_SSE2)
        // Four crossing edges at a time: each edge's ends (a.x a.y b.x b.y) are one load.
        unsigned idx[64];
        unsigned k = 0;
        while (crossing != 0) {
            idx[k++] = lowestBit(crossing);
            crossing &= crossing - 1;
        }
        const __m128 qx = _mm_set1_ps(q.x);
        const __m128 qy = _mm_set1_ps(q.y);
        const __m128 one = _mm_set1_ps(1.0f);
        const __m128 minusOne = _mm_set1_ps(-1.0f);
        const __m128 intLimit = _mm_set1_ps(2147483648.0f);
        for (unsigned g = 0; g < k; g += 4) {
            unsigned j[4];
            unsigned above = 0;
            unsigned below = 0;
            for (unsigned t = 0; t < 4; ++t) {
                const bool real = g + t < k;
                j[t] = idx[real ? g + t : g];
                above |= (real ? static_cast<unsigned>(crossesAbove >> j[t]) & 1u : 0u) << t;
                below |= (real ? static_cast<unsigned>(crossesBelow >> j[t]) & 1u : 0u) << t;
            }
            __m128 ax = _mm_loadu_ps(&p[base + j[0]].x);
            __m128 ay = _mm_loadu_ps(&p[base + j[1]].x);
            __m128 bx = _mm_loadu_ps(&p[base + j[2]].x);
            __m128 by = _mm_loadu_ps(&p[base + j[3]].x);
            _MM_TRANSPOSE4_PS(ax, ay, bx, by);
            const __m128 num = _mm_sub_ps(_mm_mul_ps(_mm_sub_ps(ax, qx), _mm_sub_ps(by, qy)),
                                          _mm_mul_ps(_mm_sub_ps(ay, qy), _mm_sub_ps(bx, qx)));
            const __m128 den = _mm_sub_ps(_mm_sub_ps(by, qy), _mm_sub_ps(ay, by));
            const __m128 numInRange = _mm_cmplt_ps(num, intLimit);
            const __m128 denInRange = _mm_cmplt_ps(den, intLimit);
            const unsigned numPositive = static_cast<unsigned>(
                _mm_movemask_ps(_mm_and_ps(_mm_cmpge_ps(num, one), numInRange)));
            const unsigned numNegative = ~static_cast<unsigned>(_mm_movemask_ps(
                                             _mm_and_ps(_mm_cmpgt_ps(num, minusOne), numInRange))) &
                                         15u;
            const unsigned denNonNegative = static_cast<unsigned>(
                _mm_movemask_ps(_mm_and_ps(_mm_cmpgt_ps(den, minusOne), denInRange)));
            const unsigned denNonPositive = ~static_cast<unsigned>(_mm_movemask_ps(
                                                _mm_and_ps(_mm_cmpge_ps(den, one), denInRange))) &
                                            15u;
            right ^= parity4(~(numPositive ^ denNonNegative) & above);
            left ^= parity4(~(numNegative ^ denNonPositive) & below);
        }
#else
        while (crossing != 0) {
            const unsigned j = lowestBit(crossing);
            crossing &= crossing - 1;
            const pointf a = p[base + j];
            const pointf b = p[base + j + 1];
            // The counts of countCrossing, written without branches.
            const float num = (a.x - q.x) * (b.y - q.y) - (a.y - q.y) * (b.x - q.x);
            const float den = (b.y - q.y) - (a.y - b.y);
            const unsigned denNonNegative = truncatesNonNegative(den);
            const unsigned denNonPositive = !truncatesPositive(den);
            right ^= static_cast<unsigned>(crossesAbove >> j) & 1u &
                     ~(static_cast<unsigned>(truncatesPositive(num)) ^ denNonNegative);
            left ^= static_cast<unsigned>(crossesBelow >> j) & 1u &
                    ~(static_cast<unsigned>(truncatesNegative(num)) ^ denNonPositive);
        }
#endif
    }
    // Counts of different parity mean q is on the boundary; equal parities decide by themselves.
    return ((right | left) & 1u) != 0;
}

rectanglef GetBoundingBox(std::vector<Vector2f> points) {
    if (points.empty()) return rectanglef(0.0f, 0.0f, 1.0f, 1.0f);
    int minX = truncateToInt(points[0].x);
    int maxX = minX;
    int minY = truncateToInt(points[0].y);
    int maxY = minY;
    for (const Vector2f& p : points) {
        if (static_cast<float>(minX) > p.x) minX = truncateToInt(p.x);
        if (p.x > static_cast<float>(maxX)) maxX = truncateToInt(p.x);
        if (static_cast<float>(minY) > p.y) minY = truncateToInt(p.y);
        if (p.y > static_cast<float>(maxY)) maxY = truncateToInt(p.y);
    }
    // The extent is an int difference; it wraps (as two's complement) rather than overflowing.
    const int width = static_cast<int>(static_cast<unsigned>(maxX) - static_cast<unsigned>(minX));
    const int height = static_cast<int>(static_cast<unsigned>(maxY) - static_cast<unsigned>(minY));
    return rectanglef(static_cast<float>(minX), static_cast<float>(minY), static_cast<float>(width),
                      static_cast<float>(height));
}

rectanglef GetBoundingBox(std::vector<pointf> points) {
    std::vector<Vector2f> converted;
    converted.reserve(points.size());
    for (const pointf& p : points) converted.push_back(Vector2f(p));
    return GetBoundingBox(std::move(converted));
}
