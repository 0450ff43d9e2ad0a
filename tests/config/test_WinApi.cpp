#include "config/WinApi.h"
#include "support/Conversion.h"
#include "tools/PrivateWorld.h"
#include "tools/TempDir.h"

#include <cerrno>
#include <chrono>
#include <fstream>
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

    std::wstring csGet(const wchar_t* pszSection, const wchar_t* pszKey,
                       const wchar_t* pszDefault = L"<none>", unsigned int nSize = 300)
    {
        std::wstring csBuffer(nSize + 1, L'#');
        const unsigned int n =
            GetPrivateProfileString(pszSection, pszKey, pszDefault, csBuffer.data(), nSize, m_csPath.c_str());
        EXPECT_EQ(csBuffer[n], L'\0');
        EXPECT_EQ(csBuffer.back(), L'#');
        return csBuffer.substr(0, n);
    }
    int nSet(const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszValue)
    {
        return WritePrivateProfileString(pszSection, pszKey, pszValue, m_csPath.c_str());
    }
    std::string csFile() const { return m_clDirectory.csRead("a.ini"); }
    void SetFile(const std::string& csBytes) const { m_clDirectory.csWrite("a.ini", csBytes); }
};

/// UTF-16 file content, mark included, of ASCII text.
std::string csUTF16(const std::string& csText)
{
    return "\xFF\xFE" + csToUTF16(csFromUTF8(csText));
}

/// Counter of this process in /proc/self/io; -1 where the kernel keeps none.
long nCounter(const std::string& csName)
{
    std::ifstream clCounters("/proc/self/io");
    std::string csRead;
    for (long nValue = 0; clCounters >> csRead >> nValue;) {
        if (csRead == csName + ":") {
            return nValue;
        }
    }
    return -1;
}

/// A small or read-only file system in the place of a directory, for the life of the object.
class CMount
{
public:
    CMount(std::string csDirectory, const char* pszOptions)
        : m_csDirectory(std::move(csDirectory)),
          m_bMounted(::mount("tmpfs", m_csDirectory.c_str(), "tmpfs", 0, pszOptions) == 0)
    {}
    CMount(const CMount&) = delete;
    CMount& operator=(const CMount&) = delete;
    ~CMount()
    {
        if (m_bMounted) {
            ::umount2(m_csDirectory.c_str(), MNT_DETACH);
        }
    }
    bool bMounted() const { return m_bMounted; }
    void MakeReadOnly() const
    {
        EXPECT_EQ(::mount("tmpfs", m_csDirectory.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr), 0);
    }

private:
    std::string m_csDirectory;
    bool m_bMounted;
};
} // namespace

TEST_F(ProfileFile, ReaderFollowsItsSyntaxInBothEncodings)
{
    const struct
    {
        const char* pszFile; // read for section INIT, key Name
        const wchar_t* pszValue;
    } tCases[] = {
        {"[INIT]\nName = x\n", L"x"},
        {"[INIT]\nName=x\n", L"x"},
        {"[INIT]\nName\t=\tx\n", L"x"},
        {"[INIT]\r\nName = x\r\n", L"x"},
        {"[INIT]\nName = x", L"x"}, // no line end
        {"[INIT]\nname = lower case\n", L"lower case"},
        {"[init]\nName = x\n", L"x"},
        {"[ INIT ]\nName = x\n", L"<none>"},
        {"[INIT2]\nName = x\n", L"<none>"},
        {"[INIT\nName = x\n", L"<none>"},
        {"  \t[INIT] anything\n\n \t Name = indented\n", L"indented"},
        {"\r\n[INIT]\n\n\n; text\nName = x\n", L"x"},
        {"[INIT]\nName = trailing  \n", L"trailing  "},
        {"[INIT]\nName = \"quoted\" ; kept\n", L"\"quoted\" ; kept"},
        {"[INIT]\nName = a=b\n", L"a=b"},
        {"[INIT]\nName = first\rsecond\n", L"first"},
        {"[INIT]\nName foo = x\n", L"x"},
        {"[INIT]\nName \r= x\nName = y\n", L""}, // the "=" counts, the value ends before it
        {"[INIT]\nName x\nName = y\n", L"y"},    // no "=": not a match
        {"[INIT]\nNames = x\n", L"<none>"},
        {"[INIT]\n:Name = x\n", L"<none>"},
        {"[INIT]\n : Name = x\nName = y\n", L"y"},
        {"[INIT]\n;Name = x\n#Name = x\n", L"<none>"},
        {"[INIT]\nName = \nName = later\n", L""},
        {"[INIT]\nName=", L""},
        {"[INIT]\n[Other]\nName = x\n", L"<none>"},
        {"[INIT]\n  [Other]\nName = x\n", L"<none>"},
        {"[INIT]\n[no end\nName = x\n", L"x"},
        {"[INIT]\nA=1\n[Other]\n[INIT]\nName = second section of the name\n", L"<none>"},
        {"Name = x\n[INIT]\n", L"<none>"},
        {"A = 1[INIT]\nName = x\n", L"<none>"},
        {"", L"<none>"},
        {"[INIT]", L"<none>"},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszFile);
        SetFile(st.pszFile);
        EXPECT_EQ(csGet(L"INIT", L"Name"), st.pszValue);
        SetFile(csUTF16(st.pszFile));
        EXPECT_EQ(csGet(L"INIT", L"Name"), st.pszValue);
    }
}

