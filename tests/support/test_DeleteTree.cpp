#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/ProtectedDirectories.h"
#include "support/ZTThread.h"
#include "tools/PrivateMounts.h"
#include "tools/TempDir.h"
#include "tools/Wait.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

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
    const struct
    {
        const char* pszPath;
        bool bOwn;
    } tCases[] = {
        {"/opt/velmo", true},
        {"/opt/velmo/server1", true},
        {"/srv/db", true},
        {"/var/lib/velmo", true},
        {"/usr/local/velmo", true},
        {"/usr/local/lib/velmo", true},
        {"/home/joe/servers", true},
        {"/root/servers", true},
        {"/tmp/x", true},
        {"/mnt/disk/servers", true},
        {"/usrlocal/x", true},
        {"/usr/localx/y", false},
        {"/", false},
        {"", false},
        {"relative/dir", false},
        {"/opt", false},
        {"/anything", false},
        {"/tmp", false},
        {"/usr", false},
        {"/usr/bin", false},
        {"/usr/lib/systemd/system", false},
        {"/usr/local", false},
        {"/usr/local/bin", false},
        {"/usr/local/bin/x", false},
        {"/bin", false},
        {"/sbin/x", false},
        {"/lib/x86_64-linux-gnu", false},
        {"/lib64", false},
        {"/etc/systemd", false},
        {"/etc/init.d", false},
        {"/boot/grub", false},
        {"/dev/shm/x", false},
        {"/proc/1", false},
        {"/sys/fs", false},
        {"/run/x", false},
        {"/var", false},
        {"/var/lib", false},
        {"/var/run", false},
        {"/var/log/velmo", false},
        {"/var/lib/dpkg/info", false},
        {"/var/lib/systemd", false},
        {"/home", false},
        {"/home/joe", false},
        {"/root", false},
        {"/opt/a/../..", false},
        {"/opt/./a", false},
        {"/opt//a", false},
        {"/opt/a/", false},
    };
    for (const auto& st : tCases) {
        EXPECT_EQ(bOwnFolder(st.pszPath), st.bOwn) << st.pszPath;
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
    for (int n = 0; n < 300; ++n) {
        clDir.csWrite("tree/wide/f" + std::to_string(n), "");
        ::mkdir(clDir.csPath("tree/wide/d" + std::to_string(n)).c_str(), 0700);
    }
    fs::create_directory_symlink(clDir.csPath(),
                                 clDir.csPath("parent")); // a link above the tree is no obstacle
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
    const struct
    {
        std::wstring csPath;
        int nErrno;
    } tCases[] = {
        {L"", EPERM},
        {L"tree", EPERM},
        {L"./tree", EPERM},
        {clDir.csWidePath("link"), EPERM},
        {clDir.csWidePath("link/"), EPERM},
        {clDir.csWidePath("tree/sub/.."), EPERM},
        {clDir.csWidePath("tree/sub/../sub"), EPERM},
        {clDir.csWidePath("tree/sub") + L'\0', EPERM},
        {clDir.csWidePath("tree/sub/file"), ENOTDIR},
        {clDir.csWidePath("gone"), ENOENT},
    };
    for (const auto& st : tCases) {
        EXPECT_EQ(nDelete(st.csPath), st.nErrno) << csToUTF8(st.csPath);
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
    struct STWorker : CZTThread
    {
        std::wstring csPath;
        std::atomic<int> nResult{-1};
        ~STWorker() override { Stop(1); }
        static void Run(CZTThread* pclThread)
        {
            auto* pcl = static_cast<STWorker*>(pclThread);
            pcl->Started();
            pcl->nResult = nDelete(pcl->csPath);
            pcl->Stopped();
        }
    };
    rlimit stOld{};
    ::getrlimit(RLIMIT_NOFILE, &stOld);
    const rlimit stFew{64, stOld.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &stFew), 0);
    STWorker clWorker;
    clWorker.csPath = clDir.csWidePath("tree");
    ASSERT_EQ(clWorker.eStart(&STWorker::Run, nullptr, 0, 0), CZTThread::START_OK);
    EXPECT_TRUE(bWaitUntil([&] { return clWorker.nResult >= 0; }, 30000));
    ::setrlimit(RLIMIT_NOFILE, &stOld);
    EXPECT_EQ(clWorker.nResult, 0);
    EXPECT_FALSE(clDir.bExists("tree"));
}

