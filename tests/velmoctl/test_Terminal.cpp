// The client with a user in front of it: on a terminal, and at the prompt of its shell.

#include "ProgramOnTerminal.h"
#include "ScriptedManager.h"
#include "support/Conversion.h"
#include "velmoctl/Failure.h"
#include "velmoctl/LineEditor.h"
#include "velmoctl/Output.h"
#include "velmoctl/Words.h"

#include <gmock/gmock.h>

namespace {
const CScriptedManager::Answers s_tAnswers = {{"INFO", "YES\tv\ts\tk\tp\tm\tOrders\t4900"},
                                              {"STATUS\tOrders", "STATUS\tRUNNING"},
                                              {"STATUS\tStock", "STATUS\tSTOPPED"},
                                              {"UNINSTALL\tStock\t0", "OK"}};

std::string csOn(const CScriptedManager& clManager, const std::string& csArguments)
{
    return csClient() + " --port " + clManager.csPort() + " " + csArguments;
}
} // namespace

TEST(Terminal, UninstallingHappensOnlyAfterAYes)
{
    const struct
    {
        const char* pszTyped;
        int nStatus;
        const char* pszAsked;
    } tCases[] = {{"y\n", 0, "STATUS\tStock|UNINSTALL\tStock\t0|"},
                  {"yes\n", 0, "STATUS\tStock|UNINSTALL\tStock\t0|"},
                  {"\n", 5, "STATUS\tStock|"},
                  {"no\n", 5, "STATUS\tStock|"},
                  {"\x04", 5, "STATUS\tStock|"},
                  {"\x03", 130, "STATUS\tStock|"}};
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszTyped);
        CScriptedManager clManager(s_tAnswers);
        CProgramOnTerminal clProgram(csOn(clManager, "uninstall Stock"));
        ASSERT_TRUE(clProgram.bShows(
            "\"Stock\" is stopped. Uninstall: stop it and remove its service; its files are kept? [y/N] "));
        clProgram.Type(st.pszTyped);
        EXPECT_EQ(clProgram.nEnd(), st.nStatus);
        EXPECT_EQ(clManager.csAsked(), st.pszAsked);
    }
}

TEST(Terminal, ColoursAreForTerminalsWhoseUserWantsThem)
{
    CScriptedManager clManager(s_tAnswers);
    const struct
    {
        const char* pszBefore;
        const char* pszBehind;
        bool bColoured;
    } tCases[] = {{"", "", true},
                  {"", " --no-color", false},
                  {"env NO_COLOR=1 ", "", false},
                  {"env TERM=dumb ", "", false}};
    for (const auto& st : tCases) {
        SCOPED_TRACE(std::string(st.pszBefore) + st.pszBehind);
        CProgramOnTerminal clProgram(st.pszBefore + csOn(clManager, "status Orders") + st.pszBehind);
        EXPECT_TRUE(clProgram.bShows(st.bColoured ? "\033[32mrunning\033[0m" : "running"));
        EXPECT_EQ(clProgram.nEnd(), 0);
    }
}

TEST(Terminal, AWatchGoesOnUntilTheUserEndsItAndBringsTheCursorBack)
{
    for (const char* pszKey : {"q", "\x03"}) {
        CScriptedManager clManager(s_tAnswers);
        CProgramOnTerminal clProgram(csOn(clManager, "watch --interval 0.05"));
        ASSERT_TRUE(clProgram.bShows("\033[?25l"));
        EXPECT_TRUE(clProgram.bShows("Orders"));
        EXPECT_TRUE(clProgram.bShows("Orders")) << "the second look";
        clProgram.Type(pszKey);
        EXPECT_TRUE(clProgram.bShows("\033[?25h"));
        EXPECT_EQ(clProgram.nEnd(), 0);
    }
}

