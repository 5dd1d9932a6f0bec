// Fuzzes the polygon outline reader of the quelworks command, then checks on what it accepts that
// the plain and the prepared containment tests agree and that hatching matches its
// straightforward version.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "../tests/geometry/polygon_reference.h"
#include "../tools/cli/polygon_file.h"
#include "geometry/polygon_internal.h"
#include "quelworks/geometry/hatching.h"
#include "quelworks/geometry/polygon.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<pointf> vertices;
    std::string error;
    if (!quelworks::cli::parsePolygonText(text, vertices, error)) {
        if (error.empty()) std::abort();
        return 0;
    }
    if (vertices.empty() || vertices.size() > 200) return 0;

    const quelworks::detail::PolygonIndex index(vertices);
    quelworks::detail::PolygonScratch scratch;
    const rectanglef box = GetBoundingBox(vertices);
    std::vector<pointf> queries(vertices.begin(), vertices.end());
    queries.push_back(pointf(box.x + box.width * 0.5f, box.y + box.height * 0.5f));
    queries.push_back(pointf(box.x - 1.0f, box.y + 0.5f));
    for (std::size_t i = 0; i + 1 < vertices.size(); ++i) {
        queries.push_back(pointf((vertices[i].x + vertices[i + 1].x) * 0.5f + 0.25f,
                                 (vertices[i].y + vertices[i + 1].y) * 0.5f));
    }
    for (const pointf& q : queries) {
        const bool expected = reference::IsPointInPolygon(q, vertices);
        if (IsPointInPolygon(q, vertices) != expected) std::abort();
        if (index.contains(q, scratch) != expected) std::abort();
    }

    // Hatching, when the outline spans few scan lines.
    if (box.height < 400.0f && box.width < 1e6f && vertices.size() <= 64) {
        const std::vector<Vector2f> outline(vertices.begin(), vertices.end());
        const int spacing = 1 + static_cast<int>(size % 5);
        const auto fast = FragmentToLines(outline, spacing);
        const auto slow = reference::FragmentToLines(outline, spacing);
        if (fast.size() != slow.size()) std::abort();
        for (std::size_t g = 0; g < fast.size(); ++g) {
            if (fast[g].size() != slow[g].size()) std::abort();
            for (std::size_t i = 0; i < fast[g].size(); ++i) {
                if (!(fast[g][i].start == slow[g][i].start) ||
                    !(fast[g][i].end == slow[g][i].end)) {
                    std::abort();
                }
            }
        }
    }
    return 0;
}