TEST(DeleteTree, CrossesNoMountAndReportsIt)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to mount";
    }
    const CTempDir clDir;
    clDir.csWrite("outside/keep", "x");
    for (const char* psz : {"tmpfs", "bind"}) {
        clDir.csMakeDirectory(std::string("tree/") + psz);
    }
    clDir.csWrite("tree/file", "");
    clDir.csWrite("tree/goes", "");
    const int nResult = nInPrivateMounts([&clDir] {
        const std::string csOutside = clDir.csPath("outside");
        if (::mount("tmpfs", clDir.csPath("tree/tmpfs").c_str(), "tmpfs", 0, nullptr) != 0 ||
            ::mount(csOutside.c_str(), clDir.csPath("tree/bind").c_str(), nullptr, MS_BIND, nullptr) != 0 ||
            ::mount(clDir.csPath("outside/keep").c_str(), clDir.csPath("tree/file").c_str(), nullptr, MS_BIND,
                    nullptr) != 0) {
            return 201;
        }
        clDir.csWrite("tree/tmpfs/keep", "x");
        const bool bKept = nDelete(clDir.csWidePath("tree")) == EBUSY && clDir.bExists("tree/tmpfs/keep") &&
                           clDir.bExists("tree/bind/keep") && clDir.bExists("tree/file") &&
                           !clDir.bExists("tree/goes");
        const bool bMountsRefused = nDelete(clDir.csWidePath("tree/tmpfs")) == EPERM &&
                                    nDelete(clDir.csWidePath("tree/bind")) == EPERM &&
                                    clDir.bExists("tree/bind/keep");
        return bKept && bMountsRefused ? 0 : 1;
    });
    EXPECT_EQ(nResult, 0);
    EXPECT_TRUE(clDir.bExists("outside/keep"));
}

TEST(DeleteTree, RefusesTheSystemsDirectoriesByTheirResolvedNames)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to change the root directory";
    }
    // A root directory of its own: no name in it reaches the real system.
    const CTempDir clRoot;
    for (const char* psz :
         {"usr/bin", "usr/lib", "etc/x", "var/lib/velmo", "opt/velmo", "home/joe", "opt/mine", "run/x"}) {
        clRoot.csWrite(std::string(psz) + "/file", "x");
    }
    fs::create_directory_symlink("/usr/bin", clRoot.csPath("bin"));
    fs::create_directory_symlink("/usr", clRoot.csPath("opt/usr"));
    const int nResult = nInPrivateMounts([&clRoot] {
        if (::chroot(clRoot.csPath().c_str()) != 0 || ::chdir("/") != 0) {
            return 201;
        }
        for (const wchar_t* psz :
             {L"/", L"//", L"/usr", L"/usr/", L"/usr/bin", L"/bin", L"/bin/", L"/opt", L"/home", L"/home/joe",
              L"/etc/x", L"/run/x", L"/var/lib", L"/opt/usr/bin", L"/opt/usr"}) {
            if (nDelete(psz) != EPERM) {
                return 1;
            }
        }
        return nDelete(L"/opt/velmo") == 0 && nDelete(L"/var/lib/velmo") == 0 ? 0 : 2;
    });
    EXPECT_EQ(nResult, 0);
    for (const char* psz :
         {"usr/bin/file", "usr/lib/file", "etc/x/file", "home/joe/file", "opt/mine/file", "run/x/file"}) {
        EXPECT_TRUE(clRoot.bExists(psz)) << psz;
    }
    EXPECT_FALSE(clRoot.bExists("opt/velmo"));
}

TEST(DeleteTree, WhatCannotGoIsToldByItsPath)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to take on another user";
    }
    const CTempDir clDir;
    clDir.csWrite("tree/locked/file", "x");
    clDir.csWrite("tree/open/file", "x");
    for (const char* psz : {"tree", "tree/open", ""}) {
        ::chmod(clDir.csPath(psz).c_str(), 0777);
    }
    const int nResult = nInPrivateMounts([&clDir] {
        CXError clError;
        const bool bUser = ::setresgid(65534, 65534, 65534) == 0 && ::setresuid(65534, 65534, 65534) == 0;
        const bool bDeleted = CDiskFile::bDeleteTree(clDir.csWidePath("tree"), &clError);
        return bUser && !bDeleted && clError.nGetSystemError() == EACCES &&
                       clError.csGetMessage() == L"delete " + clDir.csWidePath("tree/locked/file")
                   ? 0
                   : 1;
    });
    EXPECT_EQ(nResult, 0);
    EXPECT_TRUE(clDir.bExists("tree/locked/file"));
    EXPECT_FALSE(clDir.bExists("tree/open"));
}