TEST(Terminal, TheShellEditsKeepsAHistoryAndOutlivesAnInterruptedCommand)
{
    CScriptedManager clManager(s_tAnswers);
    CScriptedServer clMute([](CClientSide& cl) { cl.WaitForEnd(); });
    CProgramOnTerminal clProgram(csOn(clManager, "--no-color shell"));
    const struct
    {
        std::string csTyped;
        const char* pszShown;
    } tLines[] = {
        {"statu Orders\033[H\033[C\033[C\033[C\033[C\033[Cs\r", "running\r\n"},
        {"\033[A\x17Stock\r", "stopped\r\n"},
        {"\033[A\033[A\r", "running\r\n"},
        {"li\t\r", "unknown command \"li\""}, // list and lint: it takes one letter more
        {"lis\t--port " + clMute.csPort() + "\r", "asking the manager"},
        {"\x03", "velmoctl: interrupted"},
        {"help\r", "usage: velmoctl"},
        {"sta\x03", "sta"},
        {"\x04", ""},
    };
    for (const auto& st : tLines) {
        SCOPED_TRACE(st.csTyped);
        ASSERT_TRUE(st.csTyped == "\x03" || clProgram.bShows("velmo> ")); // before it, keys are not its own
        clProgram.Type(st.csTyped);
        ASSERT_TRUE(clProgram.bShows(st.pszShown));
    }
    EXPECT_EQ(clProgram.nEnd(), 0);
}

TEST(Terminal, TheShellReadsPlainLinesOffATerminal)
{
    CScriptedManager clManager(s_tAnswers);
    const STCommandResult stResult = stRun(
        "printf 'status Orders\\n\\nstatus \"Stock\\nshell\\nstatus Stock' | " + csOn(clManager, "shell"));
    EXPECT_EQ(stResult.csOutput, "running\nvelmoctl: the line ends inside a quotation\n"
                                 "velmoctl: this is the shell\nstopped\n");
    EXPECT_EQ(stResult.nStatus, 0);
    EXPECT_EQ(stRun("echo 'status Nix' | " + csOn(clManager, "shell")).nStatus, 1)
        << "that of the last command";
}

TEST(Terminal, WordsMayBeQuoted)
{
    const struct
    {
        const char* pszLine;
        std::vector<std::string> tWords;
    } tCases[] = {
        {"  a\tb  c\r", {"a", "b", "c"}},
        {"a \"b c\" 'd \"e'", {"a", "b c", "d \"e"}},
        {"a\\ b \"c\\\"d\" 'e\\f'", {"a b", "c\"d", "e\\f"}},
        {"a'b'c \"\"", {"abc", ""}},
        {"", {}},
    };
    for (const auto& st : tCases) {
        EXPECT_EQ(tWordsOf(st.pszLine), st.tWords) << st.pszLine;
    }
    EXPECT_THROW(tWordsOf("a\\"), CFailure);
}

TEST(Terminal, KeysEditTheLineAtTheCursor)
{
    using E = CEditLine::EKey;
    const std::vector<std::wstring> tHistory = {L"first", L"second"};
    const struct
    {
        std::vector<E> tKeys; // after typing "ab cd"
        const wchar_t* pszText;
        std::size_t nCursor;
    } tCases[] = {
        {{E::Left, E::Backspace}, L"ab d", 3},
        {{E::Home, E::Backspace, E::Delete, E::Left}, L"b cd", 0},
        {{E::End, E::Right, E::Delete}, L"ab cd", 5},
        {{E::Left, E::Left, E::KillToEnd}, L"ab ", 3},
        {{E::Left, E::Left, E::KillToStart}, L"cd", 0},
        {{E::KillWord}, L"ab ", 3},
        {{E::KillWord, E::KillWord, E::KillWord}, L"", 0},
        {{E::Up}, L"second", 6},
        {{E::Up, E::Up, E::Up}, L"first", 5},
        {{E::Up, E::Up, E::Down, E::Down, E::Down}, L"ab cd", 5},
    };
    for (const auto& st : tCases) {
        CEditLine clLine(tHistory);
        for (const wchar_t c : std::wstring(L"ab cd")) {
            clLine.Insert(c);
        }
        for (const E eKey : st.tKeys) {
            clLine.Key(eKey);
        }
        EXPECT_EQ(csToUTF8(clLine.csText()), csToUTF8(st.pszText));
        EXPECT_EQ(clLine.nCursor(), st.nCursor) << csToUTF8(st.pszText);
    }
}

TEST(Terminal, NothingThatATerminalWouldObeyGetsThrough)
{
    EXPECT_EQ(csShown("a\033[2Jb\r\n\t\xC2\x9B"
                      "c\xE2\x80\xAE\xFF"),
              "a\xEF\xBF\xBD[2Jb\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"
              "c\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(csJsonText("\"\\\x01\n\xC3\xA9\xE2\x80\xAE"), "\"\\\"\\\\\\u0001\\u000a\xC3\xA9\\u202e\"");
    EXPECT_EQ(csJsonNumber("007"), "\"007\"");
}
