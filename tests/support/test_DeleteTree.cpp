#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/ProtectedDirectories.h"
#include "tools/Elsewhere.h"
#include "tools/PrivateWorld.h"
#include "tools/TempDir.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
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

TEST(DeleteTree, OnlyAFolderOfItsOwnMayBeDeleted)
{
    const std::pair<std::string, std::vector<const char*>> tCases[] = {
        {"own",
         {"/opt/velmo", "/srv/db", "/var/lib/velmo", "/usr/local/velmo", "/usr/local/lib/velmo",
          "/home/joe/servers", "/root/servers", "/usrlocal/x"}},
        {"not the one plain name", {"", "relative/dir", "/opt/a/../..", "/opt/./a", "/opt//a", "/opt/a/"}},
        {"shared by many",
         {"/", "/opt", "/anything", "/usr", "/usr/local", "/var", "/var/lib", "/home", "/home/joe"}},
        {"programs",
         {"/usr/bin", "/usr/local/bin", "/usr/local/bin/x", "/usr/localx/y", "/sbin/x", "/lib64"}},
        {"the system's",
         {"/etc/systemd", "/boot/grub", "/var/log/velmo", "/var/lib/dpkg/info", "/var/lib/systemd"}},
        {"no disk", {"/dev/shm/x", "/proc/1", "/sys/fs", "/run/x"}},
    };
    for (const auto& [csKind, tPaths] : tCases) {
        for (const char* psz : tPaths) {
            EXPECT_EQ(bOwnFolder(psz), csKind == "own") << psz << " " << csKind;
        }
    }
}

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
    const std::pair<std::wstring, int> tCases[] = {{L"", EPERM},
                                                   {L"tree", EPERM},
                                                   {cs + L"link", EPERM},
                                                   {cs + L"tree/sub/../sub", EPERM},
                                                   {cs + L"tree/sub" + L'\0', EPERM},
                                                   {cs + L"tree/sub/file", ENOTDIR},
                                                   {cs + L"gone", ENOENT}};
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
    rlimit stOld{};
    ::getrlimit(RLIMIT_NOFILE, &stOld);
    const rlimit stFew{64, stOld.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &stFew), 0);
    OnWorker([&] { EXPECT_EQ(nDelete(clDir.csWidePath("tree")), 0); });
    ::setrlimit(RLIMIT_NOFILE, &stOld);
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
    ::umount2(csTmpfs.c_str(), MNT_DETACH);
    ::umount2(csBind.c_str(), MNT_DETACH);
}

TEST(DeleteTree, RefusesTheSystemsDirectoriesByTheirResolvedNames)
{
    REQUIRE_PRIVATE_WORLD();
    // A root directory of its own: no name in it reaches the real system.
    const CTempDir clRoot;
    for (const char* psz : {"usr/bin", "etc/x", "opt/velmo", "home/joe"}) {
        clRoot.csWrite(std::string(psz) + "/file", "x");
    }
    fs::create_directory_symlink("/usr/bin", clRoot.csPath("bin"));
    fs::create_directory_symlink("/usr", clRoot.csPath("opt/usr"));
    InChild([&clRoot] {
        ASSERT_TRUE(::chroot(clRoot.csPath().c_str()) == 0 && ::chdir("/") == 0);
        for (const wchar_t* psz :
             {L"/", L"//", L"/usr/", L"/bin/", L"/home/joe", L"/etc/x", L"/opt/usr/bin"}) {
            EXPECT_EQ(nDelete(psz), EPERM) << csToUTF8(psz);
        }
        EXPECT_EQ(nDelete(L"/opt/velmo"), 0);
    });
    for (const char* psz : {"usr/bin/file", "etc/x/file", "home/joe/file"}) {
        EXPECT_TRUE(clRoot.bExists(psz)) << psz;
    }
    EXPECT_FALSE(clRoot.bExists("opt/velmo"));
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
