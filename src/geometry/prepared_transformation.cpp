#include "quelworks/geometry/prepared_transformation.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "affine_fit.h"

static_assert(FLT_EVAL_METHOD == 0, "float arithmetic must not be evaluated in extended precision");

using quelworks::detail::Affine;
using quelworks::detail::applyAffine;
using quelworks::detail::cameraDistance;

namespace {

// Every float distance is within this factor of the exact distance, and never below it by more
// than the absolute slack (see nearestIndexed). The true error is far smaller: each of the five
// float operations is correctly rounded (relative error 2^-24 each, about 2e-7 in all).
constexpr double kRelativeSlack = 1e-5;
constexpr double kAbsoluteSlack = 1e-20;

// Within this extent no float distance between positions inside the calibrated area overflows.
constexpr double kCandidateExtent = 1e18;

// Arrays of at least this many points are mapped on several threads.
constexpr std::size_t kParallelPoints = 65536;

}  // namespace

struct PreparedTransformation::Data {
    std::int32_t n = 0;
    int k = 0;
    bool usable = false;
    std::vector<Vector2f> camera;
    // n == 3: the one map. Grid: four maps per point m, at 4 m + (p.x > x of m) + 2 (p.y > y of m),
    // one for each side of m that p can be on.
    std::vector<Affine> maps;

    // Bucket index of the camera positions: gx x gy cells of size cell, from (x0, y0); the point
    // positions of cell c, ascending, are index[start[c] .. start[c + 1]). Built only when every
    // camera coordinate is finite.
    bool indexed = false;
    double x0 = 0, y0 = 0, cell = 1, margin = 0;
    int gx = 1, gy = 1;
    std::vector<std::int32_t> start;
    std::vector<std::int32_t> index;
    // For each cell, the points that can be nearest to some position inside it, at
    // candidates[candidateStart[c] .. candidateStart[c + 1]). Built when the camera positions
    // span less than kCandidateExtent.
    std::vector<std::int32_t> candidateStart;
    std::vector<std::int32_t> candidates;

    void prepare(const CalibrationPoint* points, std::int32_t count);
    void buildIndex();
    int cellColumn(double x) const;
    int cellRow(double y) const;
    int nearest(Vector2f p) const;
    int nearestIndexed(Vector2f p) const;
    void buildCandidates();
    int nearestCandidate(Vector2f p, bool& inside) const;
    int nearestBySort(Vector2f p, int first, int count) const;
    Vector2f transform(Vector2f p) const;
};

void PreparedTransformation::Data::prepare(const CalibrationPoint* points, std::int32_t count) {
    n = count;
    usable = quelworks::detail::isUsableSize(n);
    if (!usable) return;
    if (n == 3) {
        maps.push_back(quelworks::detail::solveAffine(points[0], points[1], points[2]));
        return;
    }
    k = quelworks::detail::gridSide(n);
    camera.reserve(static_cast<std::size_t>(n));
    for (std::int32_t i = 0; i < n; ++i) camera.push_back(points[i].camera);
    maps.resize(4 * static_cast<std::size_t>(n));
    for (int m = 0; m < n; ++m) {
        for (int side = 0; side < 4; ++side) {
            int h = 0, v = 0;
            quelworks::detail::neighbours(m, (side & 1) != 0, (side & 2) != 0, n, k, h, v);
            maps[4 * static_cast<std::size_t>(m) + side] =
                quelworks::detail::solveAffine(points[m], points[h], points[v]);
        }
    }
    buildIndex();
}

void PreparedTransformation::Data::buildIndex() {
    for (const Vector2f& c : camera) {
        if (!std::isfinite(c.x) || !std::isfinite(c.y)) return;
    }
    double x1 = x0 = camera[0].x, y1 = y0 = camera[0].y;
    for (const Vector2f& c : camera) {
        x0 = std::min<double>(x0, c.x);
        x1 = std::max<double>(x1, c.x);
        y0 = std::min<double>(y0, c.y);
        y1 = std::max<double>(y1, c.y);
    }
    // Square cells, about one calibration point per cell for a grid.
    const int side = static_cast<int>(std::ceil(std::sqrt(static_cast<double>(n))));
    const double extent = std::max(x1 - x0, y1 - y0);
    cell = extent > 0 ? extent / side : 1.0;
    gx = std::min(side, static_cast<int>((x1 - x0) / cell) + 1);
    gy = std::min(side, static_cast<int>((y1 - y0) / cell) + 1);
    // Rounding of the cell arithmetic in double, generously: a point filed beyond a cell boundary
    // lies at most this far before it.
    margin = 1e-9 * (std::fabs(x0) + std::fabs(y0) + std::fabs(x1) + std::fabs(y1) + cell);

    std::vector<int> cellOf(static_cast<std::size_t>(n));
    start.assign(static_cast<std::size_t>(gx) * gy + 1, 0);
    for (int i = 0; i < n; ++i) {
        cellOf[i] = cellRow(camera[i].y) * gx + cellColumn(camera[i].x);
        ++start[cellOf[i] + 1];
    }
    for (std::size_t c = 1; c < start.size(); ++c) start[c] += start[c - 1];
    index.resize(static_cast<std::size_t>(n));
    std::vector<std::int32_t> fill(start.begin(), start.end() - 1);
    for (int i = 0; i < n; ++i) index[fill[cellOf[i]]++] = i;
    indexed = true;
    if (x1 - x0 < kCandidateExtent && y1 - y0 < kCandidateExtent) buildCandidates();
}

