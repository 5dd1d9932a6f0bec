// The cover of a polygon by rectangles, on four threads.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "geometry/polygon_internal.h"
#include "quelworks/geometry/polygon.h"

namespace quelworks {
namespace detail {
namespace {

// Quarters are kept only below this size, whatever the inside test says.
constexpr float kAcceptLimit = 240.0f;

// Groups rectangles by the rows they test: y and height, bit for bit (then x, likewise; bits
// order every value, NaN included).
using RowKey = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t>;
RowKey rowKey(const rectanglef& r) {
    std::uint32_t y, h, x;
    std::memcpy(&y, &r.y, sizeof y);
    std::memcpy(&h, &r.height, sizeof h);
    std::memcpy(&x, &r.x, sizeof x);
    return RowKey(y, h, x);
}

// One quarter of the area: subdivide first in, first out, keep the quarters that are small enough
// and inside, then merge them.
//
// The queue is worked through level by level, which is the same order (every rectangle of one
// level is queued before any of the next). The inside test has no side effects, so it is run in any
// order and only run where its answer matters: not on quarters too large to be kept anyway, and not
// on rectangles whose whole y range lies beyond the polygon's vertices (no point there is inside,
// in them or in anything they are divided into).
void coverQuarter(const PolygonIndex& index, const rectanglef& start, int tolerance,
                  std::vector<rectanglef>& result) {
    if (!(start.width > 3 && start.height > 3)) return;
    if (index.size() == 0) {
        // The first containment test of a polygon without vertices fails.
        throw std::out_of_range("BeginSpreadPolygon: the polygon has no vertices");
    }
    if (index.size() == 1) return;  // no edges: nothing is ever inside

    PolygonScratch scratch;
    std::vector<rectanglef> level{start};
    std::vector<rectanglef> quarters;
    std::vector<std::uint8_t> inside;
    std::vector<std::pair<RowKey, std::size_t>> byRow;
    std::vector<rectanglef> next;
    std::vector<rectanglef> accepted;
    while (!level.empty()) {
        // The quarters of this level, in queue order.
        quarters.clear();
        for (const rectanglef& r : level) {
            if (!(r.width > 3 && r.height > 3)) continue;
            if (index.rowsOutside(r.y, r.height)) continue;
            const float hw = r.width * 0.5f;
            const float hh = r.height * 0.5f;
            quarters.insert(
                quarters.end(),
                {rectanglef(r.x, r.y, hw, hh), rectanglef(r.x + hw, r.y, hw, hh),
                 rectanglef(r.x, r.y + hh, hw, hh), rectanglef(r.x + hw, r.y + hh, hw, hh)});
        }
        // Tested row by row: quarters with the same y and height test the same rows, and a row
        // crossing many edges is then gathered once for all of them rather than once for every
        // few quarters of the queue. The answers are kept in queue order.
        byRow.clear();
        for (std::size_t i = 0; i < quarters.size(); ++i) {
            const rectanglef& q = quarters[i];
            if (q.width < kAcceptLimit && q.height < kAcceptLimit) {
                byRow.push_back({rowKey(q), i});
            }
        }
        std::sort(byRow.begin(), byRow.end());
        inside.assign(quarters.size(), 0);
        for (const auto& entry : byRow) {
            inside[entry.second] =
                index.rectangleInside(quarters[entry.second], tolerance, scratch);
        }
        next.clear();
        for (std::size_t i = 0; i < quarters.size(); ++i) {
            if (inside[i]) {
                accepted.push_back(quarters[i]);
            } else {
                next.push_back(quarters[i]);
            }
        }
        level.swap(next);
    }
    MergeRectangles(accepted);
    result.insert(result.end(), accepted.begin(), accepted.end());
}

}  // namespace
}  // namespace detail
}  // namespace quelworks

void BeginSpreadPolygon(std::vector<pointf> polygon, std::vector<rectanglef>* out, rectanglef area,
                        int tolerance) {
    using namespace quelworks::detail;
    if (area.width <= 3 || area.height <= 3) return;
    if (out == nullptr) return;

    const float hw = area.width * 0.5f;
    const float hh = area.height * 0.5f;
    const rectanglef quarters[4] = {
        rectanglef(area.x, area.y, hw, hh), rectanglef(area.x + hw, area.y, hw, hh),
        rectanglef(area.x, area.y + hh, hw, hh), rectanglef(area.x + hw, area.y + hh, hw, hh)};

    // The index is only read by the workers.
    const PolygonIndex index(polygon);
    std::vector<rectanglef> results[4];
    std::exception_ptr errors[4];
    std::thread workers[4];
    std::exception_ptr startError;
    for (int k = 0; k < 4; ++k) {
        try {
            workers[k] = std::thread([&, k] {
                try {
                    coverQuarter(index, quarters[k], tolerance, results[k]);
                } catch (...) {
                    errors[k] = std::current_exception();
                }
            });
        } catch (...) {
            // A thread that cannot be started: let the others finish, then report it.
            startError = std::current_exception();
            break;
        }
    }
    for (std::thread& t : workers) {
        if (t.joinable()) t.join();
    }
    if (startError) std::rethrow_exception(startError);
    for (const std::exception_ptr& e : errors) {
        if (e) std::rethrow_exception(e);
    }

    for (const std::vector<rectanglef>& r : results) out->insert(out->end(), r.begin(), r.end());
    MergeRectangles(*out);
}
