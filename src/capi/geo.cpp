// Plane geometry (qw_geo_...): point in polygon, bounding box, rectangle cover, hatching and the
// camera-to-device transformation, each over arrays of plain points.
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "capi/capi_internal.h"
#include "geometry/polygon_internal.h"
#include "quelworks/geometry/coordinate_transformation.h"
#include "quelworks/geometry/hatching.h"
#include "quelworks/geometry/polygon.h"
#include "quelworks/geometry/prepared_transformation.h"

namespace quelworks::capi {
namespace {

static_assert(sizeof(qw_point) == sizeof(pointf) && sizeof(qw_point) == sizeof(Vector2f),
              "qw_point has the layout of pointf and Vector2f");
static_assert(sizeof(qw_rectf) == sizeof(rectanglef), "qw_rectf has the layout of rectanglef");

// From this many points on, a batch containment test prepares the polygon first.
constexpr int32_t kIndexFrom = 16;

std::vector<pointf> toPointf(const qw_point* points, int32_t count) {
    std::vector<pointf> out;
    out.reserve(static_cast<std::size_t>(count));
    for (int32_t i = 0; i < count; ++i) out.emplace_back(points[i].x, points[i].y);
    return out;
}

std::vector<Vector2f> toVector2f(const qw_point* points, int32_t count) {
    std::vector<Vector2f> out;
    out.reserve(static_cast<std::size_t>(count));
    for (int32_t i = 0; i < count; ++i) out.emplace_back(points[i].x, points[i].y);
    return out;
}

RList<CalibrationPoint> toCalibration(const qw_calibration_point* points, int32_t count) {
    RList<CalibrationPoint> list;
    for (int32_t i = 0; i < count; ++i)
        list.push_back(CalibrationPoint(Vector2f(points[i].camera.x, points[i].camera.y),
                                        Vector2f(points[i].device.x, points[i].device.y)));
    return list;
}

qw_rectf toC(const rectanglef& r) {
    return qw_rectf{r.x, r.y, r.width, r.height};
}

qw_status requirePolygon(const qw_point* polygon, int32_t count) {
    if (qw_status s = checkBuffer(polygon, count, "polygon")) return s;
    if (count == 0) return fail(QW_ERR_INVALID_ARGUMENT, "empty polygon");
    return QW_OK;
}

// A malloc'ed array of `count` items for qw_free, or null for none.
template <class T>
T* allocArray(std::size_t count) {
    if (count == 0) return nullptr;
    void* block = std::malloc(count * sizeof(T));
    if (block == nullptr) throw std::bad_alloc();
    return static_cast<T*>(block);
}

}  // namespace
}  // namespace quelworks::capi

using namespace quelworks::capi;

