// Editors in several processes, a killed editor, an editor that holds the lock too long, files
// that are not regular files, long names, and what a save keeps (group, extended attributes).
#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ini/ini_test_util.h"
#include "quelworks/ini/ini_file.h"

using ini_test::entriesIn;
using ini_test::readFile;
using ini_test::TempDir;
using ini_test::writeFile;

namespace {

// Runs `body` in a child process and returns its exit code (-1 when it did not exit normally).
template <class Body>
int inChild(Body&& body) {
    pid_t pid = ::fork();
    if (pid == 0) ::_exit(body());
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

// Four processes of four threads: each process reports the keys it had acknowledged by writing
// them to a file of its own; all must be in the shared file at the end.
TEST(IniDiskPosix, ConcurrentProcessesLoseNoEdit) {
    TempDir dir;
    const std::string path = dir.file("shared.ini");
    writeFile(path, "[S]\nfirst=1\n");
    std::vector<pid_t> children;
    for (int p = 0; p < 4; ++p) {
        pid_t pid = ::fork();
        if (pid == 0) {
            std::vector<std::thread> threads;
            std::vector<std::string> acked[4];
            for (int t = 0; t < 4; ++t) {
                threads.emplace_back([&, t] {
                    for (int n = 0; n < 25; ++n) {
                        std::string key = "p" + std::to_string(p) + "t" + std::to_string(t) + "_" +
                                          std::to_string(n);
                        if (CIniFile::SetValue(key, "v", "S", path)) acked[t].push_back(key);
                    }
                });
            }
            for (auto& th : threads) th.join();
            std::string list;
            for (auto& keys : acked) {
                for (auto& k : keys) list += k + "\n";
            }
            writeFile(dir.file("acked") + std::to_string(p), list);
            ::_exit(0);
        }
        children.push_back(pid);
    }
    int torn = 0;
    for (pid_t pid : children) {
        while (::waitpid(pid, nullptr, WNOHANG) == 0) {
            if (CIniFile::GetValue("first", "S", path) != "1") ++torn;
        }
    }
    EXPECT_EQ(torn, 0);
    std::size_t total = 0;
    for (int p = 0; p < 4; ++p) {
        std::string list = readFile(dir.file("acked") + std::to_string(p));
        std::filesystem::remove(dir.file("acked") + std::to_string(p));
        for (std::size_t at = 0, end; (end = list.find('\n', at)) != std::string::npos;
             at = end + 1) {
            EXPECT_EQ(CIniFile::GetValue(list.substr(at, end - at), "S", path), "v");
            ++total;
        }
    }
    EXPECT_EQ(total, 400u);
    EXPECT_EQ(entriesIn(dir.path()), 1u) << "no temporary or lock file may be left behind";
}

// The lock is the system's own: a holder killed with SIGKILL frees it at once. One that holds it
// past the bound makes the edit fail, with the file unchanged.
TEST(IniDiskPosix, AKilledHolderFreesTheLockAndALongHolderMakesEditsFail) {
    TempDir dir;
    const std::string path = dir.file("l.ini");
    writeFile(path, "[S]\nk=1\n");
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    pid_t holder = ::fork();
    if (holder == 0) {
        int fd = ::open(path.c_str(), O_RDONLY);
        ::flock(fd, LOCK_EX);
        (void)!::write(ready[1], "x", 1);
        ::pause();
        ::_exit(0);
    }
    char c;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);

    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(CIniFile::SetValue("k", "2", "S", path));
    double waited = secondsSince(start);
    EXPECT_GE(waited, 4.0);
    EXPECT_LT(waited, 30.0);
    EXPECT_EQ(readFile(path), "[S]\nk=1\n");
    EXPECT_EQ(CIniFile::GetValue("k", "S", path), "1") << "queries never wait for the lock";

    ::kill(holder, SIGKILL);
    ::waitpid(holder, nullptr, 0);
    start = std::chrono::steady_clock::now();
    EXPECT_TRUE(CIniFile::SetValue("k", "3", "S", path));
    EXPECT_LT(secondsSince(start), 2.0);
    EXPECT_EQ(CIniFile::GetValue("k", "S", path), "3");
    ::close(ready[0]);
    ::close(ready[1]);
}

// A FIFO (or a folder) is refused at once by queries and edits; nothing blocks.
TEST(IniDiskPosix, AFifoOrFolderIsRefusedAtOnce) {
    TempDir dir;
    const std::string fifo = dir.file("pipe.ini");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
    std::filesystem::create_directory(dir.file("folder.ini"));
    for (const std::string& path : {fifo, dir.file("folder.ini")}) {
        EXPECT_EQ(CIniFile::GetValue("k", "S", path), "");
        EXPECT_EQ(CIniFile::Content(path), "");
        EXPECT_FALSE(CIniFile::SetValue("k", "v", "S", path));
        EXPECT_FALSE(CIniFile::Sort(path, false));
    }
}

// A 250-byte file name in a folder deeper than the longest absolute path: the temporary file
// still fits and no absolute name is needed, so a failing
// write (a file size limit) leaves the old content whole instead of rewriting in place.
TEST(IniDiskPosix, LongNamesAndDeepPathsStillSaveSafely) {
    TempDir dir;
    // Deeper than PATH_MAX as an absolute name, reached one folder at a time.
    ASSERT_EQ(::chdir(dir.path().c_str()), 0);
    for (int i = 0; i < 22; ++i) {
        const std::string name(200, static_cast<char>('a' + i));
        ASSERT_EQ(::mkdir(name.c_str(), 0755), 0);
        ASSERT_EQ(::chdir(name.c_str()), 0);
    }
    std::string relative = std::string(250, 'n');
    const std::string before = "[S]\nk=" + std::string(6000, 'v') + "\n";
    for (const std::string& path : {relative}) {
        writeFile(path, before);
        EXPECT_TRUE(CIniFile::SetValue("small", "1", "S", path)) << path.size();
        EXPECT_EQ(CIniFile::GetValue("small", "S", path), "1");
        writeFile(path, before);
        struct rlimit old {};
        ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
        auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        struct rlimit small = old;
        small.rlim_cur = 8192;
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
        bool saved = CIniFile::SetValue("big", std::string(4000, 'x'), "S", path);
        ::setrlimit(RLIMIT_FSIZE, &old);
        std::signal(SIGXFSZ, oldHandler);
        EXPECT_FALSE(saved);
        EXPECT_EQ(readFile(path), before) << "old content lost for a name of " << path.size();
    }
    EXPECT_EQ(entriesIn("."), 1u) << "no temporary file may be left behind";
    ASSERT_EQ(::chdir("/"), 0);
}

// A save keeps the file's group in a set-group-id folder and its extended attributes.
TEST(IniDiskPosix, SavingKeepsGroupAndExtendedAttributes) {
    TempDir dir;
    const std::string folder = dir.file("sgid");
    std::filesystem::create_directory(folder);
    const std::string path = folder + "/g.ini";
    writeFile(path, "[S]\nk=1\n");
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    const gid_t other = st.st_gid == 65534 ? 0 : 65534;
    bool sgid = ::chown(folder.c_str(), static_cast<uid_t>(-1), other) == 0 &&
                ::chmod(folder.c_str(), 02775) == 0;
    bool xattr = ::setxattr(path.c_str(), "user.qw", "tag", 3, 0) == 0;
    if (!sgid && !xattr) GTEST_SKIP() << "neither a group change nor user attributes work here";
    ASSERT_TRUE(CIniFile::SetValue("k", "2", "S", path));
    struct stat after {};
    ASSERT_EQ(::stat(path.c_str(), &after), 0);
    if (sgid) {
        EXPECT_EQ(after.st_gid, st.st_gid) << "the folder's group was given to the file";
    }
    if (xattr) {
        char value[8] = {};
        EXPECT_EQ(::getxattr(path.c_str(), "user.qw", value, sizeof value), 3);
        EXPECT_EQ(std::string(value), "tag");
    }
    EXPECT_EQ(entriesIn(folder), 1u);
}

// A save killed while writing leaves the old file and nothing else.
TEST(IniDiskPosix, ASaveKilledMidWriteLeavesNoTemporaryFile) {
    TempDir dir;
    const std::string path = dir.file("k.ini");
    writeFile(path, "[S]\nk=1\n");
    for (int delayMs : {5, 40}) {
        pid_t pid = ::fork();
        if (pid == 0) {
            CIniFile::SetValue("k", std::string(400u << 20, 'x'), "S", path);
            ::_exit(0);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        EXPECT_EQ(entriesIn(dir.path()), 1u) << "after " << delayMs << " ms";
    }
}

// Sorting a file of a great many blank lines reserves nothing per line; an edit that runs out of
// memory reports false instead of throwing.
TEST(IniDiskPosix, SortNeedsNoMemoryForBlankLinesAndFailsCleanlyWithout) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "an address-space limit does not work with a sanitizer's shadow memory";
#else
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    GTEST_SKIP() << "an address-space limit does not work with a sanitizer's shadow memory";
#endif
#endif
    TempDir dir;
    const std::string blanks = dir.file("blank.ini");
    writeFile(blanks, std::string(20u << 20, '\n') + "[b]\nx=1\n[a]\ny=2\n");
    const std::string headers = dir.file("headers.ini");
    std::string many;
    for (int i = 0; i < 1500000; ++i) many += "[h]\n";
    writeFile(headers, many);
    int code = inChild([&] {
        struct rlimit limit {};
        limit.rlim_cur = limit.rlim_max = 256u << 20;
        if (::setrlimit(RLIMIT_AS, &limit) != 0) return 3;
        try {
            if (!CIniFile::Sort(blanks, false)) return 4;
            if (CIniFile::Sort(headers, false)) return 5;
        } catch (...) {
            return 6;
        }
        return 0;
    });
    EXPECT_EQ(code, 0);
    EXPECT_EQ(CIniFile::GetValue("x", "b", blanks), "1");
    EXPECT_EQ(readFile(headers), many) << "a failed sort leaves the file as it was";
#endif
}

#endif  // !_WIN32
