// The service main with real processes. Forking: what the launcher waits for, what the daemon looks like, how
// it ends. Notifying: what it sends, to real sockets.

#include "SystemLog.h"
#include "TestService.h"
#include "tools/Command.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <new>
#include <pwd.h>
#include <sys/prctl.h>

namespace {
using ::testing::MatchesRegex;
using ::testing::StartsWith;

constexpr char s_szPidFile[] = "/var/run/velmotest.pid";
using CPrepare = std::function<void(CTestService&)>;

void Nothing(CTestService&) {}

void FailStart(CTestService& cl)
{
    cl.m_fnStart = [] { return false; };
}

class Daemon : public ::testing::Test
{
protected:
    void SetUp() override
    {
        REQUIRE_PRIVATE_DEVICES();
        ::prctl(PR_SET_CHILD_SUBREAPER, 1); // orphaned daemons become children of the test
        ::umask(0);
        std::filesystem::remove_all(s_szPidFile);
    }
    void TearDown() override
    {
        std::ifstream clChildren("/proc/thread-self/children"); // of a test that failed
        for (pid_t nPid = 0; clChildren >> nPid;) {
            ::kill(nPid, SIGKILL);
        }
        (void)bNoneLeft();
        std::filesystem::remove_all(s_szPidFile);
    }
    /// Runs a daemon; the launcher's status.
    static int nRun(const CPrepare& fnPrepare = Nothing)
    {
        return nEndOf(nLaunch(fnPrepare, [] { return bServiceMain(L"velmotest"); }));
    }
    static pid_t nDaemon() { return std::atoi(csReadFile(s_szPidFile).c_str()); }
    static int nStop(pid_t nPid = nDaemon())
    {
        ::kill(nPid, SIGTERM);
        return nEndOf(nPid, 1000);
    }
    /// Every process of the daemon has ended, with status 0.
    static bool bNoneLeft()
    {
        int nStatus = 0;
        const auto bLast = [&] { return ::waitpid(-1, &nStatus, WNOHANG) < 0 || nStatus != 0; };
        return bWaitUntil(bLast, 5000) && nStatus == 0;
    }
    static std::string csEvents() { return csReadFile(g_szEvents); }
    /// Lines of the daemon's status in /proc.
    static std::string csStatus(const std::string& csFields)
    {
        return stRun("grep -E '^(" + csFields + "):' /proc/" + std::to_string(nDaemon()) + "/status")
            .csOutput;
    }
    CSystemLog m_clLog;
};
} // namespace

TEST_F(Daemon, IsCutOffFromWhoeverStartedIt)
{
    const CDescripteur clLeak(::open("/etc/passwd", O_RDONLY)); // inheritable on purpose
    const auto fnMaskAll = [](CTestService&) {
        ::umask(077);
        sigset_t stAll;
        sigfillset(&stAll);
        ::sigprocmask(SIG_BLOCK, &stAll, nullptr);
    };
    ASSERT_EQ(nRun(fnMaskAll), 0);
    const std::string csPid = std::to_string(nDaemon());
    EXPECT_EQ(csReadFile(s_szPidFile), csPid + "\n");
    EXPECT_EQ(stRun("stat -c %a /run/velmotest.pid").csOutput, "644\n");
    EXPECT_EQ(stRun("cd /proc/" + csPid +
                    " && readlink cwd && cd fd && for n in *; do echo $n $(readlink $n); done")
                  .csOutput,
              "/tmp\n0 /dev/null\n1 /dev/null\n2 /dev/null\n3 /run/velmotest.pid\n")
        << "nothing but its PID file beside them";
    EXPECT_THAT(csStatus("Umask|SigIgn"), MatchesRegex("Umask:\t0022\nSigIgn:\t[0-9a-f]*[13579bdf]\n"))
        << "a hang-up is ignored";
    EXPECT_NE(::getsid(nDaemon()), ::getsid(0));
    EXPECT_NE(::getsid(nDaemon()), nDaemon()) << "no session leader: it can never get a terminal";
    EXPECT_EQ(nStop(), 0);
    EXPECT_FALSE(std::filesystem::exists(s_szPidFile));
    EXPECT_EQ(csEvents(), "started stop ended ");
}

TEST_F(Daemon, AFailedStartIsLoggedAndLeavesNothing)
{
    constexpr char szNotStarted[] = "<10>The service \"VelmoManager\" could not be started.";
    const auto fnNobodyThere = [](CTestService& cl) { cl.m_csUser = L"velmo 100%s nobody"; };
    const auto fnOutOfMemory = [](CTestService& cl) {
        cl.m_fnStart = []() -> bool { throw std::bad_alloc(); };
    };
    const std::tuple<CPrepare, std::vector<const char*>, const char*> tCases[] = {
        {FailStart, {szNotStarted}, "started "},
        {fnNobodyThere, {"<10>The user \"velmo 100%s nobody\" that the manager is to run as does not"}, ""},
        {fnOutOfMemory, {"<10>out of memory", szNotStarted}, "started "},
        {Nothing, {"<10>Echec de la création du fichier de lock du demon", szNotStarted}, "started stop "},
    };
    for (const auto& [fnPrepare, tEntries, pszEvents] : tCases) {
        SCOPED_TRACE(tEntries[0]);
        std::filesystem::create_symlink("/tmp/victim", s_szPidFile);
        EXPECT_EQ(nRun(fnPrepare), 0);
        EXPECT_TRUE(bNoneLeft());
        for (const char* pszEntry : tEntries) {
            EXPECT_THAT(m_clLog.csNext(), StartsWith(pszEntry));
        }
        EXPECT_TRUE(m_clLog.bSilent());
        EXPECT_EQ(csEvents(), pszEvents);
        EXPECT_FALSE(std::filesystem::exists("/tmp/victim")) << "a link is not followed";
        EXPECT_TRUE(std::filesystem::remove(s_szPidFile)) << "nor taken away";
    }
}

