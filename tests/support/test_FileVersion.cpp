#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/FileVersion.h"
#include "support/StrCompare.h"
#include "support/Version.h"
#include "support/VersionNote.h"
#include "tools/TempDir.h"

#include <cstring>
#include <elf.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {
// This program carries the note in the same way as the manager does.
[[gnu::used, gnu::section(".note.velmo"), gnu::aligned(4)]] constexpr auto s_stNote =
    stVersionNote("FileVersion=" VELMO_VERSION "\0VersionVI=" VELMO_VERSION);

int nSign(int n)
{
    return (n > 0) - (n < 0);
}
} // namespace

TEST(FileVersion, ARealExecutableTellsItsVersionAndATruncatedOneOrNoRegularFileNone)
{
    CFileVersion clVersion;
    std::wstring csValue;
    ASSERT_TRUE(clVersion.bLoad(L"/proc/self/exe"));
    for (const std::wstring cs : {L"FileVersion", L"VersionVI"}) {
        EXPECT_TRUE(clVersion.bGetStringValue((L"\\StringFileInfo\\000004E4\\" + cs).c_str(), &csValue));
        EXPECT_EQ(csValue, g_szVersion);
    }
    EXPECT_FALSE(clVersion.bGetStringValue(L"\\StringFileInfo\\000004E4\\Other", &csValue));
    EXPECT_FALSE(clVersion.bLoad(L"/bin/sh"));
    EXPECT_FALSE(clVersion.bGetStringValue(L"FileVersion", &csValue)); // the last file's entries are gone

    const CTempDir clDir;
    constexpr std::size_t nMax = 1u << 28; // with a sanitizer this program is larger than any file of ours
    std::string csOwn;
    ASSERT_TRUE(CDiskFile::bReadFile(L"/proc/self/exe", &csOwn, nMax));
    const std::size_t nNote = csOwn.find("FileVersion=" VELMO_VERSION); // stands before all other texts
    for (const std::size_t nSize :
         {std::size_t{0}, std::size_t{63}, std::size_t{100}, nNote - 1, nNote + 5}) {
        clDir.csWrite("cut", csOwn.substr(0, nSize));
        EXPECT_FALSE(clVersion.bLoad(clDir.csWidePath("cut"))) << nSize;
    }
    ASSERT_EQ(::mkfifo(clDir.csPath("fifo").c_str(), 0600), 0);
    for (const std::wstring& cs : {clDir.csWidePath("fifo"), clDir.csWidePath(), clDir.csWidePath("gone"),
                                   std::wstring(L"/dev/zero"), std::wstring(L"/proc/self/exe\0x", 16)}) {
        EXPECT_FALSE(clVersion.bLoad(cs)) << csToUTF8(cs);
    }
}

TEST(FileVersion, ANoteAlignedToEightIsFoundBesideAnother)
{
    constexpr std::string_view csNotes("\4\0\0\0\10\0\0\0\5\0\0\0GNU\0"
                                       "01234567"
                                       "\6\0\0\0\20\0\0\0\1\0\0\0Velmo\0\0\0\0\0\0\0"
                                       "FileVersion=1.2\0",
                                       64);
    Elf64_Ehdr stHeader{};
    std::memcpy(stHeader.e_ident, "\177ELF\2\1\1", 7);
    stHeader.e_phoff = sizeof stHeader;
    stHeader.e_phentsize = sizeof(Elf64_Phdr);
    stHeader.e_phnum = 1;
    const Elf64_Phdr stSegment{PT_NOTE, 0, sizeof stHeader + sizeof stSegment, 0, 0, csNotes.size(), 0, 8};

    const CTempDir clDir;
    std::ofstream(clDir.csPath("program"), std::ios::binary)
            .write(reinterpret_cast<const char*>(&stHeader), sizeof stHeader)
            .write(reinterpret_cast<const char*>(&stSegment), sizeof stSegment)
        << csNotes;
    CFileVersion clVersion;
    std::wstring csValue;
    EXPECT_TRUE(clVersion.bLoad(clDir.csWidePath("program")));
    EXPECT_TRUE(clVersion.bGetStringValue(L"FileVersion", &csValue));
    EXPECT_EQ(csValue, L"1.2");
}

TEST(FileVersion, VersionsCompareByTheirNumbers)
{
    const std::tuple<const wchar_t*, const wchar_t*, int> tCases[] = {
        {L"9.0.0.0", L"24.0.6.0", -1},
        {L"24.0.10.0", L"24.0.6.0", 1},
        {L"24.0.06.0", L"24.0.6.0", 0},
        {L"24.0.6", L"24.0.6.0", -1},
        {L"", L"1", -1},
        {L"a", L"1", 1},
        {L"99999999999999999999999", L"100000000000000000000000", -1},
        {nullptr, L"", 0}};
    for (const auto& [psz1, psz2, nOrder] : tCases) {
        EXPECT_EQ(nSign(STR_nCompareRespecteNumeriqueW(psz1, psz2)), nOrder) << testing::PrintToString(psz1);
        EXPECT_EQ(nSign(STR_nCompareRespecteNumeriqueW(psz2, psz1)), -nOrder) << testing::PrintToString(psz1);
    }
}

TEST(FileVersion, NamesCompareWithoutCaseAndAccents)
{
    const std::tuple<const wchar_t*, const wchar_t*, std::size_t, int> tCases[] = {
        {L"/Opt/VELMO", L"/opt/velmo", 100, 0},
        {L"\u00C9t\u00E9", L"ete", 3, 0},
        {L"abc", L"abd", 2, 0},
        {L"abc", L"abd", 3, -1},
        {L"ab", L"abc", 3, -1},
        {L"\u0160\u017D\u0178\u0152", L"szy\u0153", 4, 0},
        {nullptr, L"a", 1, -1}};
    for (const auto& [psz1, psz2, nLength, nOrder] : tCases) {
        EXPECT_EQ(nSign(STR_nNCompare(psz1, psz2, nLength)), nOrder) << testing::PrintToString(psz1);
    }
}
