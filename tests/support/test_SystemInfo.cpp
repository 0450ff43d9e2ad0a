#include "support/SystemFiles.h"

#include <array>
#include <cstdint>
#include <gtest/gtest.h>
#include <map>

TEST(SystemInfo, ProcessorsAreCountedAndTheLastModelWins)
{
    const std::tuple<std::string, unsigned int, std::string> tCases[] = {
        {"processor\t: 0\nmodel name\t: Fast One\n\nprocessor\t: 1\nmodel name\t:   Fast Two\n", 2,
         "Fast Two"},
        {"PROCESSOR: 7\nModel Name:x", 8, "x"},
        {"processor : none\nprocessor\nmodel name\n: 5\n", 0, ""},
        {"processor : 4294967295\n", 0, ""},
        {"processor : 99999999999999999999\nprocessor : -1\n", 0, ""},
        {"model name :" + std::string(500, 'm'), 0, std::string(200 - 12, 'm')},
        {std::string(190, ' ') + "processor: 5", 0, ""},
    };
    for (const auto& [csText, nCount, csModel] : tCases) {
        const STCpuInfo stInfo = stParseCpuInfo(csText);
        EXPECT_EQ(stInfo.nCount, nCount) << csText;
        EXPECT_EQ(stInfo.csModel, csModel);
    }
}

TEST(SystemInfo, MemoryIsReadFromNewAndOldKernels)
{
    using CQuantities = std::array<std::uint64_t, 5>; // memory and what is available, swap and free, load
    const std::pair<const char*, CQuantities> tCases[] = {
        {"MemTotal:  1000 kB\nMemFree: 200 kB\nBuffers: 30 kB\nCached: 70 kB\nSwapCached: 5 kB\nSwapTotal: "
         "500 kB\n"
         "SwapFree: 500 kB\n",
         {1024000, 307200, 512000, 512000, 46}},
        {"        total:    used:\nMem:  1000 600 400 0 50 150\nSwap: 2000 500 1500\n",
         {1000, 600, 2000, 1500, 30}},
        {"MemTotal:\nMemFree: x\nMem: 1 2 3\nSwap: 1 2\n", {0, 0, 0, 0, 0}},
        {"Mem: 50 0 0 0 0 0\n", {50, 0, 0, 0, 0}}, // the hundredth is 0
        {"MemTotal: 1 kB\nMemFree: 5 kB\n", {1024, 5120, 0, 0, 0}},
    };
    for (const auto& [pszText, tWanted] : tCases) {
        tagMEMORYSTATUSEX stStatus{7, 7, 7, 7, 7, 7};
        ParseMemInfo(pszText, &stStatus);
        EXPECT_EQ((CQuantities{stStatus.qwTotalPhys, stStatus.qwAvailPhys, stStatus.qwTotalSwap,
                               stStatus.qwFreeSwap, stStatus.dwMemoryLoad}),
                  tWanted)
            << pszText;
    }
}

TEST(SystemInfo, TheFirstFileThatNamesADistributionDecides)
{
    using CFiles = std::map<std::string, std::string>;
    const std::pair<CFiles, const char*> tCases[] = {
        {{}, "unknown"},
        {{{"os-release", "NAME=\"X\"\nVERSION_ID=\"12\"\nID=debian\nPRETTY_NAME=\"Debian GNU/Linux 12\"\n"},
          {"debian_version", "12.5"}},
         "debian|12|Debian GNU/Linux 12"},
        {{{"os-release", "#ID=x\n"},
          {"lsb-release",
           "DISTRIB_ID=Ubuntu\nDISTRIB_RELEASE=8.04\nDISTRIB_DESCRIPTION=\"\"Ubuntu 8.04\"\""}},
         "Ubuntu|8.04|Ubuntu 8.04"},
        {{{"redhat-release", "same"}, {"fedora-release", "Fedora release 38 (Thirty Eight)"}},
         "fedora|38|Fedora release 38 (Thirty Eight)"},
        {{{"SuSE-release", "SuSE Linux 9.3 (i586)\nVERSION = 9.3"}}, "SuSE|9.3|SuSE Linux 9.3 (i586)"},
        {{{"gentoo-release", "\n"}, {"debian_version", "3.1\r\n"}}, "Debian|3.1|Debian 3.1"},
    };
    for (const auto& [tFiles, pszWanted] : tCases) {
        SCOPED_TRACE(pszWanted);
        STLinuxNameAndVersion stInfo{"before", "before", "before"};
        const auto csRead = [&t = tFiles](const std::string& csPath) {
            const auto it = t.find(csPath.substr(csPath.rfind('/') + 1));
            return it == t.end() ? std::nullopt : std::optional(it->second);
        };
        const bool bKnown = bRecogniseDistribution(csRead, &stInfo);
        EXPECT_EQ(bKnown ? stInfo.csId + "|" + stInfo.csVersion + "|" + stInfo.csDescription : "unknown",
                  pszWanted);
        EXPECT_TRUE(bKnown || (stInfo.csId + stInfo.csVersion + stInfo.csDescription).empty());
    }
}
