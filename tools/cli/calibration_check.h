// Checks of a calibration list for `quelworks calibrate check`: the usable size, the row-by-row
// order the transformation assumes, folded, flipped or degenerate grid cells, triangles of
// collinear camera points, and points that disagree with their neighbours. Header-only so that the
// fuzzer runs it on whatever the calibration reader accepts.
#ifndef QUELWORKS_TOOLS_CLI_CALIBRATION_CHECK_H
#define QUELWORKS_TOOLS_CLI_CALIBRATION_CHECK_H

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <queue>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "quelworks/geometry/shapes.h"

namespace quelworks::cli {

// One finding. `points` are list positions (from 0); `cell` is row * (k - 1) + column of a grid
// cell, or -1.
struct CalibrationProblem {
    std::string kind;  // "size", "order", "cell", "triangle", "point"
    std::string message;
    std::vector<int> points;
    int cell = -1;
    double error = 0;  // for "point": how far off the point is, in device units
};

// The state of a grid cell in camera or device space.
enum class CellShape { Ok, Degenerate, Flipped, Folded };

struct CalibrationReport {
    int n = 0;
    int k = 0;  // grid side; 0 for three points or an unusable size
    bool usable = false;
    bool ordered = true;        // the list is in row-by-row order
    double tolerance = 0;       // device units a point may be off its neighbours' local fit
    double spacing = 0;         // median device distance between neighbours in a row
    std::vector<double> scale;  // per cell: device size / camera size (linear), 0 when degenerate
    double medianScale = 0;
    std::vector<CellShape> cameraShape, deviceShape;
    std::vector<double> residual;  // per point: distance from the local fit (device units), -1 none
    std::vector<CalibrationProblem> problems;
};

namespace calibration_detail {

struct V2 {
    double x, y;
};
inline V2 sub(V2 a, V2 b) {
    return {a.x - b.x, a.y - b.y};
}
inline double cross(V2 a, V2 b) {
    return a.x * b.y - a.y * b.x;
}
inline double length(V2 a) {
    return std::hypot(a.x, a.y);
}

inline std::string number(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.4g", v);
    return text;
}

inline double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}

// Shape of the quad a, b, c, d (in that order around it) given the usual orientation (+1 or -1)
// and the typical area.
inline CellShape quadShape(const V2 (&q)[4], int orientation, double typicalArea, double& area) {
    area = 0;
    int positive = 0, negative = 0;
    for (int i = 0; i < 4; ++i) {
        area += cross(q[i], q[(i + 1) % 4]) / 2;
        const double turn = cross(sub(q[(i + 1) % 4], q[i]), sub(q[(i + 2) % 4], q[(i + 1) % 4]));
        positive += turn > 0;
        negative += turn < 0;
    }
    if (positive > 0 && negative > 0) return CellShape::Folded;
    if (!(std::fabs(area) > 0.02 * typicalArea)) return CellShape::Degenerate;
    if ((area > 0 ? 1 : -1) != orientation) return CellShape::Flipped;
    return CellShape::Ok;
}

// Least-squares affine fit of device on camera over the given points, evaluated at `at`.
// Returns false when the points do not span the plane.
inline bool fitAt(const std::vector<CalibrationPoint>& pts, const std::vector<int>& use, V2 at,
                  V2& out) {
    if (use.size() < 3) return false;
    // Centred at `at` for conditioning: the prediction is then the constant term.
    double sxx = 0, sxy = 0, syy = 0, sx = 0, sy = 0, s1 = 0;
    double bx[3] = {0, 0, 0}, by[3] = {0, 0, 0};
    double scale = 0;
    for (int i : use)
        scale =
            std::max({scale, std::fabs(pts[i].camera.x - at.x), std::fabs(pts[i].camera.y - at.y)});
    if (!(scale > 0) || !std::isfinite(scale)) return false;
    for (int i : use) {
        const double x = (pts[i].camera.x - at.x) / scale, y = (pts[i].camera.y - at.y) / scale;
        sxx += x * x, sxy += x * y, syy += y * y, sx += x, sy += y, s1 += 1;
        const double dx = pts[i].device.x, dy = pts[i].device.y;
        bx[0] += x * dx, bx[1] += y * dx, bx[2] += dx;
        by[0] += x * dy, by[1] += y * dy, by[2] += dy;
    }
    // Solve [sxx sxy sx; sxy syy sy; sx sy s1] c = b for the constant term by Cramer's rule.
    const double det =
        sxx * (syy * s1 - sy * sy) - sxy * (sxy * s1 - sy * sx) + sx * (sxy * sy - syy * sx);
    if (!(std::fabs(det) > 1e-9 * s1 * s1 * s1)) return false;
    auto constant = [&](const double(&b)[3]) {
        return (sxx * (syy * b[2] - sy * b[1]) - sxy * (sxy * b[2] - sy * b[0]) +
                sx * (sxy * b[1] - syy * b[0])) /
               det;
    };
    out = {constant(bx), constant(by)};
    return std::isfinite(out.x) && std::isfinite(out.y);
}

// Problems in the order a user fixes them: size, order, cells, triangles, points.
inline CalibrationReport& sortProblems(CalibrationReport& r) {
    auto rank = [](const CalibrationProblem& p) {
        const char* kinds[] = {"size", "order", "cell", "triangle", "point"};
        for (int i = 0; i < 5; ++i) {
            if (p.kind == kinds[i]) return i;
        }
        return 5;
    };
    std::stable_sort(r.problems.begin(), r.problems.end(),
                     [&](const CalibrationProblem& a, const CalibrationProblem& b) {
                         return rank(a) < rank(b);
                     });
    return r;
}

}  // namespace calibration_detail

