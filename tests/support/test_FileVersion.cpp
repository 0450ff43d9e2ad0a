#include "support/Conversion.h"
#include "support/Descripteur.h"
#include "support/FileVersion.h"
#include "support/StrCompare.h"
#include "support/Version.h"
#include "support/VersionNote.h"
#include "tools/TempDir.h"

#include <cstring>
#include <elf.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
// This program carries the note in the same way as the manager does.
[[gnu::used, gnu::section(".note.velmo"), gnu::aligned(4)]] constexpr auto s_stNote =
    stVersionNote("FileVersion=" VELMO_VERSION "\0VersionVI=" VELMO_VERSION);

struct STImage
{
    Elf64_Ehdr stHeader{};
    Elf64_Phdr tSegments[2]{};
    char szNotes[104]{};
};

/// The smallest file with a version note: another note stands before it, and its segment is the second one.
STImage stImage()
{
    STImage st;
    std::memcpy(st.stHeader.e_ident, ELFMAG, SELFMAG);
    st.stHeader.e_ident[EI_CLASS] = ELFCLASS64;
    st.stHeader.e_ident[EI_DATA] = ELFDATA2LSB;
    st.stHeader.e_phoff = offsetof(STImage, tSegments);
    st.stHeader.e_phentsize = sizeof(Elf64_Phdr);
    st.stHeader.e_phnum = 2;
    st.tSegments[0].p_type = PT_LOAD;
    st.tSegments[1].p_type = PT_NOTE;
    st.tSegments[1].p_offset = offsetof(STImage, szNotes);
    st.tSegments[1].p_filesz = sizeof st.szNotes;
    st.tSegments[1].p_align = 4;
    const char szOther[] = "\x04\0\0\0\x05\0\0\0\x03\0\0\0GNU\0abcde\0\0";
    std::memcpy(st.szNotes, szOther, 24);
    constexpr auto stNote = stVersionNote("FileVersion=9.0.0.0\0nothing\0A=1=2\0FileVersion=second");
    static_assert(sizeof stNote <= sizeof st.szNotes - 24);
    std::memcpy(st.szNotes + 24, &stNote, sizeof stNote);
    return st;
}

int nSign(int n)
{
    return (n > 0) - (n < 0);
}

/// Loads bytes as a file.
bool bLoadBytes(CFileVersion* pcl, const void* pBytes, std::size_t nSize)
{
    const CDescripteur clFd(::memfd_create("image", MFD_CLOEXEC));
    EXPECT_EQ(::write(clFd.nFd(), pBytes, nSize), static_cast<ssize_t>(nSize));
    return pcl->bLoad(L"/proc/self/fd/" + std::to_wstring(clFd.nFd()));
}
} // namespace

TEST(FileVersion, ARealExecutableTellsItsVersion)
{
    CFileVersion clVersion;
    std::wstring csValue;
    ASSERT_TRUE(clVersion.bLoad(L"/proc/self/exe"));
    for (const wchar_t* psz :
         {L"\\StringFileInfo\\000004E4\\FileVersion", L"\\StringFileInfo\\000004E4\\VersionVI"}) {
        EXPECT_TRUE(clVersion.bGetStringValue(psz, &csValue));
        EXPECT_EQ(csValue, g_szVersion);
    }
    EXPECT_FALSE(clVersion.bGetStringValue(L"\\StringFileInfo\\000004E4\\Other", &csValue));
    EXPECT_FALSE(clVersion.bLoad(L"/bin/sh"));
    EXPECT_FALSE(clVersion.bGetStringValue(L"FileVersion", &csValue)); // the last file's entries are gone
}

TEST(FileVersion, EntriesAreKeysWithTheirFirstValue)
{
    const STImage st = stImage();
    CFileVersion clVersion;
    std::wstring csValue;
    ASSERT_TRUE(bLoadBytes(&clVersion, &st, sizeof st));
    EXPECT_TRUE(clVersion.bGetStringValue(L"FileVersion", &csValue));
    EXPECT_EQ(csValue, L"9.0.0.0");
    EXPECT_TRUE(clVersion.bGetStringValue(L"\\A", &csValue));
    EXPECT_EQ(csValue, L"1=2");
    EXPECT_FALSE(clVersion.bGetStringValue(L"nothing", &csValue));
}

