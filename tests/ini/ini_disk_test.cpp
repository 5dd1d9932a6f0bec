// Saving safely: a failed write (full disk, file size limit) leaves the old file whole, and the
// file's permissions, symbolic links, hard links and read-only state are respected.
#include <gtest/gtest.h>

#include <string>

#include "ini/ini_test_util.h"
#include "quelworks/ini/ini_file.h"

#if !defined(_WIN32)
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

using ini_test::readFile;
using ini_test::TempDir;
using ini_test::writeFile;

namespace {

mode_t modeOf(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

std::size_t entriesIn(const std::string& dir) {
    std::size_t n = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        (void)e;
        ++n;
    }
    return n;
}

// Runs `body` without root's right to ignore permissions: as root, in a child process switched
// to the "nobody" user; otherwise directly. The folder must be open to that user.
bool withoutRoot(const std::function<bool()>& body) {
    if (::geteuid() != 0) return body();
    pid_t pid = ::fork();
    if (pid == 0) {
        bool ok = ::setgid(65534) == 0 && ::setuid(65534) == 0 && body();
        ::_exit(ok ? 0 : 1);
    }
    int status = 0;
    return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

// A file of `size` bytes worth of entries in section S.
std::string bigIni(std::size_t size) {
    std::string text = "[S]\n";
    for (int i = 0; text.size() < size; ++i) text += "key" + std::to_string(i) + "=0123456789\n";
    return text;
}

}  // namespace

TEST(IniDisk, SavingReplacesTheFileAndKeepsItsPermissions) {
    TempDir dir;
    const std::string path = dir.file("p.ini");
    writeFile(path, "[S]\nk=1\n");
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    ASSERT_TRUE(CIniFile::SetValue("k", "2", "S", path));
    EXPECT_EQ(CIniFile::GetValue("k", "S", path), "2");
    EXPECT_EQ(modeOf(path), 0640u);
    EXPECT_EQ(entriesIn(dir.path()), 1u) << "no temporary file may be left behind";
}

TEST(IniDisk, SymbolicLinksAreFollowedAndKept) {
    TempDir dir;
    std::filesystem::create_directory(dir.file("real"));
    const std::string target = dir.file("real/t.ini");
    const std::string link = dir.file("link.ini");
    writeFile(target, "[S]\nk=1\n");
    std::filesystem::create_symlink("real/t.ini", link);
    ASSERT_TRUE(CIniFile::SetValue("k", "2", "S", link));
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(CIniFile::GetValue("k", "S", target), "2");
    EXPECT_EQ(entriesIn(dir.file("real")), 1u);
}

TEST(IniDisk, HardLinkedFilesStayShared) {
    TempDir dir;
    const std::string a = dir.file("a.ini");
    const std::string b = dir.file("b.ini");
    writeFile(a, "[S]\nk=1\n");
    std::filesystem::create_hard_link(a, b);
    ASSERT_TRUE(CIniFile::SetValue("k", "2", "S", a));
    EXPECT_EQ(CIniFile::GetValue("k", "S", b), "2");
    EXPECT_EQ(std::filesystem::hard_link_count(a), 2u);
}

TEST(IniDisk, ReadOnlyFilesAreNeitherWrittenNorReplaced) {
    TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
    const std::string path = dir.file("ro.ini");
    const std::string before = "[S]\nk=1\n";
    writeFile(path, before);
    ASSERT_EQ(::chmod(path.c_str(), 0444), 0);
    EXPECT_TRUE(withoutRoot([&] {
        return !CIniFile::SetValue("k", "2", "S", path) && !CIniFile::Create(path) &&
               !CIniFile::Sort(path, false);
    }));
    EXPECT_EQ(readFile(path), before);
    EXPECT_EQ(modeOf(path), 0444u);
    EXPECT_EQ(entriesIn(dir.path()), 1u);
}

TEST(IniDisk, AFolderWithoutWriteAccessIsWrittenInPlace) {
    TempDir dir;
    const std::string path = dir.file("w.ini");
    writeFile(path, "[S]\nk=1\n");
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    ASSERT_EQ(::chmod(dir.path().c_str(), 0555), 0);
    EXPECT_TRUE(withoutRoot([&] {
        return CIniFile::SetValue("k", "2", "S", path) && CIniFile::GetValue("k", "S", path) == "2";
    }));
    ::chmod(dir.path().c_str(), 0755);
    EXPECT_EQ(CIniFile::GetValue("k", "S", path), "2");
}

// A file size limit makes every write past it fail (EFBIG, with SIGXFSZ ignored): a full disk that
// needs no privileges. The new content is larger than the limit, the old one smaller.
TEST(IniDisk, AFailedWriteLeavesTheOldFileWhole) {
    TempDir dir;
    const std::string path = dir.file("full.ini");
    const std::string before = bigIni(6000);
    writeFile(path, before);

    struct rlimit old {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit small = old;
    small.rlim_cur = 8192;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    bool grew = CIniFile::SetValue("big", std::string(4000, 'x'), "S", path);
    bool commented = CIniFile::SetSectionComments(std::string(5000, '#'), "S", path);
    ::setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, oldHandler);

    EXPECT_FALSE(grew);
    EXPECT_FALSE(commented);
    EXPECT_EQ(readFile(path), before);
    EXPECT_EQ(entriesIn(dir.path()), 1u) << "the temporary file must be removed";
    // Within the limit the same edit goes through.
    EXPECT_TRUE(CIniFile::SetValue("big", "x", "S", path));
}

// The process dies in the middle of saving (killed by SIGXFSZ at the file size limit): the old
// file stays whole; only the unfinished temporary file is left beside it.
TEST(IniDisk, DyingWhileSavingLeavesTheOldFileWhole) {
    TempDir dir;
    const std::string path = dir.file("dies.ini");
    const std::string before = bigIni(6000);
    writeFile(path, before);
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        struct rlimit noCore {};
        ::setrlimit(RLIMIT_CORE, &noCore);
        std::signal(SIGXFSZ, SIG_DFL);
        struct rlimit small {};
        ::getrlimit(RLIMIT_FSIZE, &small);
        small.rlim_cur = 8192;
        ::setrlimit(RLIMIT_FSIZE, &small);
        CIniFile::SetValue("big", std::string(4000, 'x'), "S", path);
        ::_exit(0);  // not reached: the write past the limit kills the process
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ);
    EXPECT_EQ(readFile(path), before);
    EXPECT_LE(entriesIn(dir.path()), 2u);
}

// The same with a real full disk: a 64 KiB tmpfs (needs root and the right to mount).
TEST(IniDisk, AFullDiskLeavesTheOldFileWhole) {
    TempDir dir;
    const std::string mnt = dir.file("small");
    std::filesystem::create_directory(mnt);
    if (::mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "cannot mount a small tmpfs here (needs root and mount rights); the "
                        "file size limit test covers a failing write instead";
    }
    const std::string path = mnt + "/full.ini";
    const std::string before = bigIni(40000);
    writeFile(path, before);
    EXPECT_EQ(readFile(path), before);
    bool saved = CIniFile::SetValue("big", std::string(30000, 'x'), "S", path);
    std::string after = readFile(path);
    std::size_t entries = entriesIn(mnt);
    ::umount2(mnt.c_str(), MNT_DETACH);

    EXPECT_FALSE(saved);
    EXPECT_EQ(after, before);
    EXPECT_EQ(entries, 1u);
}

#endif  // !_WIN32
