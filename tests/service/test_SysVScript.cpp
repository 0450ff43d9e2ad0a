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
const struct
{
    const char* pszName;
    const std::string_view& csText;
} s_tTemplates[] = {{"debian", g_csDebianScript},
                    {"redhat", g_csRedHatScript},
                    {"suse", g_csSuSEScript},
                    {"gentoo", g_csGentooScript},
                    {"slackware", g_csSlackwareScript}};

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
        {"%%%PROGRAM%%%|%%%ARG%%%|", "/opt/dx", "", "/opt/dx||"},
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
    const struct
    {
        const char* pszCommandLine;
        bool bExpected;
    } tCases[] = {
        {"/opt/dx", true},       {"\"/opt/a b\" \"c\" \"d", true},
        {"/opt/$(x) `y`", true}, {"", false},
        {" /opt/dx", false},     {"\"\" a", false},
        {"\"/opt/dx a", false},  {"/opt/a\"b c", false},
        {"/opt/dx a\nb", false}, {"/opt/dx\ra", false},
        {"/opt/dx\ta", false},   {"/opt/dx \x7F", false},
    };
    for (const auto& st : tCases) {
        EXPECT_EQ(bScriptable(st.pszCommandLine), st.bExpected) << st.pszCommandLine;
    }
}

TEST(SysVScript, OnlyNamesThatMeanNothingElseBelongToServices)
{
    for (const wchar_t* psz :
         {L"DXCS-a", L"dxsql", L"a.b_c+d@e:f,g=h%i", L"DXCS-Donn\u00e9es", L"1", L".hidden"}) {
        EXPECT_TRUE(bInertName(psz)) << psz;
    }
    for (const wchar_t* psz :
         {L"",     L".",   L"..",  L"-rf", L"a b", L"a\tb",  L"a/b",  L"../x",  L"a;b",    L"a$b",
          L"a`b`", L"a|b", L"a&b", L"a>b", L"a<b", L"a(b",   L"a'b",  L"a\"b",  L"a\\b",   L"a*",
          L"a?",   L"[a]", L"~a",  L"#a",  L"!a",  L"{a,b}", L"a\nb", L"a\x7f", L"a\u0085"}) {
        EXPECT_FALSE(bInertName(psz)) << psz;
    }
}

TEST(SysVScript, MarkersAreReadFromWhatTheBufferHoldsOfALine)
{
    const std::string csPad(140, '/');
    const struct
    {
        std::string csScript;
        bool bFound;
        std::optional<std::string> csValue;
    } tCases[] = {
        {"#!/bin/sh\n# Program=\"/opt/dx\" Name=\"A\" \n", true, "/opt/dx"},
        {"x\r\n# Program=\"/opt/dx\"\r\n", true, "/opt/dx"},
        {"# Program=\"\"", true, ""},
        {"Program=\"first\"\nProgram=\"second\"\n", true, "first"},
        {"# Program=\"/opt/dx\nnext\"\n", true, std::nullopt},
        {"# Program=\"", true, std::nullopt},
        {"# program=\"/opt/dx\"\n# Program=/opt/dx\n", false, std::nullopt},
        {"", false, std::nullopt},
        {"\n\n\n", false, std::nullopt},
        {csPad + "Program=\"/opt/dx\"\n", true, std::nullopt}, // ends at byte 157
        {csPad + csPad + "Program=\"/opt/dx\"\n# Program=\"/opt/2\"\n", true, "/opt/2"},
        {csPad.substr(7) + "Program=\"1234567\"\n", true,
         std::nullopt}, // the end is byte 150, the buffer holds 149
        {csPad.substr(7) + "Program=\"123456\"\n", true, "123456"},
        {std::string("# Program=\"/opt\0/dx\"\n# Program=\"/x\"", 34), true, std::nullopt},
        {std::string(3 << 20, '\"'), false, std::nullopt},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.csScript.substr(0, 60));
        const stMarker stFound = stReadMarker(st.csScript, "Program=\"", 150);
        EXPECT_EQ(stFound.bFound, st.bFound);
        EXPECT_EQ(stFound.csValue, st.csValue);
    }
}

TEST(SysVScript, DisplayNamesCannotForgeTheProgram)
{
    for (const auto& st : s_tTemplates) {
        SCOPED_TRACE(st.pszName);
        const std::string csScript =
            csFilled(st.csText, "/opt/dx", "Program=\"/evil\" \n/evil\nProgram=\"/evil\"");
        EXPECT_EQ(stReadMarker(csScript, "Program=\"", 150).csValue, "/opt/dx");
        EXPECT_EQ(csScript.find("\n/evil"), std::string::npos);
    }
}

TEST(SysVScript, TemplatesAreCleanScriptsHoweverTheyAreFilled)
{
    const CTempDir clDirectory;
    for (const auto& st : s_tTemplates) {
        for (const char* pszCommandLine :
             {"/opt/dx", "/opt/dx --port=1 -v", "\"/opt/it's $(my) base/dx\" \"a b\""}) {
            SCOPED_TRACE(std::string(st.pszName) + " " + pszCommandLine);
            const std::string csScript = csFilled(st.csText, pszCommandLine, "My `base` $(x)");
            EXPECT_EQ(csScript.find("%%%"), std::string::npos);
            clDirectory.csWrite("script", csScript);
            const std::string csPath = clDirectory.csPath("script");
            // 1091: the distribution's own files are not here
            const STCommandResult stResult = stRun("dash -n " + csPath + " && busybox sh -n " + csPath +
                                                   " && shellcheck -s dash -e SC1091 " + csPath);
            EXPECT_EQ(stResult.nStatus, 0) << stResult.csOutput;
        }
    }
}
