// What lint finds in a DXConf.ini, and that it finds all that keeps the store from reading or replacing a
// line.

#include "config/WinApi.h"
#include "ScriptedManager.h"
#include "support/Conversion.h"
#include "tools/TempDir.h"
#include "velmoctl/Lint.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <random>
#include <sstream>

using std::string_literals::operator""s;

namespace {
std::string csFindings(const std::string& csFile)
{
    std::string cs;
    for (const STFinding& st : tLint(csFile)) {
        cs += std::to_string(st.nLine) + ": " + st.csText + "\n";
    }
    return cs;
}

std::string csUTF16File(const std::string& csText)
{
    return "\xFF\xFE" + csToUTF16(csFromUTF8(csText));
}
} // namespace

TEST(Lint, TheSampleWithEverySettingIsFreeOfFaults)
{
    const std::string csSample = stRun("cat " + csSource() + "/docs/DXConf.ini.sample").csOutput;
    ASSERT_GT(csSample.size(), 1000u);
    EXPECT_EQ(csFindings(csSample), "");
    EXPECT_EQ(csFindings(csUTF16File(csSample)), "");
}

TEST(Lint, LinesThatReaderOrWriterDoNotSeeAreFoundWithTheirNumber)
{
    const std::pair<std::string, std::string> tCases[] = {
        {"", ""},
        {"\r\n: [x]\r\n; a = b\n#\n[INIT]\r\nname=x\r\n\r\n[Manager]\nCHECKPERIOD\t=\t5 \n", ""},
        {"Name=x\n[INIT]\n", "1: \"Name\" stands in front of the first section: it is never read\n"},
        {"[INTI]\nFoo=1\n[ INIT ]\nBar=2\n", "1: unknown section \"INTI\"\n3: unknown section \" INIT \"\n"},
        {"[INIT]\nAccesPort=1\nCheckPeriod=1\n",
         "2: unknown key \"AccesPort\" in section \"INIT\"\n"
         "3: unknown key \"CheckPeriod\" in section \"INIT\": it belongs to section \"MANAGER\"\n"},
        {"[INIT]\nName x\n", "2: a line without \"=\" is never read, but may be overwritten\n"},
        {"[INIT]\nName x = y\n", "2: the text between \"Name\" and \"=\" is ignored\n"},
        {"[INIT]\nName=x\nNAME=y\n[init]\nDumpLevel=z\n",
         "3: \"NAME\" is set in line 2 already: only that counts\n"
         "4: section \"init\" is there before: nothing in this one is read\n"},
        {"[INIT]\n\tName=x\n",
         "2: \"Name\" is indented: it is read, but a change will write a second line, in vain\n"},
        {" [INIT]\nName=x\n",
         "1: the indented header \"INIT\" is read, but a change will write a second section\n"},
        {"[INIT]\n\nName=x\n",
         "3: \"Name\" is behind line 2, where the section ends for a change: a second line will "
         "be written there\n"},
        {"[INIT]\n[oops\nName=x\n",
         "2: a section header without \"]\" is none, but a change of a later key does not get past it\n"
         "3: \"Name\" is behind line 2, where the section ends for a change: a second line will be written "
         "there\n"},
        {"[INIT]\nName=x", "2: the last line has no line end: what is added later will continue it\n"},
        {"[INIT]\nName=x\0y\n"s, "2: what follows the NUL character is not read\n"},
        {"[INIT]\nName=x\ry\n", "2: what follows the carriage return is not read\n"},
        {"\xEF\xBB\xBF[INIT]\nName=x\n",
         "1: the file begins with a UTF-8 mark, which hides its first line; it is read as Windows-1252\n"
         "2: \"Name\" stands in front of the first section: it is never read\n"},
        {"\xFE\xFF\0["s,
         "1: the file is UTF-16 in the wrong byte order (big-endian): nothing in it is read\n"},
        {csUTF16File("[INIT]\nNmae=x\n") + "y",
         "2: unknown key \"Nmae\" in section \"INIT\"\n2: the file ends in the middle of a character\n"},
    };
    for (const auto& [csFile, csExpected] : tCases) {
        EXPECT_EQ(csFindings(csFile), csExpected) << csFile;
    }
}

