#include "config/WinApi.h"
#include "ProfileProgram.h"
#include "support/Conversion.h"
#include "tools/PrivateWorld.h"
#include "tools/TempDir.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <pwd.h>
#include <random>
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
    int nSet(const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszValue)
    {
        return WritePrivateProfileString(pszSection, pszKey, pszValue, m_csPath.c_str());
    }
    /// Writes a value under a limit of the process; the error number, 0 when it was written.
    int nSetUnderLimit(__rlimit_resource eLimit, rlim_t nLimit, const wchar_t* pszKey,
                       const wchar_t* pszValue)
    {
        rlimit stOld{};
        ::getrlimit(eLimit, &stOld);
        const rlimit stLimit{nLimit, stOld.rlim_max};
        EXPECT_EQ(::setrlimit(eLimit, &stLimit), 0);
        errno = 0;
        const int nErrno = nSet(L"INIT", pszKey, pszValue) != 0 ? 0 : errno;
        ::setrlimit(eLimit, &stOld);
        return nErrno;
    }
    std::string csFile() const { return m_clDirectory.csRead("a.ini"); }
    void SetFile(const std::string& csBytes) const { m_clDirectory.csWrite("a.ini", csBytes); }
};

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
} // namespace

TEST(ProfileStore, DoesWhatTheModelDoesOnThousandsOfFiles)
{
    const CTempDir clDirectory;
    const std::string csPath = clDirectory.csPath("fuzz.ini");
    std::vector<std::uint8_t> tBytes(160);
    for (unsigned int nSeed = 1; nSeed <= 6000; ++nSeed) {
        std::mt19937 clRandom(nSeed);
        std::generate(tBytes.begin(), tBytes.end(), [&] { return static_cast<std::uint8_t>(clRandom()); });
        ASSERT_EQ(CProfileProgram(tBytes.data(), tBytes.size(), csPath).csRun(), "") << "seed " << nSeed;
    }
}

TEST_F(ProfileFile, NarrowFunctionsAreInTheSystemsCodePageWhateverTheFileIsIn)
{
    SetFile("[INIT]\nName = \x80\xE9\x81\n");
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"\x20AC\xE9\x81");
    SetFile("\xFF\xFE" + csToUTF16(L"[INIT]\n"));
    char szNarrow[10];
    EXPECT_NE(WritePrivateProfileStringA("INIT", "Name", "\x80uro", csToUTF8(m_csPath).c_str()), 0);
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"\x20ACuro");
    EXPECT_EQ(GetPrivateProfileStringA("init", "name", "d", szNarrow, 4, csToUTF8(m_csPath).c_str()), 3u);
    EXPECT_STREQ(szNarrow, "\x80ur");
    EXPECT_EQ(GetPrivateProfileStringA("init", "none", "\x81", szNarrow, 4, csToUTF8(m_csPath).c_str()), 1u);
    EXPECT_STREQ(szNarrow, "\x81");
}

TEST_F(ProfileFile, IntegersAreDecimalAndFirstCutToNineteenCharacters)
{
    const std::pair<const char*, int> tCases[] = {{"-3", -3},
                                                  {"\v +8 ", 8},
                                                  {"", 0},
                                                  {"0x1F", 0},
                                                  {"012ab", 12},
                                                  {"2147483648", INT_MIN},
                                                  {"4294967296", 0},
                                                  {"99999999999999999999", -1},
                                                  {"00000000000000000001", 0}};
    for (const auto& [pszValue, nExpected] : tCases) {
        SetFile("[INIT]\nN = "s + pszValue + "\n");
        EXPECT_EQ(GetPrivateProfileInt(L"INIT", L"N", 77, m_csPath.c_str()), nExpected) << pszValue;
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
    EXPECT_EQ(std::filesystem::status(m_clDirectory.csPath("a.ini")).permissions(),
              std::filesystem::perms(0640));
    EXPECT_EQ(csFile(), "[INIT]\nName = x\n");
    EXPECT_EQ(nFree, nFreeAfter);
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
        EXPECT_EQ(GetPrivateProfileInt(L"INIT", L"N", 77, csPath.c_str()), 77);
        errno = 0;
        EXPECT_EQ(WritePrivateProfileString(L"INIT", L"N", L"1", csPath.c_str()), 0);
        EXPECT_EQ(errno, nErrno);
    }
}

TEST_F(ProfileFile, AFileThatCannotGrowStaysAsItWas)
{
    REQUIRE_PRIVATE_WORLD();
    ASSERT_EQ(::mount("tmpfs", m_clDirectory.csPath().c_str(), "tmpfs", 0, "size=16k"), 0);
    const std::string csBefore = "[INIT]\nName = x\n" + std::string(4096 - 18, '.') + "\n";
    SetFile(csBefore);
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
    ASSERT_EQ(::mount("tmpfs", m_clDirectory.csPath().c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr), 0);
    errno = 0;
    EXPECT_EQ(nSet(L"INIT", L"Name", L"z"), 0);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"y");
}

TEST_F(ProfileFile, AWritePastTheFileSizeLimitFailsAndSparesTheProcess)
{
    SetFile("[INIT]\nName = x\n");
    EXPECT_EQ(nSetUnderLimit(RLIMIT_FSIZE, 20, L"Other", L"much more than fits"), EFBIG);
    EXPECT_EQ(csFile(), "[INIT]\nName = x\n");
}

TEST_F(ProfileFile, ATailThatMemoryCannotHoldLeavesTheFileUnchanged)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "SKIPPED: a sanitizer's address space leaves no room for a limit";
#else
    constexpr std::uintmax_t nSize = std::uintmax_t{8} << 30; // a hole: takes no disk
    SetFile("[INIT]\nName = x\n");
    const std::string csPath = m_clDirectory.csPath("a.ini");
    std::filesystem::resize_file(csPath, nSize);
    EXPECT_EQ(nSetUnderLimit(RLIMIT_AS, rlim_t{1} << 30, L"Name", L"longer"), ENOMEM);
    EXPECT_EQ(csGet(L"INIT", L"Name"), L"x");
    EXPECT_EQ(std::filesystem::file_size(csPath), nSize);
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
    EXPECT_EQ(csGet(L"INIT", L"Name", 100), std::wstring(99, L'v'));
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
    ASSERT_EQ(::mount("tmpfs", csHome.c_str(), "tmpfs", 0, nullptr), 0); // for this program only
    EXPECT_NE(WritePrivateProfileString(L"INIT", L"Name", L"bare", L"some.ini"), 0);
    EXPECT_EQ(::access((csHome + "/some.ini").c_str(), F_OK), 0);
    EXPECT_EQ(GetProfileInt(L"INIT", L"N", 5), 5);
    EXPECT_NE(WriteProfileString(L"INIT", L"N", L"12"), 0);
    EXPECT_EQ(GetProfileInt(L"INIT", L"N", 5), 12);
    wchar_t szValue[4];
    EXPECT_EQ(GetProfileString(L"INIT", L"N", L"", szValue, 4), 2u);
    EXPECT_EQ(GetPrivateProfileInt(L"INIT", L"N", 5, (csFromUTF8(csHome) + L"\\.NVS.conf").c_str()), 12);
}