TEST_F(ProfileFile, WriterFollowsItsSyntaxInBothEncodings)
{
    const struct
    {
        const char* pszBefore;
        const wchar_t *pszSection, *pszKey, *pszValue;
        const char* pszAfter;
    } tCases[] = {
        {"", L"INIT", L"Name", L"x", "[INIT]\nName = x\n"},
        {"[A]\nb = c", L"INIT", L"Name", L"x", "[A]\nb = c[INIT]\nName = x\n"},
        {"[INIT]\n", L"INIT", L"Name", L"", "[INIT]\nName = \n"},
        {"[INIT]\r\nName=old\r\nB=2\r\n", L"INIT", L"NAME", L"new", "[INIT]\r\nNAME = new\nB=2\r\n"},
        {"[init]\nName\told\n", L"INIT", L"Name", L"x", "[init]\nName = x\n"},
        {"[INIT]\nName = x", L"INIT", L"Name", L"longer", "[INIT]\nName = longer\n"},
        {"[INIT]\nName = much longer\nB=2", L"INIT", L"Name", L"s", "[INIT]\nName = s\nB=2"},
        {"[INIT]\nA=1", L"INIT", L"Name", L"x", "[INIT]\nA=1Name = x\n"},
        {"[INIT]\nA=1\n", L"INIT", L"Name", L"x", "[INIT]\nA=1\nName = x\n"},
        {"[INIT]\nA=1\n[B]\nC=1\n", L"INIT", L"Name", L"x", "[INIT]\nA=1\nName = x\n[B]\nC=1\n"},
        {"[INIT]\nA=1\n\nName=2\n", L"INIT", L"Name", L"x", "[INIT]\nA=1\nName = x\n\nName=2\n"},
        {"[INIT]\r\nA=1\r\n\r\n[B]", L"INIT", L"Name", L"x", "[INIT]\r\nA=1\r\nName = x\n\r\n[B]"},
        {"[INIT]\n Name=1\n[B]\n", L"INIT", L"Name", L"x", "[INIT]\n Name=1\nName = x\n[B]\n"},
        {"[INIT]\n:Name=1\n", L"INIT", L"Name", L"x", "[INIT]\n:Name=1\nName = x\n"},
        {" [INIT]\nName=1\n", L"INIT", L"Name", L"x", " [INIT]\nName=1\n[INIT]\nName = x\n"},
        {"[INIT]\nName=1\nB=2\n", L"INIT", L"Name", nullptr, "[INIT]\nB=2\n"},
        {"[INIT]\nB=2\nName=1", L"INIT", L"Name", nullptr, "[INIT]\nB=2\n"},
        {"[INIT]\n\nName=1\n", L"INIT", L"Name", nullptr, "[INIT]\n\nName=1\n"},
        {"[A]\nb=1", L"INIT", L"Name", nullptr, "[A]\nb=1"},
        {"[A]\nb=1", L"INIT", nullptr, nullptr, "[A]\nb=1"},
        {"[A]\n1\n[INIT]\nB=2\n\n:note\n [x]\n[C]\n", L"INIT", nullptr, nullptr, "[A]\n1\n[C]\n"},
        {"[A]\n[INIT]\nB=2\n\nlast", L"INIT", nullptr, L"not looked at", "[A]\n"},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszBefore);
        SetFile(st.pszBefore);
        EXPECT_NE(nSet(st.pszSection, st.pszKey, st.pszValue), 0);
        EXPECT_EQ(csFile(), st.pszAfter);
        SetFile(csUTF16(st.pszBefore));
        EXPECT_NE(nSet(st.pszSection, st.pszKey, st.pszValue), 0);
        EXPECT_EQ(csFile(), csUTF16(st.pszAfter));
    }
}

