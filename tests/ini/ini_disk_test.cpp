// Saving safely: a failed write (full disk, file size limit) leaves the old file whole, and the
// file's permissions, links and read-only state are respected.
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

using ini_test::entriesIn;
using ini_test::readFile;
using ini_test::TempDir;
using ini_test::writeFile;

namespace {

// Runs `body` without root's right to ignore permissions: as root, in a child process switched
// to the "nobody" user; otherwise directly. The folder must be open to that user.
bool withoutRoot(const std::function<bool()>& body) {
    if (::geteuid() != 0) return body();
    pid_t pid = ::fork();
    if (pid == 0) ::_exit(::setgid(65534) == 0 && ::setuid(65534) == 0 && body() ? 0 : 1);
    int status = 0;
    return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

// A file of about `size` bytes.
std::string bigIni(std::size_t size) {
    return "[S]\nk=" + std::string(size, 'v') + "\n";
}

}  // namespace

TEST(IniDisk, SavingKeepsPermissionsAndLinks) {
    TempDir dir;
    std::filesystem::create_directory(dir.file("real"));
    const std::string path = dir.file("real/p.ini");
    writeFile(path, "[S]\nk=1\n");
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    std::filesystem::create_symlink("real/p.ini", dir.file("link.ini"));
    ASSERT_TRUE(CIniFile::SetValue("k", "2", "S", dir.file("link.ini")));
    EXPECT_TRUE(std::filesystem::is_symlink(dir.file("link.ini")));
    EXPECT_EQ(CIniFile::GetValue("k", "S", path), "2");
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0640));
    EXPECT_EQ(entriesIn(dir.file("real")), 1u) << "no temporary file may be left behind";
    // A file with a second hard link stays one file.
    std::filesystem::create_hard_link(path, dir.file("hard.ini"));
    ASSERT_TRUE(CIniFile::SetValue("k", "3", "S", path));
    EXPECT_EQ(CIniFile::GetValue("k", "S", dir.file("hard.ini")), "3");
}

TEST(IniDisk, ReadOnlyFilesAreNeitherWrittenNorReplaced) {
    TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
    const std::string path = dir.file("ro.ini");
    writeFile(path, "[S]\nk=1\n");
    ASSERT_EQ(::chmod(path.c_str(), 0444), 0);
    EXPECT_TRUE(withoutRoot([&] {
        return !CIniFile::SetValue("k", "2", "S", path) && !CIniFile::Create(path) &&
               !CIniFile::Sort(path, false);
    }));
    EXPECT_EQ(readFile(path), "[S]\nk=1\n");
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0444));
    EXPECT_EQ(entriesIn(dir.path()), 1u);
}

// Where no temporary file can be made, the file is rewritten in place.
TEST(IniDisk, AFolderWithoutWriteAccessIsWrittenInPlace) {
    TempDir dir;
    const std::string path = dir.file("w.ini");
    writeFile(path, "[S]\nk=1\n");
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    ASSERT_EQ(::chmod(dir.path().c_str(), 0555), 0);
    EXPECT_TRUE(withoutRoot([&] { return CIniFile::SetValue("k", "2", "S", path); }));
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
    bool saved = CIniFile::SetValue("big", std::string(4000, 'x'), "S", path);
    ::setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, oldHandler);

    EXPECT_FALSE(saved);
    EXPECT_EQ(readFile(path), before);
    EXPECT_EQ(entriesIn(dir.path()), 1u) << "the temporary file must be removed";
}

// The same with a real full disk: a 64 KiB tmpfs (needs root and the right to mount).
TEST(IniDisk, AFullDiskLeavesTheOldFileWhole) {
    TempDir dir;
    const std::string mnt = dir.file("small");
    std::filesystem::create_directory(mnt);
    if (::mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "cannot mount a small tmpfs here; the file size limit test covers a "
                        "failing write instead";
    }
    const std::string path = mnt + "/full.ini";
    const std::string before = bigIni(40000);
    writeFile(path, before);
    bool saved = CIniFile::SetValue("big", std::string(30000, 'x'), "S", path);
    const std::string after = readFile(path);
    const std::size_t entries = entriesIn(mnt);
    ::umount2(mnt.c_str(), MNT_DETACH);

    EXPECT_FALSE(saved);
    EXPECT_EQ(after, before);
    EXPECT_EQ(entries, 1u);
}

#endif  // !_WIN32
