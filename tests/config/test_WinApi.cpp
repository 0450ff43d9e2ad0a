#include "config/WinApi.h"
#include "support/Conversion.h"
#include "support/Descripteur.h"
#include "support/RateLimit.h"
#include "tools/Command.h"
#include "tools/PrivateWorld.h"
#include "tools/TempDir.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {
using namespace std::string_literals;

/// One file in a directory of its own, in the private world where there is one (entered before the directory
/// is made: it brings its own /tmp).
class ProfileFile : public testing::Test
{
protected:
    const bool m_bPrivate = bPrivateWorld();
    const CTempDir m_clDirectory;
    const std::wstring m_csPath = m_clDirectory.csWidePath("a.ini");

    std::wstring csGet(const wchar_t* pszSection, const wchar_t* pszKey, unsigned int nSize = 300)
    {
        std::wstring csBuffer(nSize, L'#');
        csBuffer.resize(
            GetPrivateProfileString(pszSection, pszKey, L"<none>", csBuffer.data(), nSize, m_csPath.c_str()));
        return csBuffer;
    }
    bool bSet(const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszValue)
    {
        return WritePrivateProfileString(pszSection, pszKey, pszValue, m_csPath.c_str()) != 0;
    }
    /// The errno of a write into the section INIT; 0 when it succeeds.
    static int nErrnoOfSet(const std::wstring& csPath, const std::wstring& csValue)
    {
        errno = 0;
        const bool bDone = WritePrivateProfileString(L"INIT", L"Name", csValue.c_str(), csPath.c_str()) != 0;
        return bDone ? 0 : errno;
    }
    std::string csFile() const { return m_clDirectory.csRead("a.ini"); }
    void SetFile(const std::string& csBytes) const { m_clDirectory.csWrite("a.ini", csBytes); }
    /// A text of the system's code page as a file has it.
    static std::string csEncoded(const std::string& csText, bool bUnicode)
    {
        return bUnicode ? "\xFF\xFE" + csToUTF16(csWide(csText, CP_SYSTEM)) : csText;
    }
    void SetText(const std::string& csText, bool bUnicode) const { SetFile(csEncoded(csText, bUnicode)); }
};
} // namespace

TEST_F(ProfileFile, AReadTakesTheFirstLineOfItsKeyInTheFirstSectionOfItsName)
{
    const std::pair<std::string, const wchar_t*> tCases[] = {
        {"", L"<none>"},
        {"Name=v\n[INIT]\n", L"<none>"},
        {"[INIT]\nOther=v\nNamed=v\n[Other]\nName=w\n", L"<none>"},
        {"[INIT]\n[x]y\n[INIT]\nName=v\n", L"<none>"},
        {"[other]\nName=w\n\n[init]\nNAME=v\nName=w\n", L"v"},
        {"\t [INIT] x\r\n\r\n\v\f Name\t =\t v w \r\n", L"v w "},
        {"[INIT]\n[\n]\nName=[Other]", L"[Other]"},
        {"[INIT]\n:Name=w\n;Name=w\nName\nName x = v\n", L"v"},
        {"[INIT]\nName=\nName=w\n", L""},
        {"[INIT]\nName==\"v\"\n", L"=\"v\""},
        {"[INIT]\nName \r=v\n", L""}, // ends before its "="
        {"[INIT]\nName=\xE9\x80\x81\n", L"\xE9\x20AC\x81"},
        {"[INIT]\nx\0Name=w\n[\0]\nName=v\0w\n"s, L"v"},
    };
    for (const auto& [csText, pszValue] : tCases) {
        for (const bool bUnicode : {false, true}) {
            SetText(csText, bUnicode);
            EXPECT_EQ(csGet(L"INIT", L"Name"), pszValue) << csText << (bUnicode ? " in UTF-16" : "");
        }
    }
    SetFile("x=1\n [INIT]y\n:c=1\nA =1\nbare\nN\0=1\n\tName x=2\n[\n[Other]\n"s);
    EXPECT_EQ(csGet(nullptr, L"Name"), L"INIT\r\nOther\r\n"); // as for an empty name: the sections
    EXPECT_EQ(csGet(L"INIT", nullptr), L"A\r\nName x\r\n");
    EXPECT_EQ(csGet(L"Other", nullptr), L"<none>");
    SetFile("[INIT]\n=v\nName=00000000000000000017\n");
    EXPECT_EQ(csGet(L"INIT", L""), L"v");
    EXPECT_EQ(GetPrivateProfileInt(L"INIT", L"Name", 77, m_csPath.c_str()), 1); // of nineteen characters
}

