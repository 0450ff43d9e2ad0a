#include "support/SystemFiles.h"

#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

TEST(SystemInfo, ProcessorsAreCountedAndTheLastModelWins)
{
    const struct
    {
        std::string csText;
        unsigned int nCount;
        std::string csModel;
    } tCases[] = {
        {"", 0, ""},
        {"processor\t: 0\nmodel name\t: Fast One\n\nprocessor\t: 1\nmodel name\t:   Fast Two\n", 2,
         "Fast Two"},
        {"PROCESSOR: 7\nModel Name:x", 8, "x"},
        {"processor : 3\nprocessor : 1\n", 4, ""},
        {"processor : none\nprocessor\nmodel name\n: 5\n", 0, ""},
        {"processor : 4294967295\n", 0, ""},
        {"processor : 99999999999999999999\nprocessor : -1\n", 0, ""},
        {"model name : a:b\nprocessor : 0 rest", 1, "a:b"},
        {"model name :" + std::string(500, 'm'), 0, std::string(200 - 12, 'm')},
        {std::string(300, 'x') + "\nprocessor: 1", 2, ""},
        {std::string(190, ' ') + "processor: 5", 0, ""},
    };
    for (const auto& st : tCases) {
        const STCpuInfo stInfo = stParseCpuInfo(st.csText);
        EXPECT_EQ(stInfo.nCount, st.nCount) << st.csText;
        EXPECT_EQ(stInfo.csModel, st.csModel);
    }
}

TEST(SystemInfo, MemoryIsReadFromNewAndOldKernels)
{
    const struct
    {
        const char* pszText;
        std::uint64_t qwTotal, qwAvailable, qwSwap, qwFreeSwap;
        std::uint32_t dwLoad;
    } tCases[] = {
        {"", 0, 0, 0, 0, 0},
        {"MemTotal:  1000 kB\nMemFree: 200 kB\nBuffers: 30 kB\nCached: 70 kB\nSwapCached: 5 kB\nSwapTotal: "
         "500 kB\n"
         "SwapFree: 500 kB\n",
         1024000, 307200, 512000, 512000, 46},
        {"        total:    used:\nMem:  1000 600 400 0 50 150\nSwap: 2000 500 1500\n", 1000, 600, 2000, 1500,
         30},
        {"MemTotal:\nMemFree: x\nMem: 1 2 3\nSwap: 1 2\n", 0, 0, 0, 0, 0},
        {"MemTotal: 99999999999999999999 kB\nMemFree: 18446744073709551615 kB\n", 0, 0, 0, 0, 0},
        {"Mem: 50 0 0 0 0 0\n", 50, 0, 0, 0, 0}, // the hundredth is 0
        {"MemTotal: 1 kB\nMemFree: 5 kB\n", 1024, 5120, 0, 0, 0},
    };
    for (const auto& st : tCases) {
        tagMEMORYSTATUSEX stStatus{7, 7, 7, 7, 7, 7};
        ParseMemInfo(st.pszText, &stStatus);
        EXPECT_EQ(stStatus.qwTotalPhys, st.qwTotal) << st.pszText;
        EXPECT_EQ(stStatus.qwAvailPhys, st.qwAvailable) << st.pszText;
        EXPECT_EQ(stStatus.qwTotalSwap, st.qwSwap) << st.pszText;
        EXPECT_EQ(stStatus.qwFreeSwap, st.qwFreeSwap) << st.pszText;
        EXPECT_EQ(stStatus.dwMemoryLoad, st.dwLoad) << st.pszText;
        EXPECT_EQ(stStatus.dwLength, 7u);
    }
}

