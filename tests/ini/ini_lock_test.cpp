// Concurrent editors of one file: every edit that reports success is in the final file, readers
// always see a whole file, and nothing is left beside the file.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ini/ini_test_util.h"
#include "quelworks/ini/ini_file.h"

using ini_test::entriesIn;
using ini_test::TempDir;
using ini_test::writeFile;

namespace {

// `writers` threads each set `edits` keys of their own ("w<id>_<n>") while a reader thread reads
// the file in a loop; returns the keys that were acknowledged, and counts torn reads.
struct EditRun {
    std::vector<std::string> acknowledged;
    int failedEdits = 0;
    int tornReads = 0;
};

EditRun editConcurrently(const std::string& path, const std::string& prefix, int writers,
                         int edits) {
    EditRun run;
    std::vector<std::vector<std::string>> done(static_cast<std::size_t>(writers));
    std::atomic<int> failed{0};
    std::atomic<int> torn{0};
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) {
            try {
                // A whole file always holds the first record; a torn one may not.
                if (CIniFile::GetValue("first", "S", path) != "1") ++torn;
                (void)CIniFile::Content(path);
            } catch (const std::out_of_range&) {
                ++torn;
            }
        }
    });
    std::vector<std::thread> threads;
    for (int w = 0; w < writers; ++w) {
        threads.emplace_back([&, w] {
            for (int n = 0; n < edits; ++n) {
                std::string key = prefix + std::to_string(w) + "_" + std::to_string(n);
                // Alternate between sections so edits also append new sections.
                std::string section = n % 3 == 0 ? "S" : "T" + std::to_string(w % 2);
                if (CIniFile::SetValue(key, "v", section, path)) {
                    done[static_cast<std::size_t>(w)].push_back(key + "@" + section);
                } else {
                    ++failed;
                }
            }
        });
    }
    for (auto& t : threads) t.join();
    stop = true;
    reader.join();
    for (auto& keys : done)
        run.acknowledged.insert(run.acknowledged.end(), keys.begin(), keys.end());
    run.failedEdits = failed;
    run.tornReads = torn;
    return run;
}

void expectAllPresent(const std::string& path, const std::vector<std::string>& keys) {
    for (const std::string& entry : keys) {
        std::size_t at = entry.find('@');
        EXPECT_EQ(CIniFile::GetValue(entry.substr(0, at), entry.substr(at + 1), path), "v")
            << entry << " was acknowledged but is missing";
    }
}

}  // namespace

TEST(IniLock, ConcurrentThreadsLoseNoEdit) {
    TempDir dir;
    const std::string path = dir.file("shared.ini");
    writeFile(path, "[S]\nfirst=1\n");
    EditRun run = editConcurrently(path, "k", 4, 60);
    EXPECT_EQ(run.tornReads, 0);
    EXPECT_EQ(run.failedEdits, 0) << "no edit should wait as long as the lock's bound here";
    EXPECT_EQ(run.acknowledged.size() + static_cast<std::size_t>(run.failedEdits), 240u);
    expectAllPresent(path, run.acknowledged);
    EXPECT_EQ(entriesIn(dir.path()), 1u) << "no temporary or lock file may be left behind";
}

// Every kind of edit takes the same lock: sorting, deleting and renaming while others add keys.
TEST(IniLock, MixedEditsKeepEveryAcknowledgedKey) {
    TempDir dir;
    const std::string path = dir.file("mixed.ini");
    writeFile(path, "[S]\nfirst=1\n[Z]\nz=1\n");
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        int n = 0;
        while (!stop) {
            CIniFile::Sort(path, n % 2 == 0);
            CIniFile::AddSection("X", path);
            CIniFile::RenameSection("X", "Y", path);
            CIniFile::DeleteSection("Y", path);
            CIniFile::SetRecordComments("# c", "z", "Z", path);
            ++n;
        }
    });
    EditRun run = editConcurrently(path, "m", 3, 40);
    stop = true;
    churn.join();
    EXPECT_EQ(run.tornReads, 0);
    expectAllPresent(path, run.acknowledged);
    EXPECT_EQ(entriesIn(dir.path()), 1u);
}