TEST_F(ProfileFile, AWriteReplacesOrInsertsItsLineOnly)
{
    const std::tuple<const char*, const wchar_t*, const wchar_t*, const char*> tCases[] = {
        // before, key, value, after
        {"", L"Name", L"v", "[INIT]\nName = v\n"},
        {"[Other]\nName=w", L"Name", L"v", "[Other]\nName=w[INIT]\nName = v\n"},
        {" [INIT]\nName=w\n", L"Name", L"v", " [INIT]\nName=w\n[INIT]\nName = v\n"},
        {"x\r\n[init]y\r\nNAME\t=w\r\nName=w\r\n", L"Name", L" v ", "x\r\n[init]y\r\nName =  v \nName=w\r\n"},
        {"[INIT]\nName w\n", L"Name", L"", "[INIT]\nName = \n"}, // although it is never read
        {"[INIT]\n Name=w\nNamed=w", L"Name", L"v", "[INIT]\n Name=w\nNamed=wName = v\n"},
        {"[INIT]\nA=1\n\nName=w\n", L"Name", L"v", "[INIT]\nA=1\nName = v\n\nName=w\n"},
        {"[INIT]\nA=1\n[\nName=w\n", L"Name", L"v", "[INIT]\nA=1\nName = v\n[\nName=w\n"},
        {"[INIT]\nName=\n", L"Name", L"\xE9\x20AC", "[INIT]\nName = \xE9\x80\n"},
        {"[INIT]\nA=1\nName=w\nB=2\n", L"Name", nullptr, "[INIT]\nA=1\nB=2\n"},
        {"[INIT]\nA=1\n", L"Name", nullptr, "[INIT]\nA=1\n"},
        {"[Other]\n", L"Name", nullptr, "[Other]\n"},
        {"[A]\n[INIT]\nName=w\n\n [B]\n[C]\n", nullptr, L"v", "[A]\n[C]\n"},
        {"[A]\n", nullptr, L"v", "[A]\n"},
    };
    for (const auto& [pszBefore, pszKey, pszValue, pszAfter] : tCases) {
        for (const bool bUnicode : {false, true}) {
            SetText(pszBefore, bUnicode);
            EXPECT_TRUE(bSet(L"INIT", pszKey, pszValue));
            EXPECT_EQ(csFile(), csEncoded(pszAfter, bUnicode)) << pszBefore;
        }
    }
    SetText("", true);
    EXPECT_TRUE(bSet(L"INIT", L"Name", L"\x1F600"));
    EXPECT_EQ(csFile(), "\xFF\xFE" + csToUTF16(L"[INIT]\nName = \x1F600\n"));
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"\xD83D\xDE00"); // unit by unit, which can be written again
}

TEST_F(ProfileFile, NarrowFunctionsAreInTheSystemsCodePageWhateverTheFileIsIn)
{
    SetText("[INIT]\n", true);
    const std::string csPath = csToUTF8(m_csPath);
    char szNarrow[10];
    EXPECT_NE(WritePrivateProfileStringA("INIT", "Name", "\x80uro", csPath.c_str()), 0);
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"\x20ACuro");
    EXPECT_EQ(GetPrivateProfileStringA("init", "name", "d", szNarrow, 4, csPath.c_str()), 3u);
    EXPECT_STREQ(szNarrow, "\x80ur");
}

TEST_F(ProfileFile, AFirstWriteCreatesAnAnsiFileWithoutLeakingDescriptors)
{
    const mode_t nMask = ::umask(027);
    const int nFree = CDescripteur(::dup(0)).nFd();
    EXPECT_TRUE(bSet(L"INIT", L"Name", L"x"));
    EXPECT_FALSE(bSet(nullptr, L"Name", L"x"));
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"x");
    EXPECT_EQ(CDescripteur(::dup(0)).nFd(), nFree);
    ::umask(nMask);
    EXPECT_EQ(std::filesystem::status(csToUTF8(m_csPath)).permissions(), std::filesystem::perms(0640));
    EXPECT_EQ(csFile(), "[INIT]\nName = x\n");
}

