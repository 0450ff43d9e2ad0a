// The forking service main with real processes: what the launcher waits for, what the daemon looks like, how
// it ends.

#include "main/ServiceSteps.h"
#include "support/ZTThread.h"
#include "SystemLog.h"
#include "TestService.h"
#include "tools/Command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>

namespace {
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char s_szPidFile[] = "/var/run/velmotest.pid";
using CPrepare = std::function<void(CTestService&)>;

void Nothing(CTestService&) {}

void FailStart(CTestService& cl)
{
    cl.m_fnStart = [] { return false; };
}

bool bForeground()
{
    RunDebugMode();
    return true;
}

/// A thread that starts one short thread after the other.
void RunShortThreads(CZTThread* pclThread)
{
    const auto fnShort = [](CZTThread* pclShort) {
        pclShort->Started();
        pclShort->Stopped();
    };
    pclThread->Started();
    while (!pclThread->bMustStop()) {
        CZTThread().eStart(fnShort, nullptr, 1, 0);
    }
    pclThread->Stopped();
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
        std::filesystem::remove(g_szHold);
    }
    /// Runs a daemon of a name; the launcher's status.
    static int nRun(const CPrepare& fnPrepare = Nothing, const wchar_t* pszName = L"velmotest")
    {
        return nEnd(nLaunch(fnPrepare, [&] { return bServiceMain(pszName); }));
    }
    static pid_t nDaemon() { return std::atoi(csReadFile(s_szPidFile).c_str()); }
    static int nStop(int nMs = 1000)
    {
        const pid_t nPid = nDaemon();
        ::kill(nPid, SIGTERM);
        return nEnd(nPid, nMs);
    }
    /// Every process of the daemon has ended, with status 0.
    static bool bNoneLeft()
    {
        int nStatus = 0;
        bool bClean = true;
        return bWaitUntil(
                   [&] {
                       const pid_t nPid = ::waitpid(-1, &nStatus, WNOHANG);
                       bClean = bClean && (nPid <= 0 || nStatus == 0);
                       return nPid < 0 && errno == ECHILD;
                   },
                   5000) &&
               bClean;
    }
    static std::string csEvents() { return csReadFile(g_szEvents); }
    static std::string csStatus(const std::string& csProcess, const std::string& csField)
    {
        return stRun("sed -n 's/^" + csField + ":[[:space:]]*//p' /proc/" + csProcess +
                     "/status | tr -d '\\n'")
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
    const pid_t nPid = nDaemon();
    const std::string csPid = std::to_string(nPid);
    EXPECT_EQ(csReadFile(s_szPidFile), csPid + "\n");
    EXPECT_EQ(stRun("stat -c %a /run/velmotest.pid").csOutput, "644\n");
    EXPECT_EQ(stRun("cd /proc/" + csPid + "/fd && for n in *; do echo $n $(readlink $n); done").csOutput,
              "0 /dev/null\n1 /dev/null\n2 /dev/null\n3 /run/velmotest.pid\n")
        << "nothing but its PID file beside them";
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + csPid + "/cwd"), "/tmp");
    EXPECT_EQ(csStatus(csPid, "Umask"), "0022");
    EXPECT_NE(::getsid(nPid), ::getsid(0));
    EXPECT_NE(::getsid(nPid), nPid) << "no session leader: it can never get a terminal";
    EXPECT_EQ(std::stoull(csStatus(csPid, "SigIgn"), nullptr, 16) & 1, 1u) << "a hang-up is ignored";
    EXPECT_EQ(nStop(), 0);
    EXPECT_FALSE(std::filesystem::exists(s_szPidFile));
    EXPECT_EQ(csEvents(), "started stop ended ");
}

TEST_F(Daemon, TheLauncherWaitsUntilTheServiceIsUpOrGone)
{
    const auto fnSlow = [](CTestService& cl) {
        cl.m_fnStart = [] {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            CTestService::s_Note("up ");
            return true;
        };
    };
    EXPECT_EQ(nRun(fnSlow), 0);
    EXPECT_EQ(csEvents(), "started up ");
    EXPECT_EQ(nStop(), 0);
    EXPECT_EQ(nRun([](CTestService& cl) { cl.m_fnStart = [] { return ::raise(SIGKILL) == 0; }; }), 0);
    EXPECT_EQ(csEvents(), "started ");
    const auto fnSlowEnd = [nSession = ::getsid(0)] {
        const bool bResult = bServiceMain(L"velmotest");
        if (::getsid(0) != nSession) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            CTestService::s_Note("gone ");
        }
        return bResult;
    };
    EXPECT_EQ(nEnd(nLaunch(FailStart, fnSlowEnd)), 0);
    EXPECT_EQ(csEvents(), "started gone ");
    EXPECT_EQ(nRun(Nothing, L""), 255) << "no name";
    EXPECT_EQ(nRun(Nothing, nullptr), 255);
    EXPECT_EQ(csEvents(), "");
}

