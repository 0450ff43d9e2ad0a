#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "tools/TempDir.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

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
