#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/Shell.h"
#include "tools/PrivateMounts.h"
#include "tools/TempDir.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

TEST(DiskFile, PathsAreSplitAtTheLastSlash)
{
    const struct
    {
        const wchar_t* pszPath;
        const wchar_t* pszDirectory;
        const wchar_t* pszName;
        const wchar_t* pszWithSlash;
    } tCases[] = {
        {L"/a/b/c", L"/a/b/", L"c", L"/a/b/c/"},
        {L"name", L"", L"name", L"name/"},
        {L"/", L"/", L"", L"/"},
        {L"", L"", L"", L""},
        {L"a/", L"a/", L"", L"a/"},
        {L"C:\\x\\y", L"", L"C:\\x\\y", L"C:/x/y/"},
        {L"/a\\", L"/", L"a\\", L"/a/"},
    };
    for (const auto& st : tCases) {
        std::wstring csDirectory;
        std::wstring csName;
        CDiskFile::__SplitPath(st.pszPath, &csDirectory, &csName);
        EXPECT_EQ(csDirectory, st.pszDirectory);
        EXPECT_EQ(csName, st.pszName);
        EXPECT_EQ(CDiskFile::csDirectory(st.pszPath), st.pszDirectory);
        EXPECT_EQ(CDiskFile::DirectoryWithEndSlash(st.pszPath), st.pszWithSlash);
    }
}

TEST(DiskFile, NamesAreTheSameByTextOrByWhatTheyName)
{
    const CTempDir clDir;
    clDir.csWrite("d/file", "x");
    fs::create_directory_symlink(clDir.csPath("d"), clDir.csPath("link"));
    fs::create_hard_link(clDir.csPath("d/file"), clDir.csPath("hard"));
    const std::wstring cs = clDir.csWidePath();
    const struct
    {
        std::wstring cs1;
        std::wstring cs2;
        bool bDirectory;
        bool bFile;
    } tCases[] = {
        {L"/gone/x", L"/gone/x", true, true},
        {L"/gone/x/", L"\\gone\\\\x", true, true},
        {L"/gone/x", L"/gone/y", false, false},
        {L"", L"", false, false},
        {L"/", L"//", true, true},
        {L"", L"/", false, false},
        {cs + L"/d", cs + L"/link/", true, true},
        {cs + L"/d", cs + L"/d/../d", true, true},
        {cs + L"/d/file", cs + L"/hard", false, true},
        {cs + L"/d", cs, false, false},
        {cs + L"/d" + L'\0' + L"x", cs + L"/link", false, false},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(csToUTF8(st.cs1 + L" against " + st.cs2));
        EXPECT_EQ(CDiskFile::bSameDirectoryName(st.cs1, st.cs2), st.bDirectory);
        EXPECT_EQ(CDiskFile::bSameFileName(st.cs1, st.cs2), st.bFile);
    }
}

TEST(DiskFile, DirectoriesAreCreatedWithTheirParents)
{
    const CTempDir clDir;
    clDir.csWrite("file", "x");
    const struct
    {
        const wchar_t* pszPath;
        int nErrno;
    } tCases[] = {{L"/a/b/c", 0}, {L"/a/b/c/", 0},    {L"/a//\u00E9/x\\y", 0},
                  {L"", 0},       {L"/file", EEXIST}, {L"/file/x", ENOTDIR}};
    for (const auto& st : tCases) {
        CXError clError;
        EXPECT_EQ(CDiskFile::bCreateDirectory(clDir.csWidePath() + st.pszPath, &clError), st.nErrno == 0);
        EXPECT_EQ(clError.nGetSystemError(), st.nErrno) << csToUTF8(st.pszPath);
    }
    EXPECT_TRUE(fs::is_directory(clDir.csPath("a/\u00E9/x/y")));
    EXPECT_FALSE(CDiskFile::bCreateDirectory(L""));
}

