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

#if defined(_WIN32)
// Windows: other processes editing the same file, and a process that holds the lock file (as an
// editor does while it edits) being stopped. The processes are this test program started again
// with QW_INI_LOCK_CHILD set, which makes it do one job before any test runs and exit.

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <chrono>
#include <cstdlib>

using ini_test::readFile;

namespace {

// "edit|<file>|<key prefix>": two threads set 40 keys each; the exit code is the number of edits
// that returned false. "hold|<file>": opens the file's lock file the way an editor does and waits
// for a minute.
const int childJob = [] {
    const char* job = std::getenv("QW_INI_LOCK_CHILD");
    if (job == nullptr) return 0;
    std::string order(job);
    std::size_t bar = order.find('|');
    std::string kind = order.substr(0, bar);
    std::string rest = order.substr(bar + 1);
    if (kind == "hold") {
        HANDLE lock = CreateFileA((rest + ".lock").c_str(), GENERIC_READ | DELETE, 0, nullptr,
                                  OPEN_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr);
        if (lock == INVALID_HANDLE_VALUE) std::_Exit(2);
        Sleep(60000);  // killed by the test long before; gone by itself should the test fail
        std::_Exit(0);
    }
    bar = rest.find('|');
    const std::string path = rest.substr(0, bar);
    const std::string prefix = rest.substr(bar + 1);
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            for (int n = 0; n < 40; ++n) {
                std::string key = prefix + std::to_string(t) + "_" + std::to_string(n);
                if (!CIniFile::SetValue(key, "v", "S", path)) ++failed;
            }
        });
    }
    for (auto& t : threads) t.join();
    std::_Exit(failed.load());
}();

// Starts this program again with `job` as its QW_INI_LOCK_CHILD.
PROCESS_INFORMATION startChild(const std::string& job) {
    char self[MAX_PATH];
    GetModuleFileNameA(nullptr, self, MAX_PATH);
    SetEnvironmentVariableA("QW_INI_LOCK_CHILD", job.c_str());
    std::string command = std::string("\"") + self + "\"";
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    BOOL started = CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr,
                                  nullptr, &startup, &process);
    SetEnvironmentVariableA("QW_INI_LOCK_CHILD", nullptr);
    EXPECT_TRUE(started) << "cannot start " << self;
    return process;
}

DWORD waitForExit(PROCESS_INFORMATION& process) {
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hProcess);
    CloseHandle(process.hThread);
    return code;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

// 3 processes x 2 threads x 40 edits while this process reads: every edit is acknowledged and
// kept, every read sees a whole file, and nothing is left beside the file.
TEST(IniLockWindows, ConcurrentProcessesLoseNoEdit) {
    TempDir dir;
    const std::string path = dir.file("processes.ini");
    writeFile(path, "[S]\nfirst=1\n");
    std::vector<PROCESS_INFORMATION> children;
    for (int p = 0; p < 3; ++p) {
        children.push_back(startChild("edit|" + path + "|p" + std::to_string(p) + "_"));
    }
    int torn = 0;
    std::vector<DWORD> codes;
    for (auto& child : children) {
        while (WaitForSingleObject(child.hProcess, 0) == WAIT_TIMEOUT) {
            try {
                if (CIniFile::GetValue("first", "S", path) != "1") ++torn;
            } catch (const std::out_of_range&) {
                ++torn;
            }
        }
        codes.push_back(waitForExit(child));
    }
    EXPECT_EQ(torn, 0);
    for (DWORD code : codes) EXPECT_EQ(code, 0u) << "edits failed in a child";
    std::vector<std::string> keys;
    for (int p = 0; p < 3; ++p)
        for (int t = 0; t < 2; ++t)
            for (int n = 0; n < 40; ++n)
                keys.push_back("p" + std::to_string(p) + "_" + std::to_string(t) + "_" +
                               std::to_string(n) + "@S");
    expectAllPresent(path, keys);
    EXPECT_EQ(entriesIn(dir.path()), 1u) << "no temporary or lock file may be left behind";
}

// A process holding the lock makes an edit wait for the bound and fail with the file unchanged,
// while queries answer at once; once the holder is killed its lock file is gone and the next edit
// proceeds at once. A lock file left over from a crash of the whole system is taken over.
TEST(IniLockWindows, AKilledHolderFreesTheLockAndALongHolderMakesEditsFail) {
    TempDir dir;
    const std::string path = dir.file("held.ini");
    writeFile(path, "[S]\nk=1\n");
    PROCESS_INFORMATION holder = startChild("hold|" + path);
    const auto started = std::chrono::steady_clock::now();
    while (!std::filesystem::exists(path + ".lock") && secondsSince(started) < 30) Sleep(10);
    ASSERT_TRUE(std::filesystem::exists(path + ".lock"));

    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(CIniFile::SetValue("k", "2", "S", path));
    const double waited = secondsSince(start);
    EXPECT_GE(waited, 4.0);
    EXPECT_LT(waited, 30.0);
    EXPECT_EQ(readFile(path), "[S]\nk=1\n");
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(CIniFile::GetValue("k", "S", path), "1");
    EXPECT_LT(secondsSince(start), 1.0) << "queries never wait for the lock";

    TerminateProcess(holder.hProcess, 9);
    waitForExit(holder);
    start = std::chrono::steady_clock::now();
    EXPECT_TRUE(CIniFile::SetValue("k", "3", "S", path));
    EXPECT_LT(secondsSince(start), 2.0);
    EXPECT_EQ(CIniFile::GetValue("k", "S", path), "3");
    EXPECT_EQ(entriesIn(dir.path()), 1u) << "the killed holder's lock file must be gone";

    writeFile(path + ".lock", "");  // what a power cut during an edit leaves behind
    EXPECT_TRUE(CIniFile::SetValue("k", "4", "S", path));
    EXPECT_EQ(CIniFile::GetValue("k", "S", path), "4");
    EXPECT_EQ(entriesIn(dir.path()), 1u);
}
#endif

#if defined(_WIN32)
// A reader that finds the file missing while another editor holds its lock (a save that replaces
// the file in two steps) waits for the file to come back instead of reading nothing; with no
// edit under way a missing file is reported at once.
TEST(IniLockWindows, AReaderWaitsForASaveThatHasTheFileAway) {
    TempDir dir;
    const std::string path = dir.file("away.ini");
    HANDLE lock = CreateFileA((path + ".lock").c_str(), GENERIC_READ | DELETE, 0, nullptr,
                              CREATE_NEW, FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    ASSERT_NE(lock, INVALID_HANDLE_VALUE);
    std::thread editor([&] {
        Sleep(300);
        writeFile(path, "[S]\nk=new\n");
        CloseHandle(lock);
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CIniFile::GetValue("k", "S", path), "new");
    EXPECT_GE(secondsSince(start), 0.2);
    editor.join();
    EXPECT_EQ(entriesIn(dir.path()), 1u);

    const std::string missing = dir.file("missing.ini");
    const auto again = std::chrono::steady_clock::now();
    EXPECT_EQ(CIniFile::GetValue("k", "S", missing), "");
    EXPECT_FALSE(CIniFile::SetValue("k", "v", "S", missing)) << "edits never create a file";
    EXPECT_LT(secondsSince(again), 1.0);
    EXPECT_EQ(entriesIn(dir.path()), 1u);
}
#endif