TEST(Lint, ValuesThatDoNotReadAsTheirTypeAreFound)
{
    const std::pair<std::string, std::string> tCases[] = {
        // in section INIT
        {"AccessPort= 4900 ", ""},
        {"AccessPort=", "AccessPort: the value is empty: reads as 0, not as the default 4900"},
        {"AccessPort=0x1388", "AccessPort: \"0x1388\" reads as 0: what follows the digits is ignored"},
        {"AccessPort=49oo", "AccessPort: \"49oo\" reads as 49: what follows the digits is ignored"},
        {"AccessPort=auto", "AccessPort: \"auto\" is no decimal number: reads as 0"},
        {"AccessPort=0", "AccessPort: 0 is no port (1 to 65535)"},
        {"PreVersion=00000000000000000001", "PreVersion: only the first 19 characters of the number count"},
        {"WindowsFileCacheSize=-1", ""},
        {"WindowsFileCacheSize=2147483648", "WindowsFileCacheSize: 2147483648 wraps around"},
        {"NdxCacheSize=4294967295", ""},
        {"NdxCacheSize=-1", "NdxCacheSize: -1 wraps around"},
        {"KeySearch=yes", "KeySearch: \"yes\" is no decimal number: reads as 0"},
        {"ActivityStatisticPeriod=65536", "ActivityStatisticPeriod: 65536 counts as 65535"},
        {"ActivityStatisticMaxFileSize=4096",
         "ActivityStatisticMaxFileSize: 4096 wraps around: at most 4095 megabytes can be set"},
        {"ErrorLogMode=file", "ErrorLogMode: \"file\" logs nowhere: only SYSTEM and FILE, in capitals, do"},
        {"SocketOptions=ipv4_only,IPV6_ONLY", ""},
        {"SocketOptions=IPV4_ONLY, IPV6_ONLY",
         "SocketOptions: \" IPV6_ONLY\" is none of the words IPV4_ONLY, "
         "IPV6_ONLY, IPV4_IPV6, IPV6_IPV4"},
        {"DBRootPath=%%COMMONAPPDATA%%db", ""},
        {"DBRootPath=%%COMMON%%db", "DBRootPath: the path is taken to begin with %%COMMONAPPDATA%%"},
        {"DBRootPath=%%exe%%db",
         "DBRootPath: the path begins with no known macro (%%EXE%%, %%COMMONAPPDATA%%)"},
        {"Name=\"x\"", "Name: the quotation marks belong to the value"},
        {"Name=x ", "Name: the blanks at the end belong to the value"},
        {"Name=x ; mine",
         "Name: the text behind \";\" belongs to the value: a comment is a line that begins with \":\""},
        {"Installer=" + std::string(99, 'n'), "Installer: only the first 98 characters of the value count"},
        {"Name=Donné", "Name: the value is in UTF-8, but will be read as Windows-1252: \"DonnÃ©\""},
        {"Name=Donn\xE9", ""},
    };
    for (const auto& [csLine, csFault] : tCases) {
        EXPECT_EQ(csFindings("[INIT]\n" + csLine + "\n"), csFault.empty() ? "" : "2: " + csFault + "\n")
            << csLine;
    }
    EXPECT_EQ(csFindings("[MANAGER]\nCheckPeriod=4294968\n[ClusterNode]\nCluster=2\n"),
              "2: CheckPeriod: 4294968 wraps around: at most 4294967 seconds can be set\n"
              "4: Cluster: 2 makes no cluster node: only 1 does\n");
}

// Files of random lines: where lint is silent about a file, the store reads each key's line and replaces it,
// and touches no other.
TEST(Lint, WhatIsFreeOfFaultsIsReadAndReplacedWhereItStands)
{
    const CTempDir clFolder;
    std::istringstream clPieces(
        "[INIT]|[MANAGER]| [INIT]|[INIT|]|| |:c|;c|Name=x|Name y=z|\tCheckPeriod=7|Name|name =y|"
        "CheckPeriod=7|DumpLevel\t= 3\r");
    std::vector<std::string> tPieces;
    for (std::string cs; std::getline(clPieces, cs, '|');) {
        tPieces.push_back(cs + "\n");
    }
    const std::pair<const wchar_t*, const wchar_t*> tKeys[] = {
        {L"INIT", L"Name"}, {L"MANAGER", L"CheckPeriod"}, {L"INIT", L"DumpLevel"}};
    std::mt19937 clRandom(20261121); // NOLINT: the same files every time
    int nClean = 0;
    int nReplaced = 0;
    for (int nFile = 0; nFile < 30'000; ++nFile) {
        std::string csFile = clRandom() % 2 == 0 ? "" : "[INIT]\n";
        for (auto n = clRandom() % 7; n > 0; --n) {
            csFile += tPieces[clRandom() % tPieces.size()];
        }
        if (!tLint(csFile).empty()) {
            continue;
        }
        ++nClean;
        for (const auto& [pszSection, pszKey] : tKeys) {
            const std::string csKey = csToUTF8(pszKey);
            const auto itStart =
                std::search(csFile.begin(), csFile.end(), csKey.begin(), csKey.end(),
                            [](char c1, char c2) { return std::tolower(c1) == std::tolower(c2); });
            if (itStart == csFile.end()) {
                continue;
            }
            const auto nStart = static_cast<std::size_t>(itStart - csFile.begin());
            const std::size_t nLength = csFile.find('\n', nStart) + 1 - nStart;
            const std::wstring csPath = csFromUTF8(clFolder.csWrite("f", csFile));
            std::array<wchar_t, 20> szValue{};
            GetPrivateProfileString(pszSection, pszKey, L"<none>", szValue.data(), szValue.size(),
                                    csPath.c_str());
            const std::string csLine = csFile.substr(nStart, nLength);
            EXPECT_EQ(csToUTF8(szValue.data()), csLine.substr(csLine.find_last_not_of("\r\n"), 1)) << csFile;
            ASSERT_NE(WritePrivateProfileString(pszSection, pszKey, L"new", csPath.c_str()), 0);
            EXPECT_EQ(clFolder.csRead("f"), std::string(csFile).replace(nStart, nLength, csKey + " = new\n"));
            ++nReplaced;
        }
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(nClean, 1000);
    EXPECT_GT(nReplaced, 300);
}