TEST_F(ProfileFile, WhatIsNoRegularFileIsRefusedAtOnce)
{
    m_clDirectory.csMakeDirectory("folder");
    ASSERT_EQ(::mkfifo(m_clDirectory.csPath("fifo").c_str(), 0600), 0);
    const std::pair<std::wstring, int> tCases[] = {
        {m_clDirectory.csWidePath("folder"), EISDIR},
        {m_clDirectory.csWidePath("fifo"), EINVAL},
        {L"/dev/zero", EINVAL},
        {m_clDirectory.csWidePath("no/such/folder"), ENOENT},
        {m_clDirectory.csWidePath("no") + L"\\folder", ENOENT},
    };
    for (const auto& [csPath, nErrno] : tCases) {
        SCOPED_TRACE(csToUTF8(csPath));
        EXPECT_EQ(GetPrivateProfileInt(L"INIT", L"Name", 77, csPath.c_str()), 77);
        EXPECT_EQ(nErrnoOfSet(csPath, L"1"), nErrno);
    }
}

TEST_F(ProfileFile, AFileThatCannotGrowStaysAsItWasAndTheProcessIsSpared)
{
    REQUIRE_PRIVATE_WORLD();
    const auto fnMount = [this](unsigned long nFlags) {
        return ::mount("tmpfs", m_clDirectory.csPath().c_str(), "tmpfs", nFlags, "size=16k");
    };
    ASSERT_EQ(fnMount(0), 0);
    const std::string csBefore = "[INIT]\nName = x\n" + std::string(4096 - 18, '.') + "\n";
    const std::wstring csLong(500, L'v');
    SetFile(csBefore);
    rlimit stOld{};
    ::getrlimit(RLIMIT_FSIZE, &stOld);
    const rlimit stLimit{4100, stOld.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &stLimit), 0); // whose signal ends a process
    EXPECT_EQ(nErrnoOfSet(m_csPath, csLong), EFBIG);
    ::setrlimit(RLIMIT_FSIZE, &stOld);
    EXPECT_EQ(csFile(), csBefore);

    ASSERT_NE(stRun("head -c 32768 /dev/zero >" + m_clDirectory.csPath("rest")).nStatus, 0); // all there is
    EXPECT_EQ(nErrnoOfSet(m_csPath, csLong), ENOSPC);
    EXPECT_EQ(csFile(), csBefore);
    EXPECT_EQ(nErrnoOfSet(m_csPath, L"y"), 0) << "as long as before: needs no space";
    ASSERT_EQ(fnMount(MS_REMOUNT | MS_RDONLY), 0);
    EXPECT_EQ(nErrnoOfSet(m_csPath, L"z"), EROFS);
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"y");
}