TEST_F(ProfileFile, EveryByteOutsideTheEditSurvives)
{
    const struct
    {
        std::string csBefore, csAfter; // [INIT] Name = x
    } tCases[] = {
        {"\xFF\xFE", csUTF16("[INIT]\nName = x\n")},
        {"\xFF\xFEZ", csUTF16("[INIT]\nName = x\n") + "Z"}, // half a unit stays last, and the text readable
        {csUTF16("[INIT]\nName=1") + "Z", csUTF16("[INIT]\nName = x\n") + "Z"},
        {"\xFF", "\xFF[INIT]\nName = x\n"},
        {"\xFE\xFF[INIT]\n", "\xFE\xFF[INIT]\n[INIT]\nName = x\n"},
        {"\0a\n[INIT]\n\0\nName=\0old\n\0end"s, "\0a\n[INIT]\n\0\nName = x\n\0end"s},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.csBefore);
        SetFile(st.csBefore);
        EXPECT_NE(nSet(L"INIT", L"Name", L"x"), 0);
        EXPECT_EQ(csFile(), st.csAfter);
    }
}

TEST_F(ProfileFile, ValuesAreConvertedByTheEncodingOfTheFile)
{
    SetFile("[INIT]\nName = \x80\xE9\x81\n");
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"\x20AC\xE9\x81");
    EXPECT_NE(nSet(L"INIT", L"Name", L"\x20AC\x416"), 0);
    EXPECT_EQ(csFile(), "[INIT]\nName = \x80?\n");

    SetFile(csUTF16("[INIT]\n"));
    EXPECT_NE(nSet(L"INIT", L"Name", L"\x416\x1F600"), 0);
    EXPECT_EQ(csFile(), "\xFF\xFE" + csToUTF16(L"[INIT]\nName = \x416\x1F600\n"));
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"\x416\xD83D\xDE00"); // unit by unit
    EXPECT_NE(nSet(L"INIT", L"Name", csGet(L"INIT", L"Name").c_str()), 0);
    EXPECT_EQ(csFile(), "\xFF\xFE" + csToUTF16(L"[INIT]\nName = \x416\x1F600\n"));

    EXPECT_NE(nSet(L"INIT", L"Name", L"\x10A\xA0A\x20D\x10Dz"),
              0); // no line ends, though their bytes look it
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"\x10A\xA0A\x20D\x10Dz");
    EXPECT_NE(nSet(L"INIT", L"Name", nullptr), 0);
    EXPECT_EQ(csFile(), csUTF16("[INIT]\n"));

    char szNarrow[10];
    EXPECT_NE(WritePrivateProfileStringA("INIT", "Name", "\x80uro", csToUTF8(m_csPath).c_str()), 0);
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"\x20ACuro");
    EXPECT_EQ(GetPrivateProfileStringA("init", "name", "d", szNarrow, 4, csToUTF8(m_csPath).c_str()), 3u);
    EXPECT_STREQ(szNarrow, "\x80ur");
    EXPECT_EQ(GetPrivateProfileStringA("init", "none", "\x81", szNarrow, 4, csToUTF8(m_csPath).c_str()), 1u);
    EXPECT_STREQ(szNarrow, "\x81");
}

TEST_F(ProfileFile, TheBufferIsFilledAsFarAsItReaches)
{
    SetFile("[INIT]\nName = abcdef\nEmpty =\n[B] x\n");
    EXPECT_EQ(csGet(L"INIT", L"Name", L"default", 7), L"abcdef");
    EXPECT_EQ(csGet(L"INIT", L"Name", L"default", 6), L"abcde");
    EXPECT_EQ(csGet(L"INIT", L"Name", L"default", 1), L"");
    EXPECT_EQ(csGet(L"INIT", L"none", L"default", 5), L"defa");
    EXPECT_EQ(csGet(L"INIT", L"Empty", L"default"), L"");
    EXPECT_EQ(csGet(L"INIT", L"none", nullptr), L"");
    EXPECT_EQ(csGet(nullptr, nullptr), L"INIT\r\nB\r\n");
    EXPECT_EQ(csGet(L"", L"Name", L"", 7), L"INIT\r\n");
    EXPECT_EQ(csGet(L"INIT", nullptr), L"Name\r\nEmpty\r\n");

    wchar_t szUntouched[] = L"as it was";
    EXPECT_EQ(GetPrivateProfileString(L"INIT", L"Name", L"d", szUntouched, 0, m_csPath.c_str()), 0u);
    const std::wstring csNoFile = m_clDirectory.csWidePath("none.ini");
    EXPECT_EQ(GetPrivateProfileString(L"INIT", L"Name", nullptr, szUntouched, 5, csNoFile.c_str()), 0u);
    EXPECT_STREQ(szUntouched, L"as it was");
    EXPECT_EQ(GetPrivateProfileString(L"INIT", L"Name", L"default", szUntouched, 5, csNoFile.c_str()), 4u);
    EXPECT_STREQ(szUntouched, L"defa");
}

