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
#include <sstream>

using std::string_literals::operator""s;

namespace {
/// One a line, each with the same text before it.
std::string csFindings(const std::string& csFile, const std::string& csBefore = "")
{
    std::string cs;
    for (const STFinding& st : tLint(csFile)) {
        cs += csBefore + std::to_string(st.nLine) + ": " + st.csText + "\n";
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
    const std::string csSample = csReadSource("docs/DXConf.ini.sample");
    ASSERT_GT(csSample.size(), 1000u);
    EXPECT_EQ(csFindings(csSample), "");
    EXPECT_EQ(csFindings(csUTF16File(csSample)), "");
}

// In lint.txt each file ends with what is found in it, after arrows, and "--".
TEST(Lint, WhatIsNotReadOrReadsOtherwiseThanWrittenIsFoundWithItsLine)
{
    const std::string csExpected = csReadSource("tests/velmoctl/lint.txt");
    std::string csFile;
    std::string csFound;
    std::istringstream clLines(csExpected);
    for (std::string cs; std::getline(clLines, cs);) {
        if (cs == "--") {
            csFound += csFile + csFindings(csFile, "-> ") + "--\n";
            csFile.clear();
        } else if (!cs.starts_with("-> ")) {
            csFile += cs + "\n";
        }
    }
    EXPECT_FALSE(csExpected.empty());
    EXPECT_EQ(csFound, csExpected);
}

TEST(Lint, BytesThatNoEditorShowsAreFoundToo)
{
    const std::pair<std::string, std::string> tCases[] = {
        {"", ""},
        {"\r\n: [x]\r\n; a = b\n#\n[INIT]\r\nname=x\r\n\r\n[Manager]\nCHECKPERIOD\t=\t5 \n", ""},
        {"[INIT]\nName=x", "2: the last line has no newline: what is added later will continue it\n"},
        {"[INIT]\nName=x \n", "2: Name: the whitespace at the end belongs to the value\n"},
        {"[INIT]\nName=x\0y\n"s, "2: what follows the NUL character is not read\n"},
        {"[INIT]\nName=x\ry\n", "2: what follows the carriage return is not read\n"},
        {"[INIT]\nName=Donn\xE9\n", ""},
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