int PreparedTransformation::Data::cellColumn(double x) const {
    const double t = std::floor((x - x0) / cell);
    return t <= 0 ? 0 : t >= gx - 1 ? gx - 1 : static_cast<int>(t);
}

int PreparedTransformation::Data::cellRow(double y) const {
    const double t = std::floor((y - y0) / cell);
    return t <= 0 ? 0 : t >= gy - 1 ? gy - 1 : static_cast<int>(t);
}

// The nearest calibration point as the ranking by merge sort picks it. The sort's first element is
// decided like a knock-out: each merge takes the head of the left half unless its distance is
// not <= the head of the right half. Without NaN distances that is the smallest distance, the
// earliest position on a tie; a NaN distance on the left always loses and on the right always
// wins, so then the result depends on the halving itself.
int PreparedTransformation::Data::nearest(Vector2f p) const {
    // Finite p and finite camera positions never give a NaN distance (an overflow gives +inf).
    if (indexed && std::isfinite(p.x) && std::isfinite(p.y)) {
        bool inside = false;
        const int m = nearestCandidate(p, inside);
        return inside ? m : nearestIndexed(p);
    }
    return nearestBySort(p, 0, n);
}

// Head of the merge sort of positions first .. first + count - 1: the first part has
// count - count / 2 positions, as in the list's sort.
int PreparedTransformation::Data::nearestBySort(Vector2f p, int first, int count) const {
    if (count < 2) return first;
    const int leftCount = count - count / 2;
    const int left = nearestBySort(p, first, leftCount);
    const int right = nearestBySort(p, first + leftCount, count / 2);
    const float dl = cameraDistance(camera[left], p);
    const float dr = cameraDistance(camera[right], p);
    return (dl < dr || dl == dr) ? left : right;
}

// The smallest float distance, earliest position on a tie, for a finite p and finite cameras.
//
// Why the index gives exactly the point the full ranking gives: the cells are searched in square
// rings around p's cell, keeping the best (distance, position) by the very float distance and tie
// rule of the ranking. After ring r, every point not yet seen lies outside the searched block of
// cells, so its exact distance r_j from p is at least R, the distance from p to the nearest open
// side of the block (less `margin` for the rounding of the cell arithmetic). Its float distance
// d_j is the exact one through five correctly rounded operations, so
// d_j >= r_j (1 - kRelativeSlack) - kAbsoluteSlack; the absolute slack covers squares that
// underflow, and an overflow only makes d_j larger (+inf). Once
// R (1 - kRelativeSlack) - kAbsoluteSlack > best, every unseen point has d_j > best strictly:
// it can neither beat the best nor tie with it, so the earliest point at the smallest float
// distance is among those seen. Otherwise the search goes on, at worst over every cell, which is
// a full scan. An infinite best distance never satisfies the test, so overflowing inputs end in
// the full scan too.
int PreparedTransformation::Data::nearestIndexed(Vector2f p) const {
    const double px = p.x, py = p.y;
    const int cx = cellColumn(px), cy = cellRow(py);
    float best = std::numeric_limits<float>::infinity();
    int bestIndex = INT_MAX;
    auto visit = [&](int column, int row) {
        const std::size_t c = static_cast<std::size_t>(row) * gx + column;
        for (std::int32_t s = start[c]; s < start[c + 1]; ++s) {
            const int i = index[s];
            const float d = cameraDistance(camera[i], p);
            if (d < best || (d == best && i < bestIndex)) {
                best = d;
                bestIndex = i;
            }
        }
    };
    for (int r = 0;; ++r) {
        const int left = cx - r, right = cx + r, top = cy - r, bottom = cy + r;
        for (int column = std::max(left, 0); column <= std::min(right, gx - 1); ++column) {
            if (top >= 0) visit(column, top);
            if (r > 0 && bottom < gy) visit(column, bottom);
        }
        for (int row = std::max(top + 1, 0); row <= std::min(bottom - 1, gy - 1); ++row) {
            if (left >= 0) visit(left, row);
            if (r > 0 && right < gx) visit(right, row);
        }
        const bool openLeft = left > 0, openRight = right < gx - 1;
        const bool openTop = top > 0, openBottom = bottom < gy - 1;
        if (!openLeft && !openRight && !openTop && !openBottom) break;
        double reach = std::numeric_limits<double>::infinity();
        if (openLeft) reach = std::min(reach, px - (x0 + left * cell));
        if (openRight) reach = std::min(reach, (x0 + (right + 1) * cell) - px);
        if (openTop) reach = std::min(reach, py - (y0 + top * cell));
        if (openBottom) reach = std::min(reach, (y0 + (bottom + 1) * cell) - py);
        reach -= margin;
        if (reach * (1 - kRelativeSlack) - kAbsoluteSlack > best) break;
    }
    return bestIndex;
}

