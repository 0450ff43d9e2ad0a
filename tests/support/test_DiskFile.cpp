#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "tools/Elsewhere.h"
#include "tools/PrivateWorld.h"
#include "tools/SoftLimit.h"
#include "tools/TempDir.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {
/// The error number of a deletion, 0 when it succeeded.
int nDelete(const std::wstring& csPath)
{
    CXError clError;
    return CDiskFile::bDeleteTree(csPath, &clError) ? 0 : clError.nGetSystemError();
}
} // namespace

TEST(DeleteTree, LeavesNothingAndFollowsNoLink)
{
    const CTempDir clDir;
    clDir.csWrite("outside/keep", "x");
    clDir.csWrite("tree/a/b/file", "x", 0);
    clDir.csWrite("tree/.hidden/\xFF name\n", "x");
    clDir.csMakeDirectory("tree/empty");
    fs::create_directory_symlink(clDir.csPath("outside"), clDir.csPath("tree/a/linkdir"));
    fs::create_symlink(clDir.csPath("outside/keep"), clDir.csPath("tree/link"));
    fs::create_symlink("/gone", clDir.csPath("tree/dangling"));
    ASSERT_EQ(::mkfifo(clDir.csPath("tree/fifo").c_str(), 0600), 0);
    fs::create_directory_symlink(clDir.csPath(), clDir.csPath("parent")); // above the tree it is no obstacle
    EXPECT_EQ(nDelete(clDir.csWidePath("parent/tree/")), 0);
    EXPECT_FALSE(clDir.bExists("tree"));
    EXPECT_TRUE(clDir.bExists("outside/keep"));
}

TEST(DeleteTree, RefusesWhatItsCallerCannotHaveMeant)
{
    const CTempDir clDir;
    clDir.csWrite("tree/sub/file", "x");
    fs::create_directory_symlink(clDir.csPath("tree"), clDir.csPath("link"));
    ASSERT_EQ(::chdir(clDir.csPath().c_str()), 0);
    const std::wstring cs = clDir.csWidePath() + L"/";
    const std::pair<std::wstring, int> tCases[] = {
        {L"", EPERM},
        {L"tree", EPERM},
        {cs + L"link", EPERM},
        {cs + L"tree/sub/../sub", EPERM},
        {cs + L"tree/sub" + L'\0', EPERM},
        {cs + L"tree/sub/file", ENOTDIR},
        {cs + L"gone", ENOENT},
    };
    for (const auto& [csPath, nErrno] : tCases) {
        EXPECT_EQ(nDelete(csPath), nErrno) << csToUTF8(csPath);
    }
    ASSERT_EQ(::chdir("/"), 0);
    EXPECT_TRUE(clDir.bExists("tree/sub/file"));
}

