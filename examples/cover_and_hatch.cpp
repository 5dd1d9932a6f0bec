// Covers a polygon with rectangles and hatches its outline into horizontal segments: the same
// bracket-shaped part as examples/outline.txt (drawn in outline-cover.svg and outline-hatch.svg).
#include <quelworks/quelworks.h>

#include <cstdio>
#include <vector>

int main() {
    const std::vector<pointf> part = {pointf(0, 0),     pointf(120, 0),  pointf(120, 25),
                                      pointf(95, 25),   pointf(95, 60),  pointf(140, 60),
                                      pointf(140, 100), pointf(60, 100), pointf(60, 70),
                                      pointf(30, 70),   pointf(30, 95),  pointf(0, 95)};

    // The cover takes the polygon closed by repeating its first vertex.
    std::vector<pointf> closed = part;
    closed.push_back(part.front());
    std::printf("(50, 50) inside: %s, (50, 90) inside: %s\n",
                IsPointInPolygon(pointf(50, 50), closed) ? "yes" : "no",
                IsPointInPolygon(pointf(50, 90), closed) ? "yes" : "no");

    std::vector<rectanglef> rects;
    BeginSpreadPolygon(closed, &rects, rectanglef(0, 0, 141, 101), 0);
    std::printf("cover: %zu rectangles\n", rects.size());
    for (const rectanglef& r : rects) {
        std::printf("  x %g  y %g  width %g  height %g\n", r.x, r.y, r.width, r.height);
    }

    // The hatching closes the outline by itself.
    const std::vector<Vector2f> outline(part.begin(), part.end());
    const std::vector<std::vector<LineSegment>> lines = FragmentToLines(outline, 20);
    std::printf("hatching at spacing 20: %zu scan lines\n", lines.size());
    for (const std::vector<LineSegment>& line : lines) {
        std::printf("  y %g:", line.front().start.y);
        for (const LineSegment& s : line) std::printf("  %g..%g", s.start.x, s.end.x);
        std::printf("\n");
    }
    return 0;
}