// Candidate lists per cell, so that a position inside the calibrated area is compared with only
// the few points that can be nearest to it.
//
// Why this gives exactly the ranking's point: let R be the cell grown by `margin` (so it holds
// every position filed into the cell despite rounding). For p in R and any point i, the exact
// distance is at most dmax(i), the distance from i to the farthest corner of R; so the smallest
// float distance is at most U (1 + kRelativeSlack) + kAbsoluteSlack with U the smallest dmax (no
// float distance overflows within kCandidateExtent). A point j no nearer to R than dmin(j) has
// float distance at least dmin(j) (1 - kRelativeSlack) - kAbsoluteSlack (see nearestIndexed). A
// point for which that exceeds the bound above is farther than the nearest for every p in R and
// can neither win nor tie; every other point is a candidate. The earliest point at the smallest
// float distance among the candidates is then the earliest among all points.
void PreparedTransformation::Data::buildCandidates() {
    candidateStart.assign(1, 0);
    auto ringCells = [this](int cx, int cy, int r, auto&& visit) {
        for (int column = std::max(cx - r, 0); column <= std::min(cx + r, gx - 1); ++column) {
            if (cy - r >= 0) visit(column, cy - r);
            if (r > 0 && cy + r < gy) visit(column, cy + r);
        }
        for (int row = std::max(cy - r + 1, 0); row <= std::min(cy + r - 1, gy - 1); ++row) {
            if (cx - r >= 0) visit(cx - r, row);
            if (r > 0 && cx + r < gx) visit(cx + r, row);
        }
    };
    const int rings = std::max(gx, gy);
    for (int cy = 0; cy < gy; ++cy) {
        for (int cx = 0; cx < gx; ++cx) {
            const double rx0 = x0 + cx * cell - margin, rx1 = x0 + (cx + 1) * cell + margin;
            const double ry0 = y0 + cy * cell - margin, ry1 = y0 + (cy + 1) * cell + margin;
            // U from the points of the first rings that hold any (one ring more, for a good U).
            double u = std::numeric_limits<double>::infinity();
            int firstFound = -1;
            for (int r = 0; r < rings && (firstFound < 0 || r <= firstFound + 1); ++r) {
                ringCells(cx, cy, r, [&](int column, int row) {
                    const std::size_t c = static_cast<std::size_t>(row) * gx + column;
                    for (std::int32_t s = start[c]; s < start[c + 1]; ++s) {
                        const Vector2f q = camera[static_cast<std::size_t>(index[s])];
                        const double dx = std::max(std::fabs(q.x - rx0), std::fabs(q.x - rx1));
                        const double dy = std::max(std::fabs(q.y - ry0), std::fabs(q.y - ry1));
                        u = std::min(u, std::sqrt(dx * dx + dy * dy));
                        if (firstFound < 0) firstFound = r;
                    }
                });
            }
            const double bound =
                (u * (1 + kRelativeSlack) + 2 * kAbsoluteSlack) / (1 - kRelativeSlack);
            // Points beyond ring r lie at least r cells (less the margins) from R.
            for (int r = 0; r < rings; ++r) {
                ringCells(cx, cy, r, [&](int column, int row) {
                    const std::size_t c = static_cast<std::size_t>(row) * gx + column;
                    for (std::int32_t s = start[c]; s < start[c + 1]; ++s) {
                        const Vector2f q = camera[static_cast<std::size_t>(index[s])];
                        const double dx = std::max({rx0 - q.x, 0.0, q.x - rx1});
                        const double dy = std::max({ry0 - q.y, 0.0, q.y - ry1});
                        if (std::sqrt(dx * dx + dy * dy) <= bound) candidates.push_back(index[s]);
                    }
                });
                if (r * cell - 2 * margin > bound) break;
            }
            candidateStart.push_back(static_cast<std::int32_t>(candidates.size()));
        }
    }
}

