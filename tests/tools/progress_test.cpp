// The progress display of `quelworks flash`.
#include "progress.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

using namespace quelworks::cli;

// How often `wanted` occurs in what was written to `f`; closes `f`.
int count(std::FILE* f, char wanted) {
    std::rewind(f);
    int n = 0;
    for (int c; (c = std::fgetc(f)) != EOF;) n += c == wanted;
    std::fclose(f);
    return n;
}

TEST(Progress, BarLinesAndUnits) {
    EXPECT_EQ(progressBar(131072, 262144, 10.0, 20),
              "[##########..........]  50%  128.0 KiB / 256.0 KiB  12.8 KiB/s  0:10 left");
    EXPECT_EQ(progressBar(0, 100, 0.0, 4), "[....]   0%  0 B / 100 B  0 B/s  --:-- left");
    EXPECT_EQ(progressBar(100, 100, 1.0, 4), "[####] 100%  100 B / 100 B  100 B/s  done");
    EXPECT_EQ(progressLine(512, 2048, 0.5),
              "progress:  25%  512 / 2048 bytes  1.0 KiB/s  0:02 left");
    EXPECT_EQ(formatBytes(1.5 * 1024 * 1024), "1.50 MiB");
    EXPECT_EQ(formatDuration(3723), "1:02:03");

    // On a narrow terminal the bar shrinks, then gives way; the line never reaches the last column.
    for (int columns : {20, 40, 60, 70, 200}) {
        SCOPED_TRACE(columns);
        std::string bar = fittedProgressBar(131072, 262144, 10.0, columns);
        EXPECT_LT(static_cast<int>(bar.size()), columns);
        EXPECT_EQ(bar.find('#') != std::string::npos, columns >= 60) << bar;
    }
    EXPECT_EQ(fittedProgressBar(131072, 262144, 10.0, 200), progressBar(131072, 262144, 10.0, 30));

    // Lines come at every tenth of the way; the bar is redrawn at most ten times a second.
    std::FILE* f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    ProgressReporter lines(ProgressReporter::Style::Lines, f);
    for (int done = 0; done <= 1000; done += 50) lines.update(done, 1000, done / 100.0);
    lines.finish();
    EXPECT_EQ(count(f, '\n'), 11);  // 0%, 10%, ..., 100%

    f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    ProgressReporter bar(ProgressReporter::Style::Bar, f);
    bar.update(0, 100, 0.0);
    bar.update(10, 100, 0.05);  // too soon: not drawn
    bar.update(20, 100, 0.2);
    bar.update(100, 100, 0.21);  // the end is always drawn
    bar.finish();
    EXPECT_EQ(count(f, '\r'), 3);
}

}  // namespace