TEST_F(ProfileFile, IntegersAreDecimalAndFirstCut)
{
    const struct
    {
        const char* pszValue;
        int nExpected; // default 77
    } tCases[] = {
        {"5", 5},
        {"-3", -3},
        {"+8", 8},
        {"\t 9", 9},
        {"", 0},
        {"0x1F", 0},
        {"12ab", 12},
        {"text", 0},
        {"\v\f6", 6},
        {"4294967295", -1},
        {"4294967296", 0},
        {"- 1", 0},
        {"007", 7},
        {"2147483648", static_cast<int>(0x80000000u)},
        {"99999999999999999999", -1},
        {"00000000000000000001", 0}, // the 20th digit is cut
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszValue);
        SetFile("[INIT]\nN = "s + st.pszValue + "\n");
        EXPECT_EQ(GetPrivateProfileInt(L"INIT", L"N", 77, m_csPath.c_str()), st.nExpected);
    }
    EXPECT_EQ(GetPrivateProfileInt(L"INIT", L"none", -77, m_csPath.c_str()), -77);
}

TEST_F(ProfileFile, AFirstWriteCreatesAnAnsiFileWithoutLeakingDescriptors)
{
    const mode_t nMask = ::umask(027);
    const int nFree = ::dup(0);
    ::close(nFree);
    EXPECT_NE(nSet(L"INIT", L"Name", L"x"), 0);
    EXPECT_EQ(nSet(nullptr, L"Name", L"x"), 0);
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"x");
    const int nFreeAfter = ::dup(0);
    ::close(nFreeAfter);
    ::umask(nMask);
    struct stat st
    {};
    ASSERT_EQ(::stat(m_clDirectory.csPath("a.ini").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_EQ(csFile(), "[INIT]\nName = x\n");
    EXPECT_EQ(nFree, nFreeAfter);
}

TEST_F(ProfileFile, WhatIsNoRegularFileIsRefusedAtOnce)
{
    m_clDirectory.csMakeDirectory("folder");
    ASSERT_EQ(::mkfifo(m_clDirectory.csPath("fifo").c_str(), 0600), 0);
    const struct
    {
        std::wstring csPath;
        int nErrno;
    } tCases[] = {
        {m_clDirectory.csWidePath("folder"), EISDIR},
        {m_clDirectory.csWidePath("fifo"), EINVAL},
        {L"/dev/zero", EINVAL},
        {m_clDirectory.csWidePath("no/such/folder"), ENOENT},
        {m_clDirectory.csWidePath("no") + L"\\folder", ENOENT},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(csToUTF8(st.csPath));
        EXPECT_EQ(GetPrivateProfileInt(L"INIT", L"N", 77, st.csPath.c_str()), 77);
        errno = 0;
        EXPECT_EQ(WritePrivateProfileString(L"INIT", L"N", L"1", st.csPath.c_str()), 0);
        EXPECT_EQ(errno, st.nErrno);
    }
}

TEST_F(ProfileFile, AFileThatCannotGrowStaysAsItWas)
{
    REQUIRE_PRIVATE_WORLD();
    const CMount clMount(m_clDirectory.csPath(), "size=16k");
    ASSERT_TRUE(clMount.bMounted());
    const std::string csBefore = "[INIT]\nName = x\n" + std::string(4096 - 18, '.') + "\n";
    SetFile(csBefore);
    m_clDirectory.csWrite("rest", "");
    std::ofstream clRest(m_clDirectory.csPath("rest"));
    for (int n = 0; n < 32 && clRest << std::string(1024, 'r') << std::flush; ++n) { // twice the disk at most
    }
    ASSERT_FALSE(clRest.good());
    clRest.close();
    errno = 0;
    EXPECT_EQ(nSet(L"INIT", L"Name", std::wstring(500, L'v').c_str()), 0);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(csFile(), csBefore);
    EXPECT_NE(nSet(L"INIT", L"Name", L"y"), 0); // as long as before: needs no space
    clMount.MakeReadOnly();
    errno = 0;
    EXPECT_EQ(nSet(L"INIT", L"Name", L"z"), 0);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"y");
}

