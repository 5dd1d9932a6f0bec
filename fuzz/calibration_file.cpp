// Fuzzes the calibration file reader of the quelworks command, then runs the calibration check on
// what it accepts and checks that the prepared transformation maps points (on, between and around
// the calibration points) to the same bits as the static operation.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../tools/cli/calibration_check.h"
#include "../tools/cli/calibration_file.h"
#include "quelworks/geometry/coordinate_transformation.h"
#include "quelworks/geometry/prepared_transformation.h"

namespace {

bool sameBits(Vector2f a, Vector2f b) {
    return std::memcmp(&a.x, &b.x, sizeof a.x) == 0 && std::memcmp(&a.y, &b.y, sizeof a.y) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    quelworks::cli::CalibrationFile file;
    std::string error;
    if (!quelworks::cli::parseCalibrationText(text, file, error)) {
        if (error.rfind("line ", 0) != 0) std::abort();  // every message names its line
        return 0;
    }
    if (file.points.size() != file.lines.size()) std::abort();
    if (file.points.size() > 400) return 0;

    const quelworks::cli::CalibrationReport report =
        quelworks::cli::checkCalibration(file.points, file.lines, 0);
    if (report.usable != (report.n == 3 || (report.n >= 4 && report.k * report.k == report.n))) {
        std::abort();
    }

    RList<CalibrationPoint> list;
    for (const CalibrationPoint& c : file.points) list.push_back(c);
    const PreparedTransformation prepared(list);
    std::vector<Vector2f> queries;
    for (std::size_t i = 0; i < file.points.size(); ++i) {
        const Vector2f c = file.points[i].camera;
        const Vector2f d = file.points[(i + 1) % file.points.size()].camera;
        queries.push_back(c);
        queries.push_back(Vector2f((c.x + d.x) * 0.5f, (c.y + d.y) * 0.5f));
        queries.push_back(Vector2f(c.x, d.y));
        queries.push_back(Vector2f(c.x + 0.5f, c.y - 0.25f));
    }
    queries.push_back(Vector2f(0, 0));
    for (const Vector2f& q : queries) {
        if (!sameBits(prepared.Transform(q),
                      CoordinateTransformation::TransformCameraToDeviceCoordinates(q, list))) {
            std::abort();
        }
    }
    return 0;
}