// Checks the calibration. tolerance <= 0 picks the default: a tenth of the median device
// distance between neighbours in a row. `lines` (optional) gives each point's line in the file
// for the messages.
inline CalibrationReport checkCalibration(const std::vector<CalibrationPoint>& pts,
                                          const std::vector<std::size_t>& lines, double tolerance) {
    using namespace calibration_detail;
    CalibrationReport r;
    r.n = static_cast<int>(pts.size());
    const int n = r.n;
    auto name = [&](int i) {
        std::string s = "point " + std::to_string(i);
        const bool line = static_cast<std::size_t>(i) < lines.size();
        if (line) s += " (line " + std::to_string(lines[i]);
        if (r.k > 0) {
            s += std::string(line ? ", " : " (") + "row " + std::to_string(i / r.k + 1) +
                 ", column " + std::to_string(i % r.k + 1);
        }
        return line || r.k > 0 ? s + ")" : s;
    };
    auto add = [&](std::string kind, std::string message, std::vector<int> points, int cell = -1,
                   double error = 0) {
        r.problems.push_back(CalibrationProblem{std::move(kind), std::move(message),
                                                std::move(points), cell, error});
    };
    // The same usable-size rule as the transformation: 3, or a perfect square tested in float.
    const float root = std::sqrt(static_cast<float>(n));
    r.usable = n == 3 || (n > 3 && static_cast<float>(static_cast<int>(root)) == root);
    if (!r.usable) {
        add("size",
            std::to_string(n) +
                " points: the transformation needs exactly 3 points or a k x k grid "
                "(4, 9, 16, ...); every point would map to (0, 0)",
            {});
        return r;
    }
    auto cam = [&](int i) { return V2{pts[i].camera.x, pts[i].camera.y}; };
    auto dev = [&](int i) { return V2{pts[i].device.x, pts[i].device.y}; };

    // Triangles the map can use: the nearest point and its neighbours on each side, as the
    // transformation picks them (by list position, wrapping across row ends).
    std::set<std::tuple<int, int, int>> triangles;
    if (n == 3) {
        triangles.insert({0, 1, 2});
    } else {
        r.k = static_cast<int>(root);
        for (int m = 0; m < n; ++m) {
            for (int side = 0; side < 4; ++side) {
                int h = side & 1 ? m + 1 : m - 1;
                if (h < 0) h = m + 1;
                if (h >= n) h = m - 1;
                int v = side & 2 ? m + r.k : m - r.k;
                if (v < 0) v = m + r.k;
                if (v >= n) v = m - r.k;
                triangles.insert({m, h, v});
            }
        }
    }
    // Findings of one kind beyond two are reported as one problem naming a few examples.
    const char* triangleWhat[3] = {
        "all three camera points have the same x, so points mapped there become infinite or NaN",
        "the camera points are collinear, so the map there ignores camera y",
        "the camera points are nearly collinear, so the map there is unstable"};
    std::vector<std::vector<int>> found[3];
    std::set<std::tuple<int, int, int>> reported;
    for (const auto& [a, b, c] : triangles) {
        std::vector<int> sorted{a, b, c};
        std::sort(sorted.begin(), sorted.end());
        if (!reported.insert({sorted[0], sorted[1], sorted[2]}).second) continue;
        // The fit's own test: den == 0 drops camera y from the map.
        const double u1 = double(pts[a].camera.x) - pts[b].camera.x;
        const double u2 = double(pts[a].camera.x) - pts[c].camera.x;
        const double den = (double(pts[a].camera.y) - pts[c].camera.y) * u1 -
                           (double(pts[a].camera.y) - pts[b].camera.y) * u2;
        const double span = length(sub(cam(b), cam(a))) * length(sub(cam(c), cam(a)));
        if (u1 == 0 && u2 == 0) {
            found[0].push_back(sorted);
        } else if (den == 0) {
            found[1].push_back(sorted);
        } else if (std::fabs(den) < 1e-3 * span) {
            found[2].push_back(sorted);
        }
    }
    for (int what = 0; what < 3; ++what) {
        const auto& list = found[what];
        if (list.size() <= 2) {
            for (const auto& t : list) {
                add("triangle",
                    "triangle of " + name(t[0]) + ", " + name(t[1]) + " and " + name(t[2]) + ": " +
                        triangleWhat[what],
                    t);
            }
            continue;
        }
        std::set<int> involved;
        std::string examples;
        for (std::size_t i = 0; i < list.size(); ++i) {
            involved.insert(list[i].begin(), list[i].end());
            if (i < 3) {
                examples += (i ? "; " : "") + std::to_string(list[i][0]) + ", " +
                            std::to_string(list[i][1]) + ", " + std::to_string(list[i][2]);
            }
        }
        add("triangle",
            std::to_string(list.size()) + " triangles (points " + examples + "; ...), " +
                std::to_string(involved.size()) + " points in all: " + triangleWhat[what],
            std::vector<int>(involved.begin(), involved.end()));
    }
    if (n == 3) return r;
    const int k = r.k;

    // Row-by-row order: camera x grows along a row, y from row to row.
    int alongX = 0, alongY = 0;
    for (int row = 0; row < k; ++row) {
        for (int c = 0; c + 1 < k; ++c) {
            const V2 d = sub(cam(row * k + c + 1), cam(row * k + c));
            (std::fabs(d.x) >= std::fabs(d.y) ? alongX : alongY)++;
        }
    }
    if (alongY > alongX) {
        r.ordered = false;
        add("order",
            "the list seems to run column by column: camera x must grow along each run of " +
                std::to_string(k) + " points (a row) and y from one row to the next",
            {});
    } else {
        std::vector<double> rowY(k, 0);
        for (int row = 0; row < k; ++row) {
            for (int c = 0; c < k; ++c) rowY[row] += pts[row * k + c].camera.y / double(k);
        }
        bool rowsOk = true;
        for (int row = 0; row + 1 < k; ++row) {
            if (rowY[row + 1] > rowY[row]) continue;
            rowsOk = false;
            std::vector<int> involved;
            for (int c = 0; c < k; ++c)
                involved.push_back(row * k + c), involved.push_back((row + 1) * k + c);
            if (rowY[row + 1] == rowY[row]) {
                add("order",
                    "rows " + std::to_string(row + 1) + " and " + std::to_string(row + 2) +
                        " lie at the same camera y (" + number(rowY[row]) +
                        " on average): y must grow from row to row",
                    involved);
                continue;
            }
            const bool swapped = (row + 2 >= k || rowY[row] < rowY[row + 2]) &&
                                 (row == 0 || rowY[row - 1] < rowY[row + 1]);
            add("order",
                "rows " + std::to_string(row + 1) + " and " + std::to_string(row + 2) +
                    (swapped ? " look swapped" : " are out of order") + ": mean camera y " +
                    number(rowY[row]) + " then " + number(rowY[row + 1]) +
                    " (y must grow from row to row)",
                involved);
            if (swapped) ++row;
        }
        for (int row = 0; row < k; ++row) {
            for (int c = 0; c + 1 < k; ++c) {
                const int i = row * k + c;
                const float x0 = pts[i].camera.x, x1 = pts[i + 1].camera.x;
                if (x1 > x0) continue;
                r.ordered = false;
                // A swap moves two points along their row: their y still fits their column.
                auto fitsColumn = [&](int j) {
                    return (j < k || pts[j - k].camera.y < pts[j].camera.y) &&
                           (j + k >= n || pts[j].camera.y < pts[j + k].camera.y);
                };
                const bool swapped = x1 < x0 && (c == 0 || pts[i - 1].camera.x < x1) &&
                                     (c + 2 >= k || x0 < pts[i + 2].camera.x) && fitsColumn(i) &&
                                     fitsColumn(i + 1);
                add("order",
                    name(i) + " and " + name(i + 1) +
                        (swapped ? " look swapped" : " are out of order") + ": camera x " +
                        number(x0) + " then " + number(x1) + " along row " +
                        std::to_string(row + 1) + " (x must grow along a row)",
                    {i, i + 1});
                if (swapped) ++c;
            }
        }
        if (!rowsOk) r.ordered = false;
        if (rowsOk) {
            for (int i = 0; i + k < n; ++i) {
                if (pts[i + k].camera.y > pts[i].camera.y) continue;
                r.ordered = false;
                add("order",
                    name(i) + " and " + name(i + k) + ": camera y " + number(pts[i].camera.y) +
                        " then " + number(pts[i + k].camera.y) + " down column " +
                        std::to_string(i % k + 1) + " (y must grow from row to row)",
                    {i, i + k});
            }
        }
    }

    // Cells: a, b on one row, d, c on the next (so a, b, c, d go around the cell).
    const int cells = (k - 1) * (k - 1);
    auto corners = [&](int cell) {
        const int row = cell / (k - 1), c = cell % (k - 1), a = row * k + c;
        return std::vector<int>{a, a + 1, a + k + 1, a + k};
    };
    std::vector<double> camArea(cells), devArea(cells);
    for (int cell = 0; cell < cells; ++cell) {
        const std::vector<int> q = corners(cell);
        for (int i = 0; i < 4; ++i) {
            camArea[cell] += cross(cam(q[i]), cam(q[(i + 1) % 4])) / 2;
            devArea[cell] += cross(dev(q[i]), dev(q[(i + 1) % 4])) / 2;
        }
    }
    auto orientation = [](const std::vector<double>& areas) {
        int positive = 0;
        for (double a : areas) positive += a > 0;
        return 2 * positive >= static_cast<int>(areas.size()) ? 1 : -1;
    };
    auto typical = [](const std::vector<double>& areas) {
        std::vector<double> magnitudes;
        for (double a : areas) magnitudes.push_back(std::fabs(a));
        return median(magnitudes);
    };
    const int camOrientation = orientation(camArea), devOrientation = orientation(devArea);
    const double camTypical = typical(camArea), devTypical = typical(devArea);
    r.cameraShape.resize(cells);
    r.deviceShape.resize(cells);
    r.scale.assign(cells, 0);
    std::vector<double> scales;
    for (int cell = 0; cell < cells; ++cell) {
        const std::vector<int> q = corners(cell);
        V2 cq[4], dq[4];
        for (int i = 0; i < 4; ++i) cq[i] = cam(q[i]), dq[i] = dev(q[i]);
        double ca = 0, da = 0;
        r.cameraShape[cell] = quadShape(cq, camOrientation, camTypical, ca);
        r.deviceShape[cell] = quadShape(dq, devOrientation, devTypical, da);
        if (ca != 0 && std::isfinite(da / ca)) {
            r.scale[cell] = std::sqrt(std::fabs(da / ca));
            scales.push_back(r.scale[cell]);
        }
    }
    // Bad cells, runs of neighbouring cells in a row with the same fault as one problem.
    const char* shapeName[] = {"", "degenerate (no area)", "flipped (mirrored)",
                               "folded (edges crossing)"};
    auto fault = [&](int cell) {
        if (r.cameraShape[cell] != CellShape::Ok) return int(r.cameraShape[cell]);
        if (r.deviceShape[cell] != CellShape::Ok) return 4 + int(r.deviceShape[cell]);
        return 0;
    };
    for (int cell = 0; cell < cells; ++cell) {
        const int f = fault(cell);
        if (f == 0) continue;
        int last = cell;
        while ((last + 1) % (k - 1) != 0 && fault(last + 1) == f) ++last;
        const int row = cell / (k - 1) + 1, first = cell % (k - 1) + 1;
        const int a = corners(cell)[0], b = corners(last)[1];
        std::string where =
            last == cell
                ? "cell at row " + std::to_string(row) + ", column " + std::to_string(first)
                : "cells at row " + std::to_string(row) + ", columns " + std::to_string(first) +
                      " to " + std::to_string(last % (k - 1) + 1);
        where += " (points " + std::to_string(a) + " to " + std::to_string(b + k) + ")";
        add("cell",
            where + (last == cell ? " is " : " are ") + shapeName[f % 4] +
                (f < 4 ? " in camera space" : " in device space"),
            {a, b, b + k, a + k}, cell);
        cell = last;
    }
    r.medianScale = median(scales);

    // Points against their neighbours: a least-squares affine fit through the (up to eight)
    // grid neighbours predicts each point's device position; the worst point beyond the tolerance
    // is named and left out of the other fits, and so on, so that one bad point does not make
    // its neighbours look bad too.
    std::vector<double> spacings;
    for (int i = 0; i < n; ++i) {
        if (i % k + 1 < k) spacings.push_back(length(sub(dev(i + 1), dev(i))));
    }
    r.spacing = median(spacings);
    r.tolerance = tolerance > 0 ? tolerance : r.spacing / 10;
    r.residual.assign(n, -1);
    if (!r.ordered) return sortProblems(r);
    std::vector<bool> excluded(n, false);
    auto residualOf = [&](int i) {
        std::vector<int> use;
        for (int dr = -1; dr <= 1; ++dr) {
            for (int dc = -1; dc <= 1; ++dc) {
                const int row = i / k + dr, c = i % k + dc;
                if ((dr || dc) && row >= 0 && row < k && c >= 0 && c < k &&
                    !excluded[row * k + c]) {
                    use.push_back(row * k + c);
                }
            }
        }
        V2 predicted{};
        return fitAt(pts, use, cam(i), predicted) ? length(sub(predicted, dev(i))) : -1.0;
    };
    // Largest residual first; an entry whose residual has changed since is stale and skipped.
    std::priority_queue<std::pair<double, int>> worst;
    for (int i = 0; i < n; ++i) {
        r.residual[i] = residualOf(i);
        if (r.residual[i] > r.tolerance) worst.push({r.residual[i], -i});
    }
    // A file of noise could name every point: a few hundred say enough.
    std::size_t named = 0;
    while (!worst.empty() && named < 500) {
        const auto [residual, negative] = worst.top();
        worst.pop();
        const int i = -negative;
        if (excluded[i] || residual != r.residual[i]) continue;
        excluded[i] = true;
        ++named;
        add("point",
            name(i) + " disagrees with its neighbours by " + number(residual) +
                " device units (tolerance " + number(r.tolerance) +
                "): a mistyped or misdetected point?",
            {i}, -1, residual);
        // Only the fits of its neighbours change.
        for (int dr = -1; dr <= 1; ++dr) {
            for (int dc = -1; dc <= 1; ++dc) {
                const int row = i / k + dr, c = i % k + dc;
                if (row < 0 || row >= k || c < 0 || c >= k || excluded[row * k + c]) continue;
                const int j = row * k + c;
                r.residual[j] = residualOf(j);
                if (r.residual[j] > r.tolerance) worst.push({r.residual[j], -j});
            }
        }
    }
    return sortProblems(r);
}

}  // namespace quelworks::cli

#endif  // QUELWORKS_TOOLS_CLI_CALIBRATION_CHECK_H
