// The cover of a polygon by rectangles, on four threads.
#include <exception>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "geometry/polygon_internal.h"
#include "quelworks/geometry/polygon.h"

namespace quelworks {
namespace detail {
namespace {

// Quarters are kept only below this size, whatever the inside test says.
constexpr float kAcceptLimit = 240.0f;

// One quarter of the area: subdivide first in, first out, keep the quarters that are small enough
// and inside, then merge them.
//
// The queue is worked through level by level, which is the same order (every rectangle of one
// level is queued before any of the next). The inside test has no side effects, so it is only
// run where its answer matters: not on quarters too large to be kept anyway, and not on
// rectangles whose whole y range lies beyond the polygon's vertices (no point there is inside,
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
    std::vector<rectanglef> next;
    std::vector<rectanglef> accepted;
    while (!level.empty()) {
        next.clear();
        for (const rectanglef& r : level) {
            if (!(r.width > 3 && r.height > 3)) continue;
            if (index.rowsOutside(r.y, r.height)) continue;
            const float hw = r.width * 0.5f;
            const float hh = r.height * 0.5f;
            const rectanglef quarters[4] = {
                rectanglef(r.x, r.y, hw, hh), rectanglef(r.x + hw, r.y, hw, hh),
                rectanglef(r.x, r.y + hh, hw, hh), rectanglef(r.x + hw, r.y + hh, hw, hh)};
            for (const rectanglef& q : quarters) {
                if (q.width < kAcceptLimit && q.height < kAcceptLimit &&
                    index.rectangleInside(q, tolerance, scratch)) {
                    accepted.push_back(q);
                } else {
                    next.push_back(q);
                }
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
