#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/Shell.h"
#include "tools/Elsewhere.h"
#include "tools/PrivateWorld.h"
#include "tools/TempDir.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

TEST(DiskFile, PathsAreSplitAtTheLastSlash)
{
    const std::tuple<const wchar_t*, const wchar_t*, const wchar_t*, const wchar_t*> tCases[] = {
        {L"/a/b/c", L"/a/b/", L"c", L"/a/b/c/"},
        {L"name", L"", L"name", L"name/"},
        {L"/", L"/", L"", L"/"},
        {L"", L"", L"", L""},
        {L"C:\\x\\y", L"", L"C:\\x\\y", L"C:/x/y/"},
        {L"/a\\", L"/", L"a\\", L"/a/"},
    };
    for (const auto& [pszPath, pszDirectory, pszName, pszWithSlash] : tCases) {
        std::wstring csDirectory;
        std::wstring csName;
        CDiskFile::__SplitPath(pszPath, &csDirectory, &csName);
        EXPECT_EQ(csDirectory, pszDirectory);
        EXPECT_EQ(csName, pszName);
        EXPECT_EQ(CDiskFile::csDirectory(pszPath), pszDirectory);
        EXPECT_EQ(CDiskFile::DirectoryWithEndSlash(pszPath), pszWithSlash);
    }
}

TEST(DiskFile, NamesAreTheSameByTextOrByWhatTheyName)
{
    const CTempDir clDir;
    clDir.csWrite("d/file", "x");
    fs::create_directory_symlink(clDir.csPath("d"), clDir.csPath("link"));
    fs::create_hard_link(clDir.csPath("d/file"), clDir.csPath("hard"));
    const std::wstring cs = clDir.csWidePath();
    const std::tuple<std::wstring, std::wstring, bool, bool> tCases[] = {
        {L"/gone/x", L"/gone/x", true, true},
        {L"/gone/x/", L"\\gone\\\\x", true, true},
        {L"/gone/x", L"/gone/y", false, false},
        {L"", L"", false, false},
        {L"", L"/", false, false},
        {L"/", L"//", true, true},
        {cs + L"/d", cs + L"/link/", true, true},
        {cs + L"/d", cs + L"/d/../d", true, true},
        {cs + L"/d/file", cs + L"/hard", false, true},
        {cs + L"/d", cs, false, false},
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
    EXPECT_FALSE(CDiskFile::bCreateDirectory(L""));
    EXPECT_FALSE(CDiskFile::bDelete(clDir.csWidePath("a/b/c")));
    EXPECT_TRUE(CDiskFile::bDirectoryExists(clDir.csWidePath("a/b/c")));
    EXPECT_TRUE(CDiskFile::bDelete(clDir.csWidePath("file")));
    EXPECT_FALSE(CDiskFile::bExists(clDir.csWidePath("file")));
}

TEST(DiskFile, AFileIsReplacedWholeAndKeepsItsKind)
{
    const CTempDir clDir;
    clDir.csWrite("old", "long old content", 0640);
    fs::create_symlink("old", clDir.csPath("link"));
    ASSERT_TRUE(CDiskFile::bWriteFile(clDir.csWidePath("link"), std::string("new\0", 4)));
    EXPECT_EQ(clDir.csRead("old"), std::string("new\0", 4));
    EXPECT_TRUE(fs::is_symlink(clDir.csPath("link")));
    EXPECT_EQ(fs::status(clDir.csPath("old")).permissions(), fs::perms(0640));
    ASSERT_TRUE(CDiskFile::bWriteFile(clDir.csWidePath("fresh"), ""));
    EXPECT_TRUE(CDiskFile::bWriteFile(L"/dev/null", "x"));
    EXPECT_EQ(std::distance(fs::directory_iterator(clDir.csPath()), {}), 3); // nothing left behind
    for (const auto& [csPath, nErrno] : {std::pair{std::wstring(L"/dev/full"), ENOSPC},
                                         {clDir.csWidePath("no/such"), ENOENT},
                                         {clDir.csWidePath(), EISDIR}}) {
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

TEST(Shell, ReturnsTheWaitStatus)
{
    for (const auto& [pszCommand, nStatus] : {std::pair{"exit 3", W_EXITCODE(3, 0)},
                                              {"true", 0},
                                              {"kill -9 $$", SIGKILL},
                                              {"/no/such/program 2>/dev/null", W_EXITCODE(127, 0)}}) {
        EXPECT_EQ(nShell(pszCommand), nStatus) << pszCommand;
    }
}

TEST(Shell, StartsWithCleanSignalsAndNoStrayDescriptor)
{
    REQUIRE_PRIVATE_WORLD();
    // Some shells clear the blocked signals themselves; this one keeps what it is given.
    ASSERT_EQ(::mount("/bin/bash", "/bin/sh", nullptr, MS_BIND, nullptr), 0);
    InChild([] {
        sigset_t stAll;
        sigfillset(&stAll);
        pthread_sigmask(SIG_BLOCK, &stAll, nullptr);
        signal(SIGPIPE, SIG_IGN);
        ::dup2(STDIN_FILENO, 77); // inheritable on purpose
        EXPECT_EQ(nShell("grep -q '^SigBlk:[[:space:]]0*$' /proc/self/status"), 0);
        // The C library keeps the two signals of its own thread library ignored in whatever it spawns.
        EXPECT_EQ(nShell("grep -Eq '^SigIgn:[[:space:]]0*(180000000)?$' /proc/self/status"), 0);
        EXPECT_EQ(nShell("test ! -e /proc/$$/fd/77"), 0);
    });
    ::umount2("/bin/sh", MNT_DETACH);
}
