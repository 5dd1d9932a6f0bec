// The progress display of `quelworks flash`.
#include "progress.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

using namespace quelworks::cli;

TEST(Progress, UnitsAndDurations) {
    EXPECT_EQ(formatBytes(812), "812 B");
    EXPECT_EQ(formatBytes(12.3 * 1024), "12.3 KiB");
    EXPECT_EQ(formatBytes(1.5 * 1024 * 1024), "1.50 MiB");
    EXPECT_EQ(formatRate(11520), "11.2 KiB/s");
    EXPECT_EQ(formatDuration(7.4), "0:07");
    EXPECT_EQ(formatDuration(754), "12:34");
    EXPECT_EQ(formatDuration(3723), "1:02:03");
    EXPECT_EQ(formatDuration(-1), "--:--");
}

TEST(Progress, BarAndLine) {
    EXPECT_EQ(progressBar(131072, 262144, 10.0, 20),
              "[##########..........]  50%  128.0 KiB / 256.0 KiB  12.8 KiB/s  0:10 left");
    EXPECT_EQ(progressBar(0, 100, 0.0, 4), "[....]   0%  0 B / 100 B  0 B/s  --:-- left");
    EXPECT_EQ(progressBar(100, 100, 1.0, 4), "[####] 100%  100 B / 100 B  100 B/s  done");
    EXPECT_EQ(progressLine(512, 2048, 0.5),
              "progress:  25%  512 / 2048 bytes  1.0 KiB/s  0:02 left");
}

std::string captured(std::FILE* f) {
    std::rewind(f);
    std::string text;
    int c;
    while ((c = std::fgetc(f)) != EOF) text += static_cast<char>(c);
    return text;
}

TEST(Progress, LinesComeAtEveryTenthAndTheBarIsRedrawnSparingly) {
    std::FILE* f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    ProgressReporter lines(ProgressReporter::Style::Lines, f);
    for (int done = 0; done <= 1000; done += 50) lines.update(done, 1000, done / 100.0);
    lines.finish();
    std::string text = captured(f);
    int count = 0;
    for (char c : text) count += c == '\n';
    EXPECT_EQ(count, 11);  // 0%, 10%, ..., 100%
    std::fclose(f);

    f = std::tmpfile();
    ProgressReporter bar(ProgressReporter::Style::Bar, f);
    bar.update(0, 100, 0.0);
    bar.update(10, 100, 0.05);  // too soon: not drawn
    bar.update(20, 100, 0.2);
    bar.update(100, 100, 0.21);  // the end is always drawn
    bar.finish();
    text = captured(f);
    int draws = 0;
    for (char c : text) draws += c == '\r';
    EXPECT_EQ(draws, 3);
    EXPECT_EQ(text.back(), '\n');
    std::fclose(f);
}

}  // namespace