TEST(DiskFile, AFileIsReplacedWholeAndKeepsItsKind)
{
    const CTempDir clDir;
    clDir.csWrite("old", "long old content", 0640);
    fs::create_symlink("old", clDir.csPath("link"));
    ASSERT_TRUE(CDiskFile::bWriteFile(clDir.csWidePath("link"), std::string("new\0", 4)));
    EXPECT_EQ(clDir.csRead("old"), std::string("new\0", 4));
    EXPECT_TRUE(fs::is_symlink(clDir.csPath("link")));
    struct stat st
    {};
    ::stat(clDir.csPath("old").c_str(), &st);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    ASSERT_TRUE(CDiskFile::bWriteFile(clDir.csWidePath("fresh"), ""));
    EXPECT_TRUE(CDiskFile::bWriteFile(L"/dev/null", "x"));
    EXPECT_EQ(std::distance(fs::directory_iterator(clDir.csPath()), {}), 3); // nothing left behind
    CXError clError;
    EXPECT_FALSE(CDiskFile::bWriteFile(L"/dev/full", "x", &clError));
    EXPECT_EQ(clError.nGetSystemError(), ENOSPC);
    EXPECT_FALSE(CDiskFile::bWriteFile(clDir.csWidePath("no/such"), "x", &clError));
    EXPECT_EQ(clError.nGetSystemError(), ENOENT);
    EXPECT_FALSE(CDiskFile::bWriteFile(clDir.csWidePath(), "x", &clError));
    EXPECT_EQ(clError.nGetSystemError(), EISDIR);
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
    const struct
    {
        std::wstring csPath;
        int nErrno;
    } tCases[] = {{clDir.csWidePath("f"), EFBIG},         {clDir.csWidePath("fifo"), EINVAL},
                  {clDir.csWidePath(), EINVAL},           {L"/dev/zero", EINVAL},
                  {clDir.csWidePath("gone"), ENOENT},     {L"", ENOENT},
                  {clDir.csWidePath("f") + L'\0', ENOENT}};
    for (const auto& st : tCases) {
        CXError clError;
        EXPECT_FALSE(CDiskFile::bReadFile(st.csPath, &cs, 39999, &clError));
        EXPECT_EQ(clError.nGetSystemError(), st.nErrno) << csToUTF8(st.csPath);
    }
}

TEST(DiskFile, DeletingTakesFilesAndLinksOnly)
{
    const CTempDir clDir;
    clDir.csWrite("d/f", "x");
    EXPECT_TRUE(CDiskFile::bDelete(clDir.csWidePath("d/f")));
    EXPECT_FALSE(CDiskFile::bExists(clDir.csWidePath("d/f")));
    EXPECT_FALSE(CDiskFile::bDelete(clDir.csWidePath("d")));
    EXPECT_TRUE(CDiskFile::bDirectoryExists(clDir.csWidePath("d")));
}

TEST(Shell, ReturnsTheWaitStatus)
{
    const struct
    {
        const char* pszCommand;
        int nStatus;
    } tCases[] = {{"exit 3", W_EXITCODE(3, 0)},
                  {"true", 0},
                  {"kill -9 $$", SIGKILL},
                  {"/no/such/program 2>/dev/null", W_EXITCODE(127, 0)}};
    for (const auto& st : tCases) {
        EXPECT_EQ(nShell(st.pszCommand), st.nStatus) << st.pszCommand;
    }
}

TEST(Shell, StartsWithCleanSignalsAndNoStrayDescriptor)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to mount";
    }
    const int nResult = nInPrivateMounts([] {
        // Some shells clear the blocked signals themselves; this one keeps what it is given.
        if (::mount("/bin/bash", "/bin/sh", nullptr, MS_BIND, nullptr) != 0) {
            return 201;
        }
        sigset_t stBlocked;
        sigemptyset(&stBlocked);
        sigaddset(&stBlocked, SIGTERM);
        sigaddset(&stBlocked, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &stBlocked, nullptr);
        signal(SIGPIPE, SIG_IGN);
        ::dup2(STDIN_FILENO, 77); // inheritable on purpose
        const bool bNoneBlocked = nShell("grep -q '^SigBlk:[[:space:]]0*$' /proc/self/status") == 0;
        // The C library keeps the two signals of its own thread library ignored in whatever it spawns.
        const bool bNoneIgnored =
            nShell("grep -Eq '^SigIgn:[[:space:]]0*(180000000)?$' /proc/self/status") == 0;
        const bool bNoneOpen = nShell("test ! -e /proc/$$/fd/77") == 0;
        return (bNoneBlocked ? 0 : 1) + (bNoneIgnored ? 0 : 2) + (bNoneOpen ? 0 : 4);
    });
    EXPECT_EQ(nResult, 0);
}