extern "C" {

QW_C_API qw_status QW_CALL qw_geo_point_in_polygon(const qw_point* polygon, int32_t vertex_count,
                                                   float x, float y, int32_t* inside) {
    return guarded([&] {
        if (qw_status s = requirePolygon(polygon, vertex_count)) return s;
        QW_REQUIRE(inside, "null pointer: inside");
        *inside = IsPointInPolygon(pointf(x, y), toPointf(polygon, vertex_count)) ? 1 : 0;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_geo_points_in_polygon(const qw_point* polygon, int32_t vertex_count,
                                                    const qw_point* points, int32_t count,
                                                    uint8_t* inside) {
    return guarded([&] {
        if (qw_status s = requirePolygon(polygon, vertex_count)) return s;
        if (qw_status s = checkBuffer(points, count, "points")) return s;
        if (qw_status s = checkBuffer(inside, count, "inside")) return s;
        const std::vector<pointf> shape = toPointf(polygon, vertex_count);
        if (count < kIndexFrom) {
            for (int32_t i = 0; i < count; ++i)
                inside[i] = IsPointInPolygon(pointf(points[i].x, points[i].y), shape) ? 1 : 0;
            return QW_OK;
        }
        // Many points: the prepared polygon gives the same answers without copying the polygon
        // for every point, and looks only at the edges level with each point.
        const quelworks::detail::PolygonIndex index(shape);
        quelworks::detail::PolygonScratch scratch;
        for (int32_t i = 0; i < count; ++i)
            inside[i] = index.contains(pointf(points[i].x, points[i].y), scratch) ? 1 : 0;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_geo_bounding_box(const qw_point* points, int32_t count,
                                               qw_rectf* box) {
    return guarded([&] {
        if (qw_status s = checkBuffer(points, count, "points")) return s;
        QW_REQUIRE(box, "null pointer: box");
        *box = toC(GetBoundingBox(toPointf(points, count)));
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_geo_cover_polygon(const qw_point* polygon, int32_t vertex_count,
                                                const qw_rectf* area, int32_t tolerance,
                                                const qw_rectf* prior, int32_t prior_count,
                                                qw_rectf** rects, int32_t* count) {
    return guarded([&] {
        if (qw_status s = requirePolygon(polygon, vertex_count)) return s;
        if (qw_status s = checkBuffer(prior, prior_count, "prior")) return s;
        QW_REQUIRE(area, "null pointer: area");
        QW_REQUIRE(rects && count, "null pointer: rects or count");
        std::vector<rectanglef> out;
        out.reserve(static_cast<std::size_t>(prior_count));
        for (int32_t i = 0; i < prior_count; ++i)
            out.emplace_back(prior[i].x, prior[i].y, prior[i].width, prior[i].height);
        BeginSpreadPolygon(toPointf(polygon, vertex_count), &out,
                           rectanglef(area->x, area->y, area->width, area->height), tolerance);
        QW_REQUIRE(out.size() < static_cast<std::size_t>(INT32_MAX), "result too large");
        qw_rectf* result = allocArray<qw_rectf>(out.size());
        for (std::size_t i = 0; i < out.size(); ++i) result[i] = toC(out[i]);
        *rects = result;
        *count = static_cast<int32_t>(out.size());
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_geo_hatch(const qw_point* outline, int32_t vertex_count,
                                        int32_t spacing, qw_segment** segments,
                                        int32_t* segment_count, int32_t** group_sizes,
                                        int32_t* group_count) {
    return guarded([&] {
        if (qw_status s = checkBuffer(outline, vertex_count, "outline")) return s;
        QW_REQUIRE(segments && segment_count && group_sizes && group_count,
                   "null pointer: segments, segment_count, group_sizes or group_count");
        std::vector<std::vector<LineSegment>> groups =
            FragmentToLines(toVector2f(outline, vertex_count), spacing);
        std::size_t total = 0;
        for (const auto& g : groups) total += g.size();
        QW_REQUIRE(total < static_cast<std::size_t>(INT32_MAX), "result too large");
        qw_segment* flat = allocArray<qw_segment>(total);
        int32_t* sizes = nullptr;
        try {
            sizes = allocArray<int32_t>(groups.size());
        } catch (...) {
            std::free(flat);
            throw;
        }
        std::size_t k = 0;
        for (std::size_t g = 0; g < groups.size(); ++g) {
            sizes[g] = static_cast<int32_t>(groups[g].size());
            for (const LineSegment& s : groups[g])
                flat[k++] = qw_segment{{s.start.x, s.start.y}, {s.end.x, s.end.y}};
        }
        *segments = flat;
        *segment_count = static_cast<int32_t>(total);
        *group_sizes = sizes;
        *group_count = static_cast<int32_t>(groups.size());
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_geo_transform(const qw_calibration_point* calibration,
                                            int32_t calibration_count, float x, float y,
                                            qw_point* device) {
    return guarded([&] {
        if (qw_status s = checkBuffer(calibration, calibration_count, "calibration")) return s;
        QW_REQUIRE(device, "null pointer: device");
        Vector2f p = CoordinateTransformation::TransformCameraToDeviceCoordinates(
            Vector2f(x, y), toCalibration(calibration, calibration_count));
        *device = qw_point{p.x, p.y};
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_geo_transform_many(const qw_calibration_point* calibration,
                                                 int32_t calibration_count, const qw_point* camera,
                                                 int32_t count, qw_point* device) {
    return guarded([&] {
        if (qw_status s = checkBuffer(calibration, calibration_count, "calibration")) return s;
        if (qw_status s = checkBuffer(camera, count, "camera")) return s;
        if (qw_status s = checkBuffer(device, count, "device")) return s;
        // The prepared transformation gives the same bits; preparing pays off from a few points.
        const PreparedTransformation prepared(toCalibration(calibration, calibration_count));
        for (int32_t i = 0; i < count; ++i) {
            Vector2f p = prepared.Transform(Vector2f(camera[i].x, camera[i].y));
            device[i] = qw_point{p.x, p.y};
        }
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_transform_prepare(const qw_calibration_point* calibration,
                                                int32_t calibration_count, qw_transform** transform,
                                                int32_t* usable) {
    return guarded([&] {
        if (qw_status s = checkBuffer(calibration, calibration_count, "calibration")) return s;
        QW_REQUIRE(transform, "null pointer: transform");
        auto prepared =
            std::make_shared<PreparedTransformation>(toCalibration(calibration, calibration_count));
        if (usable != nullptr) *usable = prepared->IsUsable() ? 1 : 0;
        return createHandle(Kind::Transform, std::move(prepared), transform);
    });
}

QW_C_API qw_status QW_CALL qw_transform_map(qw_transform* transform, float x, float y,
                                            qw_point* device) {
    return guarded([&] {
        QW_FIND(t, PreparedTransformation, transform, Kind::Transform);
        QW_REQUIRE(device, "null pointer: device");
        const Vector2f p = t->Transform(Vector2f(x, y));
        *device = qw_point{p.x, p.y};
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_transform_map_many(qw_transform* transform, const qw_point* camera,
                                                 int32_t count, qw_point* device) {
    return guarded([&] {
        QW_FIND(t, PreparedTransformation, transform, Kind::Transform);
        if (qw_status s = checkBuffer(camera, count, "camera")) return s;
        if (qw_status s = checkBuffer(device, count, "device")) return s;
        // In blocks through a local buffer, so that device may be the camera array itself.
        Vector2f block[256];
        for (int32_t first = 0; first < count; first += 256) {
            const int32_t n = count - first < 256 ? count - first : 256;
            for (int32_t i = 0; i < n; ++i)
                block[i] = Vector2f(camera[first + i].x, camera[first + i].y);
            t->Transform(block, block, static_cast<std::size_t>(n));
            for (int32_t i = 0; i < n; ++i) device[first + i] = qw_point{block[i].x, block[i].y};
        }
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_transform_free(qw_transform* transform) {
    return guarded([&] { return freeHandle(transform, Kind::Transform); });
}

}  // extern "C"