TEST_F(ProfileFile, AWritePastTheFileSizeLimitFailsAndSparesTheProcess)
{
    SetFile("[INIT]\nName = x\n");
    rlimit stOld{};
    ::getrlimit(RLIMIT_FSIZE, &stOld);
    const rlimit stLimit{20, stOld.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &stLimit);
    errno = 0;
    const int nResult = nSet(L"INIT", L"Other", L"much more than fits");
    const int nErrno = errno;
    ::setrlimit(RLIMIT_FSIZE, &stOld);
    EXPECT_EQ(nResult, 0);
    EXPECT_EQ(nErrno, EFBIG);
    EXPECT_EQ(csFile(), "[INIT]\nName = x\n");
}

TEST_F(ProfileFile, ATailThatMemoryCannotHoldLeavesTheFileUnchanged)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "SKIPPED: a sanitizer's address space leaves no room for a limit";
#else
    constexpr off_t nSize = off_t{8} << 30; // a hole: takes no disk
    SetFile("[INIT]\nName = x\n");
    const std::string csPath = m_clDirectory.csPath("a.ini");
    ASSERT_EQ(::truncate(csPath.c_str(), nSize), 0);
    rlimit stOld{};
    ASSERT_EQ(::getrlimit(RLIMIT_AS, &stOld), 0);
    const rlimit stLimit{rlim_t{1} << 30, stOld.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_AS, &stLimit), 0);
    errno = 0;
    const int nResult = nSet(L"INIT", L"Name", L"longer");
    const int nErrno = errno;
    ::setrlimit(RLIMIT_AS, &stOld);
    EXPECT_EQ(nResult, 0);
    EXPECT_EQ(nErrno, ENOMEM);
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"x");
    struct stat st
    {};
    ASSERT_EQ(::stat(csPath.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, nSize);
#endif
}

TEST_F(ProfileFile, LargeFilesCostOneBufferedPass)
{
    std::string csBytes = "[FIRST]\nName = 1\n[INIT]\n";
    while (csBytes.size() < 9u << 20) {
        csBytes += "Key" + std::to_string(csBytes.size()) + " = some value\n";
    }
    csBytes += std::string(1 << 20, 'l') + "\nName = " + std::string(1 << 20, 'v') + "\n";
    SetFile(csBytes);
    const auto clStart = std::chrono::steady_clock::now();
    const long nCalls = nCounter("syscr");
    EXPECT_EQ(csGet(L"INIT", L"Name", L"", 100), std::wstring(99, L'v'));
    if (nCalls >= 0) {
        EXPECT_LT(nCounter("syscr") - nCalls, 1000);
    }
    const long nRead = nCounter("rchar");
    const long nWritten = nCounter("wchar");
    EXPECT_NE(nSet(L"FIRST", L"Name", L"longer"), 0);
    if (nCalls >= 0) {
        EXPECT_LT(nCounter("rchar") - nRead, 12 << 20);
        EXPECT_LT(nCounter("wchar") - nWritten, 12 << 20);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - clStart, std::chrono::seconds(2)); // sanitizers included
    EXPECT_EQ(csFile(), csBytes.replace(8, 8, "Name = longer"));
}

TEST_F(ProfileFile, ABareNameLiesInTheHomeDirectoryOfThePasswordDatabase)
{
    REQUIRE_PRIVATE_WORLD();
    const passwd* pst = ::getpwuid(::getuid());
    ASSERT_NE(pst, nullptr);
    const std::string csHome = pst->pw_dir;
    const CMount clMount(csHome, "size=64k");
    ASSERT_TRUE(clMount.bMounted());
    EXPECT_NE(WritePrivateProfileString(L"INIT", L"Name", L"bare", L"some.ini"), 0);
    EXPECT_EQ(::access((csHome + "/some.ini").c_str(), F_OK), 0);
    EXPECT_EQ(GetProfileInt(L"INIT", L"N", 5), 5);
    EXPECT_NE(WriteProfileString(L"INIT", L"N", L"12"), 0);
    EXPECT_EQ(GetProfileInt(L"INIT", L"N", 5), 12);
    wchar_t szValue[4];
    EXPECT_EQ(GetProfileString(L"INIT", L"N", L"", szValue, 4), 2u);
    EXPECT_EQ(GetPrivateProfileInt(L"INIT", L"N", 5, (csFromUTF8(csHome) + L"\\.NVS.conf").c_str()), 12);
}
