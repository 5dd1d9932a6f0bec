// Progress display of `quelworks flash`: a redrawn bar on a terminal, plain lines otherwise.
#ifndef QUELWORKS_TOOLS_CLI_PROGRESS_H
#define QUELWORKS_TOOLS_CLI_PROGRESS_H

#include <cstdio>
#include <string>

namespace quelworks::cli {

// "812 B", "12.3 KiB", "1.50 MiB".
std::string formatBytes(double bytes);
// "0:07", "12:34", "1:02:03"; "--:--" for a negative or unknown duration.
std::string formatDuration(double seconds);
// "11.2 KiB/s".
std::string formatRate(double bytesPerSecond);

// "[##########..........]  50%  128.0 KiB / 256.0 KiB  11.2 KiB/s  0:11 left"
std::string progressBar(long long done, long long total, double elapsedSeconds, int barWidth);
// "progress:  50%  131072 / 262144 bytes  11.2 KiB/s  0:11 left"
std::string progressLine(long long done, long long total, double elapsedSeconds);
// The bar narrowed (or left out, and the text cut) to fit a terminal `columns` wide, leaving the
// last column free so that the cursor never wraps.
std::string fittedProgressBar(long long done, long long total, double elapsedSeconds, int columns);
// True if `out` writes to a terminal.
bool isTerminal(std::FILE* out);
// The width of the terminal `out` writes to; 80 when it cannot be told.
int terminalColumns(std::FILE* out);

class ProgressReporter {
public:
    enum class Style { Bar, Lines, None };

    ProgressReporter(Style style, std::FILE* out, int columns = 80)
        : style_(style), out_(out), columns_(columns) {}

    // Reports `done` of `total` bytes, `elapsedSeconds` after the transfer began. The bar is
    // redrawn at most ten times a second; lines come at every tenth of the way.
    void update(long long done, long long total, double elapsedSeconds);
    // Ends the bar's line (if one was drawn).
    void finish();

private:
    Style style_;
    std::FILE* out_;
    int columns_;
    double lastDrawn_ = -1.0;
    int lastTenth_ = -1;
    bool drawn_ = false;
};

}  // namespace quelworks::cli

#endif  // QUELWORKS_TOOLS_CLI_PROGRESS_H