// The nearest point from the candidate list of p's cell; inside is false (and nothing is
// searched) when p lies outside the calibrated area or no lists were built.
int PreparedTransformation::Data::nearestCandidate(Vector2f p, bool& inside) const {
    inside = false;
    if (candidateStart.empty()) return 0;
    const double tx = std::floor((p.x - x0) / cell), ty = std::floor((p.y - y0) / cell);
    if (!(tx >= 0 && tx < gx && ty >= 0 && ty < gy)) return 0;
    inside = true;
    const std::size_t c = static_cast<std::size_t>(ty) * gx + static_cast<std::size_t>(tx);
    float best = std::numeric_limits<float>::infinity();
    int bestIndex = INT_MAX;
    for (std::int32_t s = candidateStart[c]; s < candidateStart[c + 1]; ++s) {
        const int i = candidates[s];
        const float d = cameraDistance(camera[static_cast<std::size_t>(i)], p);
        if (d < best || (d == best && i < bestIndex)) {
            best = d;
            bestIndex = i;
        }
    }
    return bestIndex;
}

Vector2f PreparedTransformation::Data::transform(Vector2f p) const {
    if (!usable) return Vector2f(0.0f, 0.0f);
    if (n == 3) return applyAffine(maps[0], p);
    const int m = nearest(p);
    const Vector2f c = camera[static_cast<std::size_t>(m)];
    const int side = (p.x > c.x ? 1 : 0) + (p.y > c.y ? 2 : 0);
    return applyAffine(maps[4 * static_cast<std::size_t>(m) + side], p);
}

PreparedTransformation::PreparedTransformation(const RList<CalibrationPoint>& points) {
    std::vector<CalibrationPoint> copy;
    copy.reserve(static_cast<std::size_t>(std::max(points.length(), 0)));
    for (const Node<CalibrationPoint>* node = points.pFront; node != nullptr; node = node->pNext) {
        copy.push_back(node->data);
    }
    auto data = std::make_shared<Data>();
    data->prepare(copy.data(), static_cast<std::int32_t>(copy.size()));
    data_ = std::move(data);
}

PreparedTransformation::PreparedTransformation(const CalibrationPoint* points, std::size_t count) {
    if (count > static_cast<std::size_t>(INT32_MAX)) {
        throw std::length_error("PreparedTransformation: more than 2^31 - 1 calibration points");
    }
    auto data = std::make_shared<Data>();
    data->prepare(points, static_cast<std::int32_t>(count));
    data_ = std::move(data);
}

bool PreparedTransformation::IsUsable() const {
    return data_->usable;
}

std::size_t PreparedTransformation::Size() const {
    return static_cast<std::size_t>(data_->n);
}

Vector2f PreparedTransformation::Transform(Vector2f p) const {
    return data_->transform(p);
}

void PreparedTransformation::Transform(const Vector2f* in, Vector2f* out, std::size_t count) const {
    const Data& data = *data_;
    auto run = [&data, in, out](std::size_t first, std::size_t last) {
        for (std::size_t i = first; i < last; ++i) out[i] = data.transform(in[i]);
    };
    // Large arrays are shared out to up to four threads in contiguous parts: the prepared data is
    // only read, and each point is written by one thread, so the result does not depend on the
    // split. If a thread cannot be started, the calling thread maps that part itself.
    const unsigned cores = std::max(1u, std::min(4u, std::thread::hardware_concurrency()));
    if (count < kParallelPoints || cores == 1) {
        run(0, count);
        return;
    }
    const std::size_t part = (count + cores - 1) / cores;
    std::vector<std::thread> workers;
    std::size_t first = part;
    for (; first < count; first += part) {
        const std::size_t last = std::min(count, first + part);
        try {
            workers.emplace_back(run, first, last);
        } catch (const std::system_error&) {
            break;
        }
    }
    run(0, part);
    for (; first < count; first += part) run(first, std::min(count, first + part));
    for (std::thread& worker : workers) worker.join();
}
