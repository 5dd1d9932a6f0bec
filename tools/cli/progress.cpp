#include "progress.h"

#include <cmath>
#include <cstdlib>

#include "console.h"

namespace quelworks::cli {

namespace {

std::string printf1(const char* format, double value) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

int percentOf(long long done, long long total) {
    if (total <= 0) return 100;
    if (done <= 0) return 0;
    if (done >= total) return 100;
    return static_cast<int>(done * 100 / total);
}

std::string timeLeft(long long done, long long total, double elapsedSeconds) {
    if (done >= total) return "done";
    if (done <= 0 || elapsedSeconds <= 0) return "--:-- left";
    double rate = static_cast<double>(done) / elapsedSeconds;
    return formatDuration(static_cast<double>(total - done) / rate) + " left";
}

double rateOf(long long done, double elapsedSeconds) {
    return elapsedSeconds > 0 ? static_cast<double>(done) / elapsedSeconds : 0.0;
}

}  // namespace

std::string formatBytes(double bytes) {
    if (bytes < 1024) return printf1("%.0f B", bytes);
    if (bytes < 1024.0 * 1024) return printf1("%.1f KiB", bytes / 1024);
    if (bytes < 1024.0 * 1024 * 1024) return printf1("%.2f MiB", bytes / (1024.0 * 1024));
    return printf1("%.2f GiB", bytes / (1024.0 * 1024 * 1024));
}

std::string formatDuration(double seconds) {
    if (!(seconds >= 0) || std::isinf(seconds)) return "--:--";
    long long total = std::llround(seconds);
    long long h = total / 3600, m = (total / 60) % 60, s = total % 60;
    char text[32];
    if (h > 0) {
        std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", h, m, s);
    } else {
        std::snprintf(text, sizeof text, "%lld:%02lld", m, s);
    }
    return text;
}

std::string formatRate(double bytesPerSecond) {
    return formatBytes(bytesPerSecond) + "/s";
}

std::string progressBar(long long done, long long total, double elapsedSeconds, int barWidth) {
    int percent = percentOf(done, total);
    int filled = barWidth * percent / 100;
    std::string bar = "[" + std::string(filled, '#') + std::string(barWidth - filled, '.') + "]";
    char head[16];
    std::snprintf(head, sizeof head, " %3d%%  ", percent);
    return bar + head + formatBytes(static_cast<double>(done)) + " / " +
           formatBytes(static_cast<double>(total)) + "  " +
           formatRate(rateOf(done, elapsedSeconds)) + "  " + timeLeft(done, total, elapsedSeconds);
}

std::string fittedProgressBar(long long done, long long total, double elapsedSeconds, int columns) {
    constexpr int kWidest = 30, kNarrowest = 5;
    const int room = columns - 1;
    std::string text = progressBar(done, total, elapsedSeconds, kWidest);
    int excess = static_cast<int>(text.size()) - room;
    if (excess <= 0) return text;
    if (kWidest - excess >= kNarrowest)
        return progressBar(done, total, elapsedSeconds, kWidest - excess);
    // Too narrow for a bar: the figures alone, cut at the edge.
    text = progressBar(done, total, elapsedSeconds, 0).substr(3);
    return room > 0 && static_cast<int>(text.size()) > room ? text.substr(0, room) : text;
}

bool isTerminal(std::FILE* out) {
    return console::isTerminal(out);
}

int terminalColumns(std::FILE* out) {
    const int fromSystem = console::columns(out);
    if (fromSystem > 0) return fromSystem;
    const char* columns = std::getenv("COLUMNS");
    int fromEnvironment = columns != nullptr ? std::atoi(columns) : 0;
    return fromEnvironment > 0 ? fromEnvironment : 80;
}

std::string progressLine(long long done, long long total, double elapsedSeconds) {
    char head[80];
    std::snprintf(head, sizeof head, "progress: %3d%%  %lld / %lld bytes  ", percentOf(done, total),
                  done, total);
    return head + formatRate(rateOf(done, elapsedSeconds)) + "  " +
           timeLeft(done, total, elapsedSeconds);
}

void ProgressReporter::update(long long done, long long total, double elapsedSeconds) {
    switch (style_) {
        case Style::None:
            return;
        case Style::Bar:
            if (done < total && lastDrawn_ >= 0 && elapsedSeconds - lastDrawn_ < 0.1) return;
            lastDrawn_ = elapsedSeconds;
            // Clear to the end of the line: the new text may be shorter than the old one.
            std::fprintf(out_, "\r%s\x1b[K",
                         fittedProgressBar(done, total, elapsedSeconds, columns_).c_str());
            drawn_ = true;
            break;
        case Style::Lines: {
            int tenth = percentOf(done, total) / 10;
            if (tenth == lastTenth_) return;
            lastTenth_ = tenth;
            std::fprintf(out_, "%s\n", progressLine(done, total, elapsedSeconds).c_str());
            break;
        }
    }
    std::fflush(out_);
}

void ProgressReporter::finish() {
    if (style_ == Style::Bar && drawn_) {
        std::fputc('\n', out_);
        std::fflush(out_);
        drawn_ = false;
    }
}

}  // namespace quelworks::cli