TEST_F(ProfileFile, OfALineItsBeginIsReadAndAWriteKeepsItByteForByte)
{
    for (const bool bUnicode : {false, true}) {
        SCOPED_TRACE(bUnicode);
        const std::string csLong(300'000, 'x');
        std::string csText =
            "[FIRST]\n" + csLong + "\nLong=" + csLong + "\r\nName = 1\n[" + csLong + "]\nName = 2\n";
        SetText(csText, bUnicode);
        EXPECT_EQ(csGet(L"FIRST", L"Name"), L"1");
        EXPECT_EQ(csGet(L"FIRST", L"Long", 1025), std::wstring(1024, L'x'));
        EXPECT_TRUE(bSet(L"FIRST", L"Name", L"longer"));
        csText.replace(csText.find("Name = 1"), 8, "Name = longer");
        EXPECT_EQ(csFile(), csEncoded(csText, bUnicode));
        EXPECT_TRUE(bSet(L"FIRST", L"Long", nullptr));
        csText.erase(csText.find("Long="), 5 + csLong.size() + 2);
        EXPECT_EQ(csFile(), csEncoded(csText, bUnicode));
    }
}

TEST_F(ProfileFile, AFileBeyondSixteenMiBIsNeitherReadNorEditedAndToldOnce)
{
    constexpr std::uintmax_t nMax = 16 << 20;
    int nTold = 0;
    SetTooLargeReport([&](const std::wstring& csFile) { nTold += csFile == m_csPath ? 1 : 100; });
    const std::string csText = "[INIT]\nName = value\n";
    for (const std::uintmax_t nSize : {nMax, nMax + 1, std::uintmax_t{3} << 30}) {
        SCOPED_TRACE(nSize);
        SetFile(csText);
        std::filesystem::resize_file(m_clDirectory.csPath("a.ini"), nSize);
        const bool bRead = nSize <= nMax;
        const auto clStart = std::chrono::steady_clock::now();
        EXPECT_EQ(csGet(L"INIT", L"Name"), bRead ? L"value" : L"<none>");
        EXPECT_EQ(nErrnoOfSet(m_csPath, L"too long to fit"), EFBIG) << "it would not be read any more";
        EXPECT_EQ(nErrnoOfSet(m_csPath, L"other"), bRead ? 0 : EFBIG);
        EXPECT_LT(std::chrono::steady_clock::now() - clStart, std::chrono::seconds(2));
        EXPECT_EQ(std::filesystem::file_size(m_clDirectory.csPath("a.ini")), nSize);
        EXPECT_EQ(nTold, bRead ? 0 : 1) << "once a minute";
    }
    SetTooLargeReport(nullptr);
}

TEST(RateLimit, LetsOneThroughAMinuteForEachSubject)
{
    using std::chrono::seconds;
    CRateLimit clLimit;
    const auto clStart = CRateLimit::CClock::now();
    const std::tuple<const wchar_t*, int, bool> tCases[] = {
        {L"a", 0, true}, {L"a", 59, false}, {L"b", 59, true}, {L"a", 60, true}, {L"b", 118, false},
    };
    for (const auto& [pszSubject, nSecond, bDue] : tCases) {
        EXPECT_EQ(clLimit.bDue(pszSubject, clStart + seconds(nSecond)), bDue) << nSecond;
    }
}

TEST_F(ProfileFile, ABareNameLiesInTheHomeDirectoryOfThePasswordDatabase)
{
    REQUIRE_PRIVATE_WORLD();
    const std::string csHome = ::getpwuid(::getuid())->pw_dir;
    ASSERT_EQ(::mount("tmpfs", csHome.c_str(), "tmpfs", 0, nullptr), 0); // for this program only
    EXPECT_NE(WritePrivateProfileString(L"INIT", L"Name", L"bare", L"some.ini"), 0);
    EXPECT_TRUE(std::filesystem::exists(csHome + "/some.ini"));
    EXPECT_EQ(GetProfileInt(L"INIT", L"N", 5), 5);
    EXPECT_NE(WriteProfileString(L"INIT", L"N", L"12"), 0);
    EXPECT_EQ(GetProfileInt(L"INIT", L"N", 5), 12);
    EXPECT_EQ(GetPrivateProfileInt(L"INIT", L"N", 5, (csFromUTF8(csHome) + L"\\.NVS.conf").c_str()), 12);
}

TEST_F(ProfileFile, AWriteGoesThroughALinkOnlyWhenRootMadeItAndNeverIntoAFileOfTwoNames)
{
    const struct
    {
        const char* pszMake; // in the folder of a.ini; "nobody" is a folder of that user
        const char* pszFile; // into which the value would go
        int nErrno;          // 0: written
    } tCases[] = {
        {"ln -s root/b.ini a.ini", "root/b.ini", 0},
        {"ln -s root/new.ini a.ini", "root/new.ini", 0},
        {"ln -s nobody/l a.ini && ln -s ../root/b.ini nobody/l", "root/b.ini", EPERM},
        {"ln -s root/l a.ini && ln -s $PWD/root/b.ini root/l", "root/b.ini", 0},
        {"ln -s root/b.ini a.ini && chown -h nobody a.ini", "root/b.ini", EPERM},
        {"ln -s root/l a.ini && ln -s b.ini root/l && chown -h nobody root/l", "root/b.ini", EPERM},
        {"ln -s nobody/b.ini a.ini", "nobody/b.ini", EPERM},
        {"ln -s a.ini a.ini", "root/b.ini", ELOOP},
        {"ln root/b.ini a.ini", "root/b.ini", EMLINK},
    };
    if (::geteuid() != 0) {
        GTEST_SKIP() << "SKIPPED: only root can give files away";
    }
    const std::string csMake = " && rm -rf * && mkdir root nobody && touch root/b.ini nobody/b.ini && "
                               "chown -R nobody nobody && ";
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszMake);
        ASSERT_EQ(stRun("cd " + m_clDirectory.csPath() + csMake + st.pszMake).nStatus, 0);
        EXPECT_EQ(nErrnoOfSet(m_csPath, L"v"), st.nErrno);
        EXPECT_EQ(m_clDirectory.csRead(st.pszFile), st.nErrno == 0 ? "[INIT]\nName = v\n" : "");
    }
}