TEST(SystemInfo, TheFirstFileThatNamesADistributionDecides)
{
    const struct
    {
        std::map<std::string, std::string> tFiles;
        bool bKnown;
        const char* pszId;
        const char* pszVersion;
        const char* pszDescription;
    } tCases[] = {
        {{}, false, "", "", ""},
        {{{"/etc/os-release",
           "NAME=\"X\"\nVERSION_ID=\"12\"\nID=debian\nPRETTY_NAME=\"Debian GNU/Linux 12\"\n"},
          {"/etc/debian_version", "12.5"}},
         true,
         "debian",
         "12",
         "Debian GNU/Linux 12"},
        {{{"/etc/os-release", "#ID=x\n"},
          {"/etc/lsb-release",
           "DISTRIB_ID=Ubuntu\nDISTRIB_RELEASE=8.04\nDISTRIB_DESCRIPTION=\"\"Ubuntu 8.04\"\""}},
         true,
         "Ubuntu",
         "8.04",
         "Ubuntu 8.04"},
        {{{"/etc/redhat-release", "Red Hat Linux release 9 (Shrike)\n"}},
         true,
         "redhat",
         "9",
         "Red Hat Linux release 9 (Shrike)"},
        {{{"/etc/redhat-release", "same"}, {"/etc/fedora-release", "Fedora release 38 (Thirty Eight)"}},
         true,
         "fedora",
         "38",
         "Fedora release 38 (Thirty Eight)"},
        {{{"/etc/SuSE-release", "SuSE Linux 9.3 (i586)\nVERSION = 9.3"}},
         true,
         "SuSE",
         "9.3",
         "SuSE Linux 9.3 (i586)"},
        {{{"/etc/gentoo-release", "\n"}, {"/etc/debian_version", "3.1\r\n"}},
         true,
         "Debian",
         "3.1",
         "Debian 3.1"},
        {{{"/etc/os-release", "ID=\nPRETTY_NAME=\"\n"}}, false, "", "", ""},
    };
    for (const auto& st : tCases) {
        STLinuxNameAndVersion stInfo{"before", "before", "before"};
        const auto csRead = [&st](const std::string& csPath) {
            const auto it = st.tFiles.find(csPath);
            return it == st.tFiles.end() ? std::nullopt : std::optional(it->second);
        };
        EXPECT_EQ(bRecogniseDistribution(csRead, &stInfo), st.bKnown);
        EXPECT_EQ(stInfo.csId, st.pszId);
        EXPECT_EQ(stInfo.csVersion, st.pszVersion);
        EXPECT_EQ(stInfo.csDescription, st.pszDescription);
    }
}

TEST(SystemInfo, GarbageDoesNoHarm)
{
    std::mt19937 clRandom(77);
    const char* const tPieces[] = {
        "processor",    "model name", ":",     "\n",      " ",  "4294967295", "18446744073709551615",
        "Mem:",         "MemTotal:",  "Swap:", "Cached:", "1 ", "\"",         "ID=",
        "PRETTY_NAME=", "release ",   "\xFF"};
    for (int nRound = 0; nRound < 3000; ++nRound) {
        std::string csText;
        for (auto n = clRandom() % 30; n > 0; --n) {
            csText += tPieces[clRandom() % std::size(tPieces)];
        }
        tagMEMORYSTATUSEX stStatus{};
        STLinuxNameAndVersion stInfo;
        stParseCpuInfo(csText);
        ParseMemInfo(csText, &stStatus);
        bRecogniseDistribution([&csText](const std::string&) { return std::optional(csText); }, &stInfo);
    }
}

TEST(SystemInfo, ThisMachineDescribesItself)
{
    utsname stName{};
    ::uname(&stName);
    const std::string csRelease = stName.release;
    CTString csOS = std::wstring(L"+");
    AddOSInfo(&csOS);
    EXPECT_EQ(csOS[0], L'+');
    EXPECT_EQ(csOS.substr(csOS.find(L'\t') + 1), std::wstring(csRelease.begin(), csRelease.end()));
    EXPECT_NE(csOS.substr(0, 7).find(L"inux"), csOS.npos) << "the name begins with Linux";

    CTString csCPU;
    AddCPUInfo(&csCPU);
    EXPECT_FALSE(csCPU.empty());

    struct sysinfo stInfo
    {};
    ::sysinfo(&stInfo);
    const double dTotal = static_cast<double>(stInfo.totalram) * stInfo.mem_unit;
    tagMEMORYSTATUSEX stStatus{};
    stStatus.dwLength = 5;
    GlobalMemoryStatusEx(&stStatus);
    EXPECT_EQ(stStatus.dwLength, 5u);
    EXPECT_NEAR(static_cast<double>(stStatus.qwTotalPhys), dTotal, dTotal / 100);
    EXPECT_LE(stStatus.dwMemoryLoad, 100u);
}
