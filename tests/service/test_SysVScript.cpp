// The texts of init scripts: filling templates in, with values that would like to be run, and reading them
// back.

#include "service/InitScript.h"
#include "service/ScriptTemplates.h"
#include "tools/Command.h"
#include "tools/TempDir.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>
#include <random>

namespace {
std::string csFilled(std::string_view csTemplate, const std::string& csCommandLine,
                     const char* pszDisplayName, std::string csLockFile = "DXCS-a")
{
    std::string csScript(csTemplate);
    __PatchScript(&csScript, &csLockFile, csCommandLine.c_str(), pszDisplayName);
    return csScript;
}
} // namespace

TEST(SysVScript, PlaceholdersAreFilledFromTheTwoHalvesOfTheCommandLine)
{
    const struct
    {
        const char* pszTemplate;
        const char* pszCommandLine;
        const char* pszDisplayName;
        const char* pszExpected;
    } tCases[] = {
        {"%%%PROGRAM%%%|%%%ARG%%%|", "/opt/dx --port=1 -v", "", "/opt/dx|--port=1 -v|"},
        {"# %%%PROGRAM%%%|%%%ARG%%%|", "\"/opt/my base/dx\" --port=1", "", "# /opt/my base/dx| --port=1|"},
        {"%%%PROGRAM%%%|%%%ARG%%%|", "\"/opt/my base/dx\" --port=1", "", "/opt/my\\ base/dx| --port=1|"},
        {"%%%PROGRAM%%%|%%%ARG%%%|", "/opt/dx\" --port=1", "", "/opt/dx|--port=1|"},
        {"%%%PROGRAM%%%|%%%ARG%%%|", "/opt/dx --dir=\"/a b\" c", "", "/opt/dx|--dir=\"/a b\" c|"},
        {"# %%%DISPLAY_NAME%%%, %%%DISPLAY_NAME%%%", "/x", "DX b\xC3\xA9", "# DX b\xC3\xA9, DX b\xC3\xA9"},
        {"# %%%DISPLAY_NAME%%%.", "/x", nullptr, "# ."},
        {"# %%%DISPLAY_NAME%%%\nnext", "/x", "a\nreboot\r\"b\"", "# a reboot 'b'\nnext"},
        {"# %%%DISPLAY_NAME%%%", "/x", "%%%LOCK_FILE%%%", "# %%%LOCK_FILE%%%"},
        {"%%%LOCK_FILE%%%%%%LOCK_FILE%%%%%%OTHER%%%\n\n", "/x", "", "DXCS-aDXCS-a%%%OTHER%%%\n\n"},
        {"\xE9%%%ARG%%%\xEA no end", "/x y", "", "\xE9y\xEA no end"},
    };
    for (const auto& st : tCases) {
        EXPECT_EQ(csFilled(st.pszTemplate, st.pszCommandLine, st.pszDisplayName), st.pszExpected);
    }
}

TEST(SysVScript, ShellsPassHostileValuesOnInsteadOfRunningThem)
{
    const CTempDir clDirectory;
    const struct
    {
        const char* pszCommandLine;
        const char* pszWords;
    } tCases[] = {
        {"/opt/dx --a -b", "[/opt/dx][--a][-b][DXCS-a]"},
        {"\"/opt/my  base/dx\" --d=\"a  $b;c`d\"", "[/opt/my  base/dx][--d=a  $b;c`d][DXCS-a]"},
        {"/opt/$(touch ran)`touch", "[/opt/$(touch][ran)`touch][DXCS-a]"},
        {"/opt/a;touch<ran>b&c|d --x ;touch ran", "[/opt/a;touch<ran>b&c|d][--x][;touch][ran][DXCS-a]"},
        {"/opt/it's * ~ # \\ 'a b' $HOME {1,2} [x] !",
         "[/opt/it's][*][~][#][\\]['a][b'][$HOME][{1,2}][[x]][!][DXCS-a]"},
        {"/opt/x \"no end", "[/opt/x][\"no][end][DXCS-a]"},
        {"/opt/x \"a\\b\"c\" d\"", "[/opt/x][a\\bc d][DXCS-a]"},
        {"/opt/\xC3\xA9 \xC3\xBC", "[/opt/\xC3\xA9][\xC3\xBC][DXCS-a]"},
    };
    // "daemon" is the helper of Red Hat systems, which joins its arguments for another shell.
    constexpr char szTemplate[] =
        "daemon() { $SHELL_USED -c \"$*\"; }\n# %%%PROGRAM%%% %%%ARG%%%\n"
        "printf '[%s]' %%%PROGRAM%%% %%%ARG%%% %%%LOCK_FILE%%%; echo\n"
        "  daemon printf \"'[%s]'\" %%%PROGRAM%%% %%%ARG%%% %%%LOCK_FILE%%%; echo\n";
    for (const char* pszShell : {"dash", "busybox sh", "bash"}) {
        for (const auto& st : tCases) {
            SCOPED_TRACE(std::string(pszShell) + ": " + st.pszCommandLine);
            clDirectory.csWrite("script", csFilled(szTemplate, st.pszCommandLine, ""));
            const STCommandResult stResult = stRun("cd " + clDirectory.csPath() + " && SHELL_USED='" +
                                                   pszShell + "' " + pszShell + " ./script");
            EXPECT_EQ(stResult.csOutput, std::string(st.pszWords) + "\n" + st.pszWords + "\n");
            EXPECT_FALSE(clDirectory.bExists("ran"));
        }
    }
}