TEST_F(Daemon, AFailedStartIsLoggedAndLeavesNothing)
{
    const auto fnNobodyThere = [](CTestService& cl) { cl.m_csUser = L"velmo 100%s nobody"; };
    const std::string csNoPidFile = "<10>Echec de la cr\u00e9"
                                    "ation du fichier de lock du demon";
    const struct
    {
        const char* pszWorld; ///< run before
        CPrepare fnPrepare;
        std::string csLog;
        const char* pszEvents;
    } tCases[] = {
        {"true", FailStart, "<10>The service \"VelmoManager\" could not be started.", "started "},
        {"true", fnNobodyThere,
         "<10>The user \"velmo 100%s nobody\" that the manager is to run as does not exist", ""},
        {"mkdir /run/velmotest.pid", Nothing, csNoPidFile, "started stop "},
        {"ln -s /etc/passwd /run/velmotest.pid", Nothing, csNoPidFile, "started stop "},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszWorld);
        stRun(st.pszWorld);
        const std::string csBefore = csReadFile("/etc/passwd");
        EXPECT_EQ(nRun(st.fnPrepare), 0);
        EXPECT_TRUE(bNoneLeft());
        EXPECT_THAT(m_clLog.csNext(), StartsWith(st.csLog));
        EXPECT_TRUE(m_clLog.bSilent());
        EXPECT_EQ(csEvents(), st.pszEvents);
        EXPECT_EQ(csReadFile("/etc/passwd"), csBefore);
        EXPECT_EQ(std::filesystem::exists(std::filesystem::symlink_status(s_szPidFile)),
                  std::string(st.pszWorld) != "true");
        std::filesystem::remove(s_szPidFile);
    }
}

TEST_F(Daemon, APidFileIsOverwrittenAtItsStartOnlyAndTakenAwayByASecondOneThatStops)
{
    const std::string csOld = "99999999999999\nold\n";
    std::ofstream(s_szPidFile) << csOld;
    ASSERT_EQ(nRun(), 0);
    const pid_t nFirst = nDaemon();
    const std::string csPid = std::to_string(nFirst) + "\n";
    EXPECT_EQ(csReadFile(s_szPidFile), csPid + csOld.substr(csPid.size()));
    EXPECT_EQ(nRun(), 0);
    EXPECT_TRUE(bWaitUntil([] { return csEvents() == "started stop "; }, 5000)) << csEvents();
    EXPECT_TRUE(bWaitUntil([] { return !std::filesystem::exists(s_szPidFile); }, 5000));
    EXPECT_EQ(::kill(nFirst, SIGTERM), 0) << "the first one runs on";
    EXPECT_EQ(nEnd(nFirst), 0);
    EXPECT_TRUE(m_clLog.bSilent());
    EXPECT_TRUE(bNoneLeft());
}

TEST_F(Daemon, AServiceUserGetsTheDirectoryAndThenThePidFileAndTheProcess)
{
    const std::string csDirectory = "/tmp/it's \"$(touch evil)\"; touch evil2 #";
    std::filesystem::create_directories(csDirectory + "/closed");
    std::ofstream{csDirectory + "/closed/file"};
    for (const char* pszName : {"/closed/file", "/closed"}) {
        std::filesystem::permissions(csDirectory + pszName, std::filesystem::perms::none);
    }
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
    const std::string csPid = std::to_string(nDaemon());
    const std::string csNobody = std::to_string(::getpwnam("nobody")->pw_uid);
    EXPECT_EQ(csStatus(csPid, "Uid"), csNobody + "\t" + csNobody + "\t" + csNobody + "\t" + csNobody);
    EXPECT_EQ(csStatus(csPid, "Gid").find("0\t"), std::string::npos);
    EXPECT_EQ(stRun("stat -c '%U %G %a' /run/velmotest.pid /tmp/it*/closed /tmp/it*/closed/file").csOutput,
              stRun("for mode in 644 700 0; do echo nobody $(id -gn nobody) $mode; done").csOutput);
    EXPECT_FALSE(std::filesystem::exists("/tmp/evil") || std::filesystem::exists("/tmp/evil2"));
    EXPECT_THAT(csReadFile("/proc/" + csPid + "/limits"),
                ::testing::ContainsRegex("core file size +unlimited +unlimited"));
    EXPECT_EQ(nStop(), 0);
}