TEST(FileVersion, ATruncatedOrLyingFileHasNoEntry)
{
    const STImage stGood = stImage();
    CFileVersion clVersion;
    for (std::size_t nSize = 0; nSize < sizeof stGood; ++nSize) {
        ASSERT_FALSE(bLoadBytes(&clVersion, &stGood, nSize)) << nSize;
    }
    const std::pair<const char*, void (*)(STImage&)> tCases[] = {
        {"32 bit", [](STImage& st) { st.stHeader.e_ident[EI_CLASS] = ELFCLASS32; }},
        {"big endian", [](STImage& st) { st.stHeader.e_ident[EI_DATA] = ELFDATA2MSB; }},
        {"no magic", [](STImage& st) { st.stHeader.e_ident[0] = 0; }},
        {"entry size", [](STImage& st) { st.stHeader.e_phentsize = 1; }},
        {"table far away", [](STImage& st) { st.stHeader.e_phoff = UINT64_MAX - 8; }},
        {"table near the end of numbers", [](STImage& st) { st.stHeader.e_phoff = INT64_MAX; }},
        {"huge notes", [](STImage& st) { st.tSegments[1].p_filesz = UINT64_MAX; }},
        {"notes far away", [](STImage& st) { st.tSegments[1].p_offset = UINT64_MAX - 4; }},
        {"owner size", [](STImage& st) { std::memset(st.szNotes, 0xFF, 4); }},
        {"content size", [](STImage& st) { std::memset(st.szNotes + 28, 0xFF, 4); }},
        {"content cut by one",
         [](STImage& st) { st.tSegments[1].p_filesz = 24 + sizeof(Elf64_Nhdr) + 8 + 52; }},
        {"type", [](STImage& st) { st.szNotes[32] = 2; }},
        {"owner", [](STImage& st) { st.szNotes[36] = 'v'; }},
    };
    for (const auto& [pszWhat, pfnSpoil] : tCases) {
        STImage st = stGood;
        pfnSpoil(st);
        EXPECT_FALSE(bLoadBytes(&clVersion, &st, sizeof st)) << pszWhat;
    }
}

TEST(FileVersion, WhatIsNoRegularFileIsNotRead)
{
    const CTempDir clDir;
    ASSERT_EQ(::mkfifo(clDir.csPath("fifo").c_str(), 0600), 0);
    CFileVersion clVersion;
    for (const std::wstring& cs :
         {clDir.csWidePath("fifo"), clDir.csWidePath(), clDir.csWidePath("gone"), std::wstring(L"/dev/zero"),
          std::wstring(), std::wstring(L"/proc/self/exe\0x", 16)}) {
        EXPECT_FALSE(clVersion.bLoad(cs)) << csToUTF8(cs);
    }
}

TEST(FileVersion, VersionsCompareByTheirNumbers)
{
    const std::tuple<const wchar_t*, const wchar_t*, int> tCases[] = {
        {L"9.0.0.0", L"24.0.6.0", -1},
        {L"24.0.10.0", L"24.0.6.0", 1},
        {L"24.0.6.0", L"24.0.6.0", 0},
        {L"24.0.06.0", L"24.0.6.0", 0},
        {L"24.0.6", L"24.0.6.0", -1},
        {L"", L"1", -1},
        {L"a10b", L"a9b", 1},
        {L"a", L"1", 1},
        {L"x1", L"x", 1},
        {L"99999999999999999999999", L"100000000000000000000000", -1},
        {L"000", L"0", 0},
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
        {L"ab", L"abc", 2, 0},
        {L"\u0160\u017D\u0178\u0152", L"szy\u0153", 4, 0},
        {L"\u00F1\u00FF", L"NY", 2, 0},
        {nullptr, L"a", 1, -1},
        {L"x", L"a", 0, 0}};
    for (const auto& [psz1, psz2, nLength, nOrder] : tCases) {
        EXPECT_EQ(nSign(STR_nNCompare(psz1, psz2, nLength)), nOrder) << testing::PrintToString(psz1);
    }
}
