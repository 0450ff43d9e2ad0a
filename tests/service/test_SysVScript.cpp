// The texts of init scripts: filling templates in, with values that would like to be run, and reading them
// back.

#include "service/InitScript.h"
#include "service/ScriptTemplates.h"
#include "support/TextLines.h"
#include "tools/Command.h"
#include "tools/TempDir.h"

#include <gtest/gtest.h>

namespace {
std::string csFilled(std::string_view csTemplate, const std::string& csCommandLine,
                     const char* pszDisplayName)
{
    std::string csScript(csTemplate);
    std::string csLockFile = "DXCS-a";
    __PatchScript(&csScript, &csLockFile, csCommandLine.c_str(), pszDisplayName);
    return csScript;
}
} // namespace

TEST(SysVScript, ShellsPassHostileValuesOnInsteadOfRunningThem)
{
    const CTempDir clDirectory;
    const std::pair<const char*, const char*> tCases[] = {
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
        for (const auto& [pszCommandLine, pszWords] : tCases) {
            SCOPED_TRACE(std::string(pszShell) + ": " + pszCommandLine);
            clDirectory.csWrite("script", csFilled(szTemplate, pszCommandLine, ""));
            const STCommandResult stResult = stRun("cd " + clDirectory.csPath() + " && SHELL_USED='" +
                                                   pszShell + "' " + pszShell + " ./script");
            EXPECT_EQ(stResult.csOutput, std::string(pszWords) + "\n" + pszWords + "\n");
            EXPECT_FALSE(clDirectory.bExists("ran"));
        }
    }
}

TEST(SysVScript, MarkersAreReadFromWhatTheBufferHoldsOfALine)
{
    const std::string csPad(133, '/');
    const std::pair<std::string, std::optional<std::string>> tCases[] = {
        {"#!/bin/sh\n# Program=\"/opt/dx\" Name=\"A\" \n", "/opt/dx"},
        {"# Program=\"/opt/dx\nnext\"\n", std::nullopt},
        {csPad + csPad + "Program=\"/opt/dx\"\n# Program=\"/opt/2\"\n", "/opt/2"},
        {csPad + "Program=\"123456\"\n", "123456"},
        {csPad + "Program=\"1234567\"\n", std::nullopt}, // the end is byte 150, the buffer holds 149
        {std::string("# Program=\"/opt\0/dx\"\n# Program=\"/x\"", 34), std::nullopt},
    };
    for (const auto& [csScript, csValue] : tCases) {
        SCOPED_TRACE(csScript);
        const STMarker stFound = stReadMarker(csScript, "Program=\"", 150);
        EXPECT_TRUE(stFound.bFound);
        EXPECT_EQ(stFound.csValue, csValue);
    }
    EXPECT_FALSE(stReadMarker("# program=\"/opt/dx\"\n# Program=/opt/dx\n", "Program=\"", 150).bFound);
}

TEST(SysVScript, TemplatesAreCleanScriptsHoweverTheyAreFilled)
{
    const CTempDir clDirectory;
    for (const std::string_view csTemplate :
         {g_csDebianScript, g_csRedHatScript, g_csSuSEScript, g_csGentooScript, g_csSlackwareScript}) {
        ForEachLine(csTemplate, [](std::string_view csLine) { // elsewhere a shell would read them
            EXPECT_TRUE(csLine.starts_with('#') || csLine.find("%%%DISPLAY") == csLine.npos) << csLine;
        });
        for (const char* pszCommandLine :
             {"/opt/dx", "/opt/dx --port=1 -v", "\"/opt/it's $(my) base/dx\" \"a b\""}) {
            const std::string csScript = csFilled(csTemplate, pszCommandLine, "My `base` $(x)");
            SCOPED_TRACE(csScript);
            EXPECT_EQ(csScript.find("%%%"), std::string::npos);
            const std::string csPath = clDirectory.csWrite("script", csScript);
            // 1091: the distribution's own files are not here
            EXPECT_EQ(stRun("dash -n " + csPath + " && busybox sh -n " + csPath +
                            " && shellcheck -s dash -e SC1091 " + csPath)
                          .csOutput,
                      "");
        }
        // A script of an older release: the shell cuts the path that went on after a space.
        std::string csCut = csFilled(csTemplate, "/opt/sp --SERVICE", "DXCS-a");
        EXPECT_EQ(csProgramStarted(csCut, "DXCS-a"), "/opt/sp") << csCut;
        csCut.replace(csCut.find(" --SERVICE DXCS-a\n"), 0, " ace/dx");
        EXPECT_EQ(csProgramStarted(csCut, "DXCS-a"), std::nullopt) << csCut;
        EXPECT_EQ(csProgramStarted(csFilled(csTemplate, "\"/opt/my (db)/dx\" --SERVICE", "x"), "DXCS-a"),
                  "/opt/my (db)/dx");
        const std::string csForged =
            csFilled(csTemplate, "/opt/dx", "Program=\"/evil\" \n/evil\nProgram=\"/evil\"");
        EXPECT_EQ(stReadMarker(csForged, "Program=\"", 150).csValue, "/opt/dx") << csForged;
        EXPECT_EQ(csForged.find("\n/evil"), std::string::npos) << csForged;
    }
}
