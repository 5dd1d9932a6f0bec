/// \file
/// LinearInterpolation: a table of (x, y) float pairs, loaded from a text file of "x;y" lines or
/// filled by the caller, that answers y for x and x for y by linear interpolation between the two
/// neighbouring entries.
///
/// Table files hold one pair per line, ended by a line feed (a CR before it is dropped). Empty
/// lines are skipped; fields after the second are ignored. Both ',' and '.' are read as the decimal
/// separator of the user's locale. A last line without a line feed is not read, so table files must
/// end with a line feed. A non-empty line without ';' throws std::out_of_range out of InitLUT.
///
/// The table is searched in order, not sorted: the searched column must be monotonic in the
/// direction given to the lookup. Values outside the range loaded by the last InitLUT give 0.
#ifndef QUELWORKS_UTIL_LINEAR_INTERPOLATION_H
#define QUELWORKS_UTIL_LINEAR_INTERPOLATION_H

#include <type_traits>
#include <utility>
#include <vector>

#include "quelworks/export.h"

/// A lookup table of (x, y) pairs answering by linear interpolation (see the file description).
class QUELWORKS_API LinearInterpolation {
public:
    /// An empty table whose bounds are an empty range: every lookup gives 0 until InitLUT.
    LinearInterpolation();
    /// Copies the entries and the bounds.
    LinearInterpolation(const LinearInterpolation& other);
    /// Copies the entries and the bounds.
    LinearInterpolation& operator=(const LinearInterpolation& other);
    /// Takes over the source's entries (the source is left empty) and copies its bounds.
    LinearInterpolation(LinearInterpolation&& other) noexcept;
    /// Takes over the source's entries (the source is left empty) and copies its bounds.
    LinearInterpolation& operator=(LinearInterpolation&& other) noexcept;
    /// Releases the table.
    ~LinearInterpolation();

    /// Replaces the table by the pairs of the file, each x multiplied by xScale and each y by
    /// yScale, and reports the bounds of what was loaded (maximum before minimum). A missing or
    /// unreadable file gives an empty table with maxX = maxY = 0 and minX = minY = FLT_MAX, and
    /// true. Null out-pointers are skipped.
    bool InitLUT(char* fileName, float xScale, float yScale, float* maxXOut, float* minXOut,
                 float* maxYOut, float* minYOut);
    /// InitLUT without the bounds.
    bool InitLUT(char* fileName, float xScale, float yScale);
    /// The same for a file name given as const text (only read); templates, so that a null
    /// pointer still picks the overloads above.
    template <typename Text, std::enable_if_t<std::is_same<Text, const char*>::value, int> = 0>
    bool InitLUT(Text fileName, float xScale, float yScale, float* maxXOut, float* minXOut,
                 float* maxYOut, float* minYOut) {
        return InitLUT(const_cast<char*>(fileName), xScale, yScale, maxXOut, minXOut, maxYOut,
                       minYOut);
    }
    template <typename Text, std::enable_if_t<std::is_same<Text, const char*>::value, int> = 0>
    /// InitLUT without the bounds, for const text.
    bool InitLUT(Text fileName, float xScale, float yScale) {
        return InitLUT(const_cast<char*>(fileName), xScale, yScale);
    }

    /// y for x; `ascending` tells in which order the x column runs (default: ascending).
    float GetyValue(float x, bool ascending);
    /// y for x in an ascending x column.
    float GetyValue(float x);
    /// x for y; `ascending` tells in which order the y column runs (default: ascending).
    float GetXValue(float y, bool ascending);
    /// x for y in an ascending y column.
    float GetXValue(float y);

    /// Appends a pair at the end of the table; the bounds stay those of the last InitLUT.
    void AddToLUT(float x, float y);

private:
    std::vector<std::pair<float, float>> table;
    float minX;
    float maxX;
    float minY;
    float maxY;
};

#endif  // QUELWORKS_UTIL_LINEAR_INTERPOLATION_H