TEST_F(Daemon, ARefusedLimitOrSwitchIsLogged)
{
    const auto fnPowerless = [](CTestService&) {
        const rlimit stNone{0, 0};
        ::setrlimit(RLIMIT_CORE, &stNone);
        EXPECT_EQ(::setresuid(65534, 65534, 65534), 0);
    };
    const auto fnTry = [] {
        AllowCoreDump();
        return __bChangeUser(-1, L"root", true);
    };
    EXPECT_EQ(nEnd(nLaunch(fnPowerless, fnTry)), 255);
    EXPECT_THAT(m_clLog.csNext(), StartsWith("<10>The limit on core dumps could not be raised"));
    EXPECT_THAT(m_clLog.csNext(), StartsWith("<10>The manager could not switch to the user \"root\"."));
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
    EXPECT_EQ(nEnd(nLaunch(fnStopped, bForeground)), 0);
    EXPECT_EQ(csEvents(), "started stop ended ");
}

TEST_F(Daemon, AStopRightBehindTheStartIsNeverLostWhateverThreadsComeAndGo)
{
    const auto fnBusy = [](CTestService& cl) {
        cl.m_fnStart = [] {
            static CZTThread s_tMakers[3];
            for (CZTThread& clMaker : s_tMakers) {
                clMaker.eStart(RunShortThreads, nullptr, 0, 0);
            }
            return true;
        };
    };
    for (int n = 0; n < 50; ++n) {
        ASSERT_EQ(nRun(fnBusy), 0);
        ASSERT_EQ(nStop(), 0) << "stop " << n;
        ASSERT_EQ(csEvents(), "started stop ended ");
        ASSERT_FALSE(std::filesystem::exists(s_szPidFile));
    }
}

TEST_F(Daemon, ASignalToAWorkerDoesNotStopItAndASecondOneChangesNothing)
{
    const auto fnOneWorker = [](CTestService& cl) {
        cl.m_fnStart = [] {
            static CZTThread s_clWorker;
            return s_clWorker.eStart(
                       [](CZTThread* pclWorker) {
                           sigset_t stNone; // as the runtime library's threads might have it
                           sigemptyset(&stNone);
                           ::pthread_sigmask(SIG_SETMASK, &stNone, nullptr);
                           pclWorker->Started();
                           pclWorker->SleepOrStop();
                       },
                       nullptr, 1, 0) == CZTThread::START_OK;
        };
    };
    std::ofstream{g_szHold};
    ASSERT_EQ(nRun(fnOneWorker), 0);
    const pid_t nPid = nDaemon();
    const std::string csTasks = "/proc/" + std::to_string(nPid) + "/task";
    const std::string csWorker = stRun("ls " + csTasks + " | sort -n | tail -n 1 | tr -d '\\n'").csOutput;
    ASSERT_NE(csWorker, std::to_string(nPid));
    ASSERT_EQ(::syscall(SYS_tgkill, nPid, std::stoi(csWorker), SIGTERM), 0);
    EXPECT_FALSE(bWaitUntil([] { return csEvents() != "started "; }, 100));
    ::kill(nPid, SIGTERM);
    ASSERT_TRUE(bWaitUntil([] { return csEvents() == "started stop "; }, 5000)) << csEvents();
    ::kill(nPid, SIGTERM);
    EXPECT_TRUE(bWaitUntil(
        [&] { return std::stoi(csStatus(std::to_string(nPid), "ShdPnd"), nullptr, 16) == 0; }, 5000));
    std::filesystem::remove(g_szHold);
    EXPECT_EQ(nEnd(nPid), 0);
    EXPECT_EQ(csEvents(), "started stop ended ");
}

TEST_F(Daemon, TheForegroundModeStaysAndIsSilentAboutAFailedStart)
{
    EXPECT_EQ(nEnd(nLaunch(FailStart, bForeground)), 0);
    const pid_t nPid = nLaunch([](CTestService& cl) { cl.m_csUser = L"nobody"; }, bForeground);
    ASSERT_TRUE(bWaitUntil([] { return csEvents() == "started "; }, 5000));
    EXPECT_EQ(csStatus(std::to_string(nPid), "Uid"), "0\t0\t0\t0") << "no switch of users";
    EXPECT_FALSE(std::filesystem::exists(s_szPidFile));
    ::kill(nPid, SIGTERM);
    EXPECT_EQ(nEnd(nPid), 0);
    EXPECT_TRUE(m_clLog.bSilent());
}
