// What lint finds in a DXConf.ini, and that it finds all that keeps the store from reading or replacing a
// line.

#include "config/WinApi.h"
#include "ScriptedManager.h"
#include "support/Conversion.h"
#include "tools/TempDir.h"
#include "velmoctl/Lint.h"

#include <array>
#include <gtest/gtest.h>
#include <random>

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
        {"Name=x\n[INIT]\n", "1: \"Name\" stands before the first section: it is never read\n"},
        {"[INTI]\nFoo=1\n[ INIT ]\nBar=2\n", "1: unknown section \"INTI\"\n3: unknown section \" INIT \"\n"},
        {"[INIT]\nAccesPort=1\nCheckPeriod=1\n",
         "2: unknown key \"AccesPort\" in section \"INIT\"\n"
         "3: unknown key \"CheckPeriod\" in section \"INIT\": it belongs to section \"MANAGER\"\n"},
        {"[INIT]\nName x\n", "2: a line without \"=\" is never read, but may be overwritten\n"},
        {"[INIT]\nName x = y\n", "2: the text between \"Name\" and \"=\" is ignored\n"},
        {"[INIT]\nName=x\nNAME=y\n[init]\nDumpLevel=z\n",
         "3: \"NAME\" is set in line 2 already: only that counts\n"
         "4: section \"init\" exists already: nothing in this one is read\n"},
        {"[INIT]\n\tName=x\n",
         "2: \"Name\" is indented: it is read, but a change will write a second line, which is never read\n"},
        {" [INIT]\nName=x\n",
         "1: the indented header \"INIT\" is read, but a change will write a second section\n"},
        {"[INIT]\n\nName=x\n", "3: \"Name\" is after line 2, where the section ends for a change: a second "
                               "line will be written there\n"},
        {"[INIT]\n[oops\nName=x\n", "2: a line that begins with \"[\" but has no \"]\" is no section header, "
                                    "but a change of a later key does not get past it\n"
                                    "3: \"Name\" is after line 2, where the section ends for a change: a "
                                    "second line will be written there\n"},
        {"[INIT]\nName=x", "2: the last line has no newline: what is added later will continue it\n"},
        {"[INIT]\nName=x\0y\n"s, "2: what follows the NUL character is not read\n"},
        {"[INIT]\nName=x\ry\n", "2: what follows the carriage return is not read\n"},
        {"\xEF\xBB\xBF[INIT]\nName=x\n", "1: the file begins with a UTF-8 byte order mark, which hides its "
                                         "first line; it is read as Windows-1252\n"
                                         "2: \"Name\" stands before the first section: it is never read\n"},
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
        {"AccessPort=", "AccessPort: the value is empty: reads as 0, not as the default 4900"},
        {"AccessPort=49oo", "AccessPort: \"49oo\" reads as 49: what follows the digits is ignored"},
        {"AccessPort=auto", "AccessPort: \"auto\" is not a decimal number: reads as 0"},
        {"WindowsFileCacheSize=2147483648", "WindowsFileCacheSize: 2147483648 wraps around"},
        {"NdxCacheSize=4294967295", ""},
        {"ActivityStatisticPeriod=65536", "ActivityStatisticPeriod: 65536 counts as 65535"},
        {"ErrorLogMode=file", "ErrorLogMode: \"file\" logs nowhere: only SYSTEM and FILE, in capitals, do"},
        {"SocketOptions=ipv4_only,IPV6_ONLY", ""},
        {"SocketOptions=IPV4_ONLY, IPV6_ONLY",
         "SocketOptions: \" IPV6_ONLY\" is none of the words IPV4_ONLY, IPV6_ONLY, IPV4_IPV6, IPV6_IPV4"},
        {"DBRootPath=%%COMMON%%db", "DBRootPath: the path is taken to begin with %%COMMONAPPDATA%%"},
        {"DBRootPath=%%exe%%db",
         "DBRootPath: the path begins with no known macro (%%EXE%%, %%COMMONAPPDATA%%)"},
        {"Name=\"x\"", "Name: the quotation marks belong to the value"},
        {"Name=x ", "Name: the whitespace at the end belongs to the value"},
        {"Name=x ; mine",
         "Name: the text after \";\" belongs to the value: a comment is a line that begins with \":\""},
        {"Installer=" + std::string(99, 'n'), "Installer: only the first 98 characters of the value count"},
        {"Name=Donné", "Name: the value is in UTF-8, but will be read as Windows-1252: \"DonnÃ©\""},
        {"Name=Donn\xE9", ""},
    };
    for (const auto& [csLine, csFault] : tCases) {
        EXPECT_EQ(csFindings("[INIT]\n" + csLine + "\n"), csFault.empty() ? "" : "2: " + csFault + "\n")
            << csLine;
    }
}

// Files of random lines: where lint is silent about a file, the store reads the key's line and replaces it,
// and touches no other.
TEST(Lint, WhatIsFreeOfFaultsIsReadAndReplacedWhereItStands)
{
    static constexpr const char* s_tLines[] = {
        "[INIT]\n", " [INIT]\n",  "[INIT\n",    "[MANAGER]\n",  "\n",     " \n",          ":c\n",
        ";c\n",     "Name=x\r\n", "name y=z\n", "\tName = x\n", "Name\n", "DumpLevel=3\n"};
    const CTempDir clFolder;
    std::minstd_rand clRandom; // the same files every time
    int nReplaced = 0;
    for (int nFile = 0; nFile < 10'000 && !HasFailure(); ++nFile) {
        std::string csBefore = "[INIT]\n";
        for (auto n = clRandom() % 5; n > 0; --n) {
            csBefore += s_tLines[clRandom() % std::size(s_tLines)];
        }
        const std::string csLine = "Name = x\r\n";
        const std::string csBehind = s_tLines[clRandom() % std::size(s_tLines)];
        if (!tLint(csBefore + csLine + csBehind).empty()) {
            continue;
        }
        const std::string csFile = clFolder.csWrite("f", csBefore + csLine + csBehind);
        std::array<wchar_t, 20> szValue{};
        GetPrivateProfileString(L"INIT", L"Name", L"<none>", szValue.data(), szValue.size(),
                                csFromUTF8(csFile).c_str());
        EXPECT_EQ(csToUTF8(szValue.data()), "x") << csBefore;
        WritePrivateProfileString(L"INIT", L"Name", L"new", csFromUTF8(csFile).c_str());
        EXPECT_EQ(clFolder.csRead("f"), csBefore + "Name = new\n" + csBehind);
        ++nReplaced;
    }
    EXPECT_GT(nReplaced, 300);
}