TEST(DeleteTree, ADeepTreeFitsAWorkersStackAndFewDescriptors)
{
    const CTempDir clDir;
    int nFd = ::open(clDir.csMakeDirectory("tree").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int n = 0; n < 2000; ++n) { // three times the longest path
        ASSERT_EQ(::mkdirat(nFd, "level", 0700), 0);
        const int nBelow = ::openat(nFd, "level", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(nFd);
        nFd = nBelow;
    }
    ::close(nFd);
    {
        const CSoftLimit clFew(RLIMIT_NOFILE, 64);
        OnWorker([&] { EXPECT_EQ(nDelete(clDir.csWidePath("tree")), 0); });
    }
    EXPECT_FALSE(clDir.bExists("tree"));
}

TEST(DeleteTree, CrossesNoMountAndReportsIt)
{
    REQUIRE_PRIVATE_WORLD();
    const CTempDir clDir;
    clDir.csWrite("outside/keep", "x");
    clDir.csWrite("tree/goes", "");
    const std::string csTmpfs = clDir.csMakeDirectory("tree/tmpfs");
    const std::string csBind = clDir.csMakeDirectory("tree/bind");
    ASSERT_EQ(::mount("tmpfs", csTmpfs.c_str(), "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(::mount(clDir.csPath("outside").c_str(), csBind.c_str(), nullptr, MS_BIND, nullptr), 0);
    clDir.csWrite("tree/tmpfs/keep", "x");
    EXPECT_EQ(nDelete(clDir.csWidePath("tree")), EBUSY);
    EXPECT_FALSE(clDir.bExists("tree/goes"));
    EXPECT_EQ(nDelete(clDir.csWidePath("tree/tmpfs")), EPERM);
    EXPECT_EQ(nDelete(clDir.csWidePath("tree/bind")), EPERM);
    EXPECT_TRUE(clDir.bExists("tree/tmpfs/keep"));
    EXPECT_TRUE(clDir.bExists("outside/keep"));
}

TEST(DeleteTree, DeletesOnlyAFolderOfItsOwnByItsResolvedName)
{
    REQUIRE_PRIVATE_WORLD();
    // A root directory of its own: no name in it reaches the real system.
    const CTempDir clRoot;
    fs::create_directories(clRoot.csPath("usr/bin"));
    fs::create_directories(clRoot.csPath("opt"));
    fs::create_directory_symlink("/usr/bin", clRoot.csPath("bin"));
    fs::create_directory_symlink("/usr", clRoot.csPath("opt/usr"));
    const std::vector<std::string> tOwn = {"/opt/velmo",           "/srv/db",           "/var/lib/velmo",
                                           "/usr/local/velmo",     "/home/joe/servers", "/root/servers",
                                           "/usr/local/lib/velmo", "/usrlocal/x"};
    const std::vector<std::string> tOthers[] = {
        {"/", "//", "/opt", "/anything", "/usr/", "/usr/local", "/var", "/var/lib", "/home", "/home/joe"},
        {"/bin/", "/opt/usr/bin", "/usr/local/bin", "/usr/local/bin/x", "/usr/localx/y", "/sbin/x", "/lib64"},
        {"/etc/systemd", "/boot/grub", "/var/log/velmo", "/var/lib/dpkg/info", "/var/lib/systemd"},
        {"/dev/shm/x", "/proc/1", "/sys/fs", "/run/x"},
    };
    const auto Expect = [](const std::vector<std::string>& tPaths, int nErrno) {
        for (const std::string& csPath : tPaths) {
            fs::create_directories(csPath + "/folder");
            EXPECT_EQ(nDelete(csFromUTF8(csPath)), nErrno) << csPath;
            EXPECT_EQ(fs::exists(csPath + "/folder"), nErrno != 0) << csPath;
        }
    };
    InChild([&] {
        ASSERT_TRUE(::chroot(clRoot.csPath().c_str()) == 0 && ::chdir("/") == 0);
        Expect(tOwn, 0);
        for (const auto& tPaths : tOthers) {
            Expect(tPaths, EPERM);
        }
    });
}

TEST(DeleteTree, WhatCannotGoIsToldByItsPath)
{
    REQUIRE_PRIVATE_WORLD();
    const CTempDir clDir;
    clDir.csWrite("tree/locked/file", "x");
    clDir.csWrite("tree/open/file", "x");
    for (const char* psz : {"tree", "tree/open", ""}) {
        ::chmod(clDir.csPath(psz).c_str(), 0777);
    }
    InChild([&clDir] {
        ASSERT_TRUE(::setresgid(65534, 65534, 65534) == 0 && ::setresuid(65534, 65534, 65534) == 0);
        CXError clError;
        EXPECT_FALSE(CDiskFile::bDeleteTree(clDir.csWidePath("tree"), &clError));
        EXPECT_EQ(clError.nGetSystemError(), EACCES);
        EXPECT_EQ(clError.csGetMessage(), L"delete " + clDir.csWidePath("tree/locked/file"));
    });
    EXPECT_TRUE(clDir.bExists("tree/locked/file"));
    EXPECT_FALSE(clDir.bExists("tree/open"));
}

TEST(DiskFile, NamesAreTheSameByTextOrByWhatTheyName)
{
    const CTempDir clDir;
    clDir.csWrite("d/file", "x");
    fs::create_directory_symlink(clDir.csPath("d"), clDir.csPath("link"));
    fs::create_hard_link(clDir.csPath("d/file"), clDir.csPath("hard"));
    const std::wstring cs = clDir.csWidePath();
    const std::tuple<std::wstring, std::wstring, bool, bool> tCases[] = {
        {L"/gone/x/", L"\\gone\\\\x", true, true},
        {L"/gone/x", L"/gone/y", false, false},
        {L"", L"", false, false},
        {L"/", L"//", true, true},
        {cs + L"/d", cs + L"/link/", true, true},
        {cs + L"/d/file", cs + L"/hard", false, true},
        {cs + L"/d" + L'\0' + L"x", cs + L"/link", false, false},
    };
    for (const auto& [cs1, cs2, bDirectory, bFile] : tCases) {
        SCOPED_TRACE(csToUTF8(cs1 + L" against " + cs2));
        EXPECT_EQ(CDiskFile::bSameDirectoryName(cs1, cs2), bDirectory);
        EXPECT_EQ(CDiskFile::bSameFileName(cs1, cs2), bFile);
    }
}

TEST(DiskFile, DirectoriesAreCreatedWithTheirParentsAndNotDeletedAsFiles)
{
    const CTempDir clDir;
    clDir.csWrite("file", "x");
    for (const auto& [pszPath, nErrno] : {std::pair{L"/a/b/c", 0},
                                          {L"/a/b/c/", 0},
                                          {L"/a//\u00E9/x\\y", 0},
                                          {L"", 0},
                                          {L"/file", EEXIST},
                                          {L"/file/x", ENOTDIR}}) {
        CXError clError;
        EXPECT_EQ(CDiskFile::bCreateDirectory(clDir.csWidePath() + pszPath, &clError), nErrno == 0);
        EXPECT_EQ(clError.nGetSystemError(), nErrno) << csToUTF8(pszPath);
    }
    EXPECT_TRUE(fs::is_directory(clDir.csPath("a/\u00E9/x/y")));
    EXPECT_FALSE(CDiskFile::bDelete(clDir.csWidePath("a/b/c")));
    EXPECT_TRUE(CDiskFile::bDirectoryExists(clDir.csWidePath("a/b/c")));
    EXPECT_TRUE(CDiskFile::bDelete(clDir.csWidePath("file")));
    EXPECT_FALSE(CDiskFile::bExists(clDir.csWidePath("file")));
}

TEST(DiskFile, AFileIsReplacedWholeUnderAllItsNames)
{
    const CTempDir clDir;
    clDir.csWrite("old", "long old content", 0640);
    fs::create_symlink("old", clDir.csPath("link"));
    ASSERT_TRUE(CDiskFile::bWriteFile(clDir.csWidePath("link"), std::string("new\0", 4)));
    EXPECT_EQ(clDir.csRead("old"), std::string("new\0", 4));
    EXPECT_TRUE(fs::is_symlink(clDir.csPath("link")));
    EXPECT_EQ(fs::status(clDir.csPath("old")).permissions(), fs::perms(0640));
    fs::create_hard_link(clDir.csPath("old"), clDir.csPath("hard"));
    ASSERT_TRUE(CDiskFile::bWriteFile(clDir.csWidePath("hard"), "newer"));
    EXPECT_EQ(clDir.csRead("old"), "newer");
    EXPECT_EQ(std::distance(fs::directory_iterator(clDir.csPath()), {}), 3); // nothing left behind
    for (const auto& [csPath, nErrno] :
         {std::pair{clDir.csWidePath("no/such"), ENOENT}, {clDir.csWidePath(), EISDIR}}) {
        CXError clError;
        EXPECT_FALSE(CDiskFile::bWriteFile(csPath, "x", &clError));
        EXPECT_EQ(clError.nGetSystemError(), nErrno) << csToUTF8(csPath);
    }
}

TEST(DiskFile, ReadingTakesRegularFilesOfABoundedSizeOnly)
{
    const CTempDir clDir;
    clDir.csWrite("f", std::string(40000, 'x'));
    ASSERT_EQ(::mkfifo(clDir.csPath("fifo").c_str(), 0600), 0);
    std::string cs;
    EXPECT_TRUE(CDiskFile::bReadFile(clDir.csWidePath("f"), &cs, 40000));
    EXPECT_EQ(cs.size(), 40000u);
    EXPECT_TRUE(CDiskFile::bReadFile(L"/proc/self/status", &cs)); // tells no size
    EXPECT_NE(cs.find("VmRSS"), cs.npos);
    const std::pair<std::wstring, int> tCases[] = {
        {clDir.csWidePath("f"), EFBIG},         {clDir.csWidePath("fifo"), EINVAL},
        {clDir.csWidePath(), EISDIR},           {L"/dev/zero", EINVAL},
        {clDir.csWidePath("gone"), ENOENT},     {L"", ENOENT},
        {clDir.csWidePath("f") + L'\0', ENOENT}};
    for (const auto& [csPath, nErrno] : tCases) {
        CXError clError;
        EXPECT_FALSE(CDiskFile::bReadFile(csPath, &cs, 39999, &clError));
        EXPECT_EQ(clError.nGetSystemError(), nErrno) << csToUTF8(csPath);
    }
}
