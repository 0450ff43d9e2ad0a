// The client with a user in front of it: on a terminal, and at the prompt of its shell.

#include "ScriptedManager.h"
#include "tools/TempDir.h"
#include "tools/Wait.h"

#include <gtest/gtest.h>
#include <pty.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace {
/// A program on a terminal of its own: what is typed goes in, what it shows comes out.
class CProgramOnTerminal
{
public:
    explicit CProgramOnTerminal(const std::string& csCommand)
    {
        winsize stSize{24, 80, 0, 0};
        int nTerminal = -1;
        m_nPid = ::forkpty(&nTerminal, nullptr, nullptr, &stSize);
        if (m_nPid == 0) {
            ::setenv("TERM", "xterm", 1);
            ::execl("/bin/sh", "sh", "-c", ("exec " + csCommand).c_str(), nullptr);
            ::_exit(127);
        }
        m_clTerminal = CDescripteur(nTerminal);
    }
    ~CProgramOnTerminal() { std::ignore = m_nPid > 0 ? nEndOf(m_nPid, 0) : 0; }
    CProgramOnTerminal(const CProgramOnTerminal&) = delete;
    CProgramOnTerminal& operator=(const CProgramOnTerminal&) = delete;

    void Type(std::string_view cs) const { std::ignore = ::write(m_clTerminal.nFd(), cs.data(), cs.size()); }
    /// Waits until a text is shown, and reads no further.
    bool bShows(const std::string& csText)
    {
        for (m_csShown.clear(); !m_csShown.ends_with(csText);) {
            if (m_csShown.size() > 10'000 || !_bRead()) {
                return false;
            }
        }
        return true;
    }
    /// What the last wait has read.
    const std::string& csShown() const { return m_csShown; }
    /// How it ended (see nEndOf), after reading all that is left.
    int nEnd()
    {
        while (_bRead()) {
        }
        return nEndOf(std::exchange(m_nPid, -1), 1000);
    }

private:
    bool _bRead()
    {
        char c = 0;
        if (!bReadable(m_clTerminal.nFd(), 10'000) || ::read(m_clTerminal.nFd(), &c, 1) != 1) {
            return false;
        }
        m_csShown += c;
        return true;
    }

    pid_t m_nPid = -1;
    CDescripteur m_clTerminal;
    std::string m_csShown;
};

const CScriptedManager::Answers s_tAnswers = {{"INFO", csInfo("\tOrders\t4900")},
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
    const std::tuple<const char*, int, const char*> tCases[] = {
        {"y\n", 0, "STATUS\tStock|UNINSTALL\tStock\t0|"},
        {"no\n", 5, "STATUS\tStock|"},
        {"\n", 5, "STATUS\tStock|"},
        {"\x04", 5, "STATUS\tStock|"},
        {"\x03", 130, "STATUS\tStock|"}};
    for (const auto& [pszTyped, nStatus, pszAsked] : tCases) {
        SCOPED_TRACE(pszTyped);
        CScriptedManager clManager(s_tAnswers);
        CProgramOnTerminal clProgram(csOn(clManager, "uninstall Stock"));
        clProgram.Type("y\n"); // typed ahead: no answer
        ASSERT_TRUE(clProgram.bShows(
            "\"Stock\" is stopped. Uninstall: stop it and remove its service; its files are kept? [y/N] "));
        clProgram.Type(pszTyped);
        EXPECT_EQ(clProgram.nEnd(), nStatus);
        EXPECT_EQ(clManager.csAsked(), pszAsked);
    }
}

TEST(Terminal, ColoursAreForTerminalsWhoseUserWantsThem)
{
    CScriptedManager clManager(s_tAnswers);
    const std::tuple<const char*, const char*, const char*> tCases[] = {
        {"", "", "\033[32mrunning\033[0m"}, {"", "--no-color", "running\r\n"},
        {"NO_COLOR=1", "", "running\r\n"},  {"NO_COLOR=", "", "\033[32mrunning\033[0m"},
        {"TERM=", "", "running\r\n"},       {"TERM=dumb", "", "running\r\n"}};
    for (const auto& [pszEnvironment, pszOption, pszShown] : tCases) {
        SCOPED_TRACE(std::string(pszEnvironment) + pszOption);
        CProgramOnTerminal clProgram("env " + (pszEnvironment + (" " + csOn(clManager, pszOption))) +
                                     " status Orders");
        EXPECT_TRUE(clProgram.bShows(pszShown));
        EXPECT_EQ(clProgram.nEnd(), 0);
    }
}

TEST(Terminal, AWatchGoesOnUntilTheUserEndsItAndBringsTheCursorBack)
{
    CScriptedManager clManager(s_tAnswers);
    for (const char* pszKey : {"q", "\x03"}) {
        CProgramOnTerminal clProgram(csOn(clManager, "watch --interval 0.05"));
        ASSERT_TRUE(clProgram.bShows("\033[?25l"));
        EXPECT_TRUE(clProgram.bShows("Orders"));
        EXPECT_TRUE(clProgram.bShows("Orders")) << "the second look";
        clProgram.Type(pszKey);
        EXPECT_TRUE(clProgram.bShows("\033[?25h"));
        EXPECT_EQ(clProgram.nEnd(), 0);
    }
}

TEST(Terminal, AWatchScrollsAListThatIsLongerThanTheTerminal)
{
    CScriptedManager::Answers tAnswers = {{"INFO", csInfo("")}};
    for (int n = 10; n < 40; ++n) {
        tAnswers["INFO"] += "\ts" + std::to_string(n) + "\t1";
        tAnswers["STATUS\ts" + std::to_string(n)] = "STATUS\tRUNNING";
    }
    CScriptedManager clManager(tAnswers);
    CProgramOnTerminal clProgram(csOn(clManager, "--no-color watch --interval 60"));
    const std::pair<const char*, const char*> tSteps[] = {
        // 24 lines hold the header, 22 servers and the last line
        {"", "s31   1     running\033[K\r\n\033[J0 above, 8 more below (arrow keys scroll, q ends)"},
        {"\033[B", "\033[HNAME  PORT  STATE\033[K\r\ns11   1 "},
        {"", "1 above, 7 more below"},
        {"\033[6~", "s39   1     running\033[K\r\n\033[J8 above, 0 more below"},
        {"g", "\033[J0 above, 8 more below"},
        {"jj\033[Bx", "\033[J3 above, 5 more below"}, // quicker than the look at them
    };
    for (const auto& [pszTyped, pszShown] : tSteps) {
        SCOPED_TRACE(pszShown);
        clProgram.Type(pszTyped);
        ASSERT_TRUE(clProgram.bShows(pszShown));
    }
    clProgram.Type("kqq");
    EXPECT_TRUE(clProgram.bShows("\033[?7h\033[?25h"));
    EXPECT_EQ(clProgram.nEnd(), 0);

    // Into a pipe whose reader goes away it leaves the terminal as it was.
    CProgramOnTerminal clPiped("sh -c '" + csOn(clManager, "watch --interval 0.05") + " | head -n 1; stty'");
    EXPECT_TRUE(clPiped.bShows("NAME  PORT  STATE\r\n"));
    clPiped.nEnd();
    EXPECT_EQ(clPiped.csShown().find("-icanon"), std::string::npos) << clPiped.csShown();
}

TEST(Terminal, AProgressLineSaysWhoIsWaitedForAndIsGoneInTheEnd)
{
    CScriptedManager clManager(s_tAnswers);
    CScriptedServer clMute([](const CClientSide& cl) { cl.StaySilent(); });
    const CTempDir clFolder;
    const std::string csHosts =
        clFolder.csWrite("hosts", "fine ansible_host=127.0.0.1 velmo_port=" + clManager.csPort() +
                                      "\nmute ansible_host=127.0.0.1 velmo_port=" + clMute.csPort() + "\n");
    const std::string csList = csClient() + " --no-color --hosts " + csHosts + " list --timeout ";
    const std::string csLine = "\r\033[K1 of 2 machines answered, waiting for mute", csGone = "\r\033[K";
    const std::string csTable = "HOST  NAME    PORT  STATE\r\nfine  Orders  4900  running\r\n";

    CProgramOnTerminal clPatient(csList + "1.5");
    ASSERT_TRUE(clPatient.bShows(csLine));
    EXPECT_TRUE(clPatient.bShows(csGone + csTable + "velmoctl: 1 of 2 machines gave no answer:\r\n"));
    EXPECT_EQ(clPatient.nEnd(), 3);

    CProgramOnTerminal clImpatient(csList + "60");
    ASSERT_TRUE(clImpatient.bShows(csLine));
    EXPECT_TRUE(clImpatient.bShows(csGone + csTable + csLine)) << "the rows of others come first";
    clImpatient.Type("\x03");
    EXPECT_TRUE(clImpatient.bShows(csGone + "velmoctl: interrupted\r\n"));
    EXPECT_EQ(clImpatient.nEnd(), 130);

    CProgramOnTerminal clDumb("env TERM=dumb " + csList + "1.2");
    EXPECT_TRUE(clDumb.bShows("HOST  NAME    PORT  STATE\r\n"));
    EXPECT_EQ(clDumb.csShown(), "HOST  NAME    PORT  STATE\r\n") << "nothing else before";
    EXPECT_EQ(clDumb.nEnd(), 3);
}

TEST(Terminal, TheShellEditsKeepsAHistoryAndOutlivesAnInterruptedCommand)
{
    CScriptedManager clManager(s_tAnswers);
    CScriptedServer clMute([](const CClientSide& cl) { cl.StaySilent(); });
    const CTempDir clState; // of the history, which a second shell goes on with
    const std::string csShell =
        "env XDG_STATE_HOME=" + clState.csPath() + " " + csOn(clManager, "--no-color shell");
    CProgramOnTerminal clProgram(csShell);
    const std::pair<std::string, const char*> tLines[] = {
        {"statu Orders\033[H\033[C\033[C\033[C\033[C\033[Cs\r", "running\r\n"},
        {"\033[A\x17Stock\r", "stopped\r\n"},
        {"junk\x15status Ordersxy\x7f\033[D\x0b\r", "running\r\n"},
        {"xstatus Stock\x01\033[3~\x05\r", "stopped\r\n"},
        {"\033[A\033[A\033[A\033[B\r", "running\r\n"},
        {"li\t\r", "list  lint"}, // both are offered
        {"lis\t--port " + clMute.csPort() + "\r", "asking the manager"},
        {"\x03", "velmoctl: interrupted"},
        {"help\r", "Usage: velmoctl"},
        {"sta", "sta"},
        {"\x03", ""},
        {"\x04", ""},
    };
    for (const auto& [csTyped, pszShown] : tLines) {
        SCOPED_TRACE(csTyped);
        ASSERT_TRUE(csTyped == "\x03" || clProgram.bShows("velmo> ")); // before it, keys are not its own
        clProgram.Type(csTyped);
        ASSERT_TRUE(clProgram.bShows(pszShown)) << clProgram.csShown();
    }
    EXPECT_EQ(clProgram.nEnd(), 0);

    CProgramOnTerminal clSecond(csShell);
    ASSERT_TRUE(clSecond.bShows("velmo> "));
    clSecond.Type("\033[A\033[A\033[A\033[A\033[A\033[A\033[A\033[A\033[A\r"); // the first shell's first line
    EXPECT_TRUE(clSecond.bShows("running\r\n"));
    clSecond.Type("quit\r");
    EXPECT_EQ(clSecond.nEnd(), 0);

    const CTempDir clHome; // another user's, as with sudo
    if (::chown(clHome.csPath().c_str(), 65534, 65534) == 0) {
        CProgramOnTerminal clElsewhere("env -u XDG_STATE_HOME HOME=" + clHome.csPath() + " " +
                                       csOn(clManager, "shell"));
        ASSERT_TRUE(clElsewhere.bShows("velmo> "));
        clElsewhere.Type("help\rquit\r");
        EXPECT_EQ(clElsewhere.nEnd(), 0);
        EXPECT_FALSE(clHome.bExists(".local"));
    }
}

TEST(Terminal, TheShellReadsPlainLinesWithQuotedWordsOffATerminal)
{
    CScriptedManager clManager(s_tAnswers);
    const CTempDir clFolder;
    const std::string csLines = clFolder.csWrite("lines", R"(status Or"ders"

 status	"too many" words
status "a \"b"\ 'c "\d'
start ""
status "Stock
status Stock\
status Stock
shell)");
    const STCommandResult stResult = stClient(clManager.csPort(), "shell <" + csLines);
    EXPECT_TRUE(stResult.csOutput.ends_with("velmoctl: the line ends inside a quotation\n"
                                            "velmoctl: the line ends inside a quotation\n"
                                            "stopped\n"
                                            "velmoctl: this is the shell\n"))
        << stResult.csOutput;
    EXPECT_EQ(stResult.nStatus, 2) << "that of the last command";
    EXPECT_EQ(clManager.csAsked(),
              "STATUS\tOrders|STATUS\ttoo many|STATUS\twords|STATUS\ta \"b c \"\\d|START\t|STATUS\tStock|");
}