TEST_F(Daemon, ASecondOneStopsAndTakesThePidFileAwayAllTheSame)
{
    ASSERT_EQ(nRun(), 0);
    const pid_t nFirst = nDaemon();
    EXPECT_EQ(nRun(), 0);
    EXPECT_EQ(csEvents(), "started stop ");
    EXPECT_THAT(m_clLog.csNext(), StartsWith("<10>lock /var/run/velmotest.pid"));
    EXPECT_FALSE(std::filesystem::exists(s_szPidFile)) << "although it is the first one's; intended";
    EXPECT_EQ(nStop(nFirst), 0);
}

TEST_F(Daemon, AServiceUserGetsTheDirectoryAndThenThePidFileAndTheProcess)
{
    const std::string csDirectory = "/tmp/it's \"$(touch evil)\"; touch evil2 #";
    std::filesystem::create_directories(csDirectory);
    ASSERT_EQ(
        stRun("cd /tmp/it*/ && mkdir closed && touch closed/file && chmod 0 closed/file closed").nStatus, 0);
    const auto fnPrepare = [&](CTestService& cl) {
        cl.m_csUser = L"nobody";
        cl.m_csDirectory = std::wstring(csDirectory.begin(), csDirectory.end());
        cl.m_bCoreDump = true;
        cl.m_fnStart = [] {
            CTestService::s_Note(::geteuid() == ::getpwnam("nobody")->pw_uid ? "effective " : "not ");
            CTestService::s_Note(::getuid() == 0 ? "only " : "for good ");
            return true;
        };
    };
    ASSERT_EQ(nRun(fnPrepare), 0);
    EXPECT_EQ(csEvents(), "started effective only ");
    const std::string csNobody = "\t" + std::to_string(::getpwnam("nobody")->pw_uid);
    EXPECT_THAT(csStatus("Uid|Gid"), MatchesRegex("Uid:" + csNobody + csNobody + csNobody + csNobody +
                                                  "\nGid:(\t[1-9][0-9]*)*\n"));
    EXPECT_EQ(stRun("stat -c '%U %G %a' /run/velmotest.pid /tmp/it*/closed /tmp/it*/closed/file").csOutput,
              stRun("for mode in 644 700 0; do echo nobody $(id -gn nobody) $mode; done").csOutput);
    EXPECT_FALSE(std::filesystem::exists("/tmp/evil") || std::filesystem::exists("/tmp/evil2"));
    EXPECT_THAT(csReadFile("/proc/" + std::to_string(nDaemon()) + "/limits"),
                ::testing::ContainsRegex("core file size +unlimited +unlimited"));
    EXPECT_EQ(nStop(), 0);
}

TEST_F(Daemon, AStopThatComesDuringTheStartIsCarriedOutOnceTheServiceIsUp)
{
    const auto fnStopped = [](CTestService& cl) {
        cl.m_fnStart = [] { return ::kill(::getpid(), SIGTERM) == 0; };
    };
    EXPECT_EQ(nRun(fnStopped), 0);
    EXPECT_TRUE(bNoneLeft());
    EXPECT_EQ(csEvents(), "started stop ended ");
    EXPECT_FALSE(std::filesystem::exists(s_szPidFile));
    const auto fnForeground = [] {
        RunDebugMode();
        return true;
    };
    EXPECT_EQ(nEndOf(nLaunch(fnStopped, fnForeground)), 0);
    EXPECT_EQ(csEvents(), "started stop ended ");
}

TEST_F(Daemon, ReadinessIsNotifiedOnceAndNobodyElseSeesTheSocket)
{
    const std::pair<std::string, const char*> tCases[] = {{"/run/" + std::string(102, 'n'), "READY=1"},
                                                          {"@" + std::string(106, 'n'), "READY=1"},
                                                          {"/run/nobody/listens", ""}};
    for (const auto& [csName, pszSent] : tCases) {
        SCOPED_TRACE(csName);
        const CLocalReceiver clReceiver(*pszSent != 0 ? csName : "@elsewhere");
        const auto fnPrepare = [pszName = csName.c_str()](CTestService& cl) { // clang 14 captures no bindings
            ::setenv("NOTIFY_SOCKET", pszName, 1);
            cl.m_fnStart = [] {
                CTestService::s_Note(std::getenv("NOTIFY_SOCKET") == nullptr ? "unset " : "set ");
                return true;
            };
        };
        const pid_t nPid = nLaunch(fnPrepare, [] { return bServiceMain(L""); });
        EXPECT_TRUE(bWaitUntil([] { return csEvents() == "started unset "; }, 5000)) << csEvents();
        EXPECT_EQ(clReceiver.csNext(*pszSent != 0 ? 5000 : 50), pszSent);
        EXPECT_EQ(::getsid(nPid), ::getsid(0)) << "it stays where it was started";
        ::kill(nPid, SIGTERM);
        EXPECT_EQ(nEndOf(nPid, 1000), 0);
        EXPECT_EQ(clReceiver.csNext(50), "");
        EXPECT_EQ(csEvents(), "started unset stop ended ");
    }
}