TEST(SysVScript, AnyProgramPathSurvivesTheScriptAndTheMarkerLine)
{
    const CTempDir clDirectory;
    std::mt19937 clRandom(20260729);
    constexpr std::string_view csHostile = " $`;'\\&|<>()*?[]{}!#~^=%\"/ab\xC3\xA9";
    std::string csScript = "#!/bin/sh\n";
    std::string csExpected;
    for (int nRound = 0; nRound < 300; ++nRound) {
        std::string csProgram = "/";
        for (int n = 0; n < 12; ++n) {
            csProgram += csHostile[clRandom() % (csHostile.size() - 2)];
        }
        csProgram.erase(std::remove(csProgram.begin(), csProgram.end(), '"'), csProgram.end());
        const std::string csCommandLine = '"' + csProgram + '"';
        ASSERT_TRUE(bScriptable(csCommandLine)) << csProgram;
        csScript +=
            csFilled("# Program=\"%%%PROGRAM%%%\" \nprintf '%s\\n' %%%PROGRAM%%%\n", csCommandLine, "");
        csExpected += csProgram + '\n';
        EXPECT_EQ(stReadMarker(csFilled(g_csDebianScript, csCommandLine, ""), "Program=\"", 150).csValue,
                  csProgram);
    }
    clDirectory.csWrite("script", csScript);
    EXPECT_EQ(stRun("sh " + clDirectory.csPath("script")).csOutput, csExpected);
}

TEST(SysVScript, CommandLinesThatNoScriptCanHoldAreRefused)
{
    for (const char* psz : {"/opt/dx", "\"/opt/a b\" \"c\" \"d", "/opt/$(x) `y`"}) {
        EXPECT_TRUE(bScriptable(psz)) << psz;
    }
    for (const char* psz : {"", " /opt/dx", "\"\" a", "\"/opt/dx a", "/opt/a\"b c", "/opt/dx a\nb",
                            "/opt/dx\ra", "/opt/dx\ta", "/opt/dx \x7F"}) {
        EXPECT_FALSE(bScriptable(psz)) << psz;
    }
}

TEST(SysVScript, OnlyNamesThatMeanNothingElseBelongToServices)
{
    for (const wchar_t* psz : {L"DXCS-a", L"a.b_c+d@e:f,g=h%i", L"DXCS-Données", L"1", L".hidden"}) {
        EXPECT_TRUE(bInertName(psz)) << psz;
    }
    for (const wchar_t* psz : {L"", L".", L"..", L"-rf", L"../x"}) {
        EXPECT_FALSE(bInertName(psz)) << psz;
    }
    for (const wchar_t c : std::wstring(L" \t/;$`|&><('\"\\*?[~#!{\n\x7f\u0085")) {
        EXPECT_FALSE(bInertName(std::wstring(L"a") + c + L"b")) << static_cast<int>(c);
    }
}

TEST(SysVScript, MarkersAreReadFromWhatTheBufferHoldsOfALine)
{
    const std::string csPad(133, '/');
    const std::pair<std::string, std::optional<std::string>> tCases[] = {
        {"#!/bin/sh\n# Program=\"/opt/dx\" Name=\"A\" \n", "/opt/dx"},
        {"x\r\n# Program=\"/opt/dx\"\r\n", "/opt/dx"},
        {"# Program=\"\"", ""},
        {"Program=\"first\"\nProgram=\"second\"\n", "first"},
        {"# Program=\"/opt/dx\nnext\"\n", std::nullopt},
        {csPad + csPad + "Program=\"/opt/dx\"\n# Program=\"/opt/2\"\n", "/opt/2"},
        {csPad + "Program=\"123456\"\n", "123456"},
        {csPad + "Program=\"1234567\"\n", std::nullopt}, // the end is byte 150, the buffer holds 149
        {std::string("# Program=\"/opt\0/dx\"\n# Program=\"/x\"", 34), std::nullopt},
    };
    for (const auto& [csScript, csValue] : tCases) {
        SCOPED_TRACE(csScript);
        const stMarker stFound = stReadMarker(csScript, "Program=\"", 150);
        EXPECT_TRUE(stFound.bFound);
        EXPECT_EQ(stFound.csValue, csValue);
    }
    for (const std::string& csScript :
         {std::string(), std::string("# program=\"/opt/dx\"\n# Program=/opt/dx\n"),
          std::string(3 << 20, '"')}) {
        EXPECT_FALSE(stReadMarker(csScript, "Program=\"", 150).bFound);
    }
}

TEST(SysVScript, TemplatesAreCleanScriptsHoweverTheyAreFilled)
{
    const CTempDir clDirectory;
    const std::string csPath = clDirectory.csPath("script");
    for (const std::string_view csTemplate :
         {g_csDebianScript, g_csRedHatScript, g_csSuSEScript, g_csGentooScript, g_csSlackwareScript}) {
        for (const char* pszCommandLine :
             {"/opt/dx", "/opt/dx --port=1 -v", "\"/opt/it's $(my) base/dx\" \"a b\""}) {
            const std::string csScript = csFilled(csTemplate, pszCommandLine, "My `base` $(x)");
            SCOPED_TRACE(csScript);
            EXPECT_EQ(csScript.find("%%%"), std::string::npos);
            clDirectory.csWrite("script", csScript);
            // 1091: the distribution's own files are not here
            EXPECT_EQ(stRun("dash -n " + csPath + " && busybox sh -n " + csPath +
                            " && shellcheck -s dash -e SC1091 " + csPath)
                          .csOutput,
                      "");
        }
        const std::string csForged =
            csFilled(csTemplate, "/opt/dx", "Program=\"/evil\" \n/evil\nProgram=\"/evil\"");
        EXPECT_EQ(stReadMarker(csForged, "Program=\"", 150).csValue, "/opt/dx") << csForged;
        EXPECT_EQ(csForged.find("\n/evil"), std::string::npos) << csForged;
    }
}
