// The manager's own life in a machine with a real systemd: it installs itself, is replaced, removed, stopped,
// killed, and stops the servers that it should.

#include "MachineTest.h"

#include <csignal>

namespace {
constexpr char s_szUnit[] = "/lib/systemd/system/VelmoManager.service";
constexpr char s_szPidFile[] = "/run/VelmoManager.pid";
constexpr char s_szNotStarted[] =
    "255 The service could not be started. Look for its last entries in the system log, "
    "correct what they report, then try again.\n";
std::string csRead(const std::string& csPath)
{
    return stRun("cat " + csPath).csOutput;
}

std::string csHome(const std::string& csFolder)
{
    return "/opt/velmo/" + csFolder + "/";
}

/// Puts a manager into a folder; with another version, its executable says so (it behaves as this one does).
void Put(const std::string& csFolder, const std::string& csVersion = "24.0.6.0")
{
    PutManager(csFolder, "RestartOnFailed=0\n");
    const std::string csEntry = "FileVersion=" + csVersion;
    ASSERT_EQ(stRun("cd " + csHome(csFolder) + " && LC_ALL=C sed -i s/FileVersion=24.0.6.0/" + csEntry +
                    "/ VelmoManager && grep -q " + csEntry + " VelmoManager")
                  .nStatus,
              0);
}

/// What a command comes to: its exit status, a blank, its output.
std::string csOutcome(const std::string& csCommand)
{
    const STCommandResult st = stRun(csCommand);
    return std::to_string(st.nStatus) + " " + st.csOutput;
}

std::string csManager(const std::string& csFolder, const std::string& csArguments = "")
{
    return csOutcome("cd / && exec " + csHome(csFolder) + "VelmoManager " + csArguments);
}

std::string csUnitText(const std::string& csFolder)
{
    return "[Unit]\nDescription=VelmoManager\nAfter=network.target\n[Install]\nWantedBy=multi-user.target\n"
           "[Service]\nType=forking\nExecStart=" +
           csHome(csFolder) +
           "VelmoManager --SERVICE VelmoManager\n"
           "PIDFile=/var/run/VelmoManager.pid\nRestart=on-abnormal\n";
}

bool bAnswers()
{
    return CWireClient("127.0.0.1", 4999).csLine() == g_szHello;
}

pid_t nManager()
{
    return nPidOf("VelmoManager");
}

/// Names of what a manager that has gone must not leave; empty when there is nothing after a second at most.
std::string csLeftovers()
{
    std::string csFound;
    bWaitUntil(
        [&] {
            csFound = stRun("pgrep -x VelmoManager").csOutput;
            for (const char* pszFile : {s_szPidFile, g_szFifo}) {
                csFound += fs::exists(pszFile) ? pszFile : "";
            }
            return csFound.empty();
        },
        1000);
    return csFound;
}

/// When a unit entered or left a state: microseconds.
long long nWhen(const std::string& csState, const std::string& csUnit = "VelmoManager")
{
    return std::stoll(csShow(csState + "TimestampMonotonic", csUnit));
}

std::string csTimeOfJournal()
{
    return csOutput("date +@%s.%6N");
}

/// The manager's entries in the journal since then.
std::string csLog(const std::string& csSince)
{
    return stRun("journalctl --sync; journalctl -b -t VelmoManager -p crit -o cat --since=" + csSince)
        .csOutput;
}

/// Ends the registered manager, and its registration.
constexpr char s_szForget[] = "systemctl stop VelmoManager; systemctl disable VelmoManager; "
                              "rm /lib/systemd/system/VelmoManager.service; systemctl daemon-reload";

class Lifecycle : public CMachineTest
{
protected:
    void TearDown() override
    {
        stRun("systemctl stop VelmoManager; kill -9 $(cat /run/VelmoManager.pid); rm -rf "
              "/etc/systemd/system/VelmoManager.service.d /run/VelmoManager.pid /tmp/__pipe_velmomanager__");
        CMachineTest::TearDown();
    }
    /// More settings for the manager's unit.
    static void DropIn(const std::string& csSettings)
    {
        fs::create_directories("/etc/systemd/system/VelmoManager.service.d");
        std::ofstream("/etc/systemd/system/VelmoManager.service.d/x.conf") << "[Service]\n" << csSettings;
        stRun("systemctl daemon-reload");
    }
};
} // namespace

TEST_F(Lifecycle, TheFirstRunInstallsAndTheSecondTouchesNothing)
{
    Put("first");
    EXPECT_EQ(csManager("first"), "0 ");
    EXPECT_EQ(csRead(s_szUnit), csUnitText("first"));
    EXPECT_EQ(stRun("systemctl is-enabled VelmoManager").csOutput, "enabled\n");
    EXPECT_EQ(csShow("ActiveState"), "active");
    EXPECT_EQ(csRead(s_szPidFile), csShow("MainPID") + "\n");
    EXPECT_TRUE(bAnswers());

    const auto clUnitTime = fs::last_write_time(s_szUnit);
    const pid_t nPid = nManager();
    const auto clStart = CClock::now();
    EXPECT_EQ(csManager("first", "--installer"), "0 ");
    EXPECT_LT(CClock::now() - clStart, 1s);
    EXPECT_EQ(nManager(), nPid);
    EXPECT_EQ(fs::last_write_time(s_szUnit), clUnitTime);
}

TEST_F(Lifecycle, AnOlderManagerIsReplacedAndAnyOtherKept)
{
    const std::pair<const char*, bool> tCases[] = {
        {"9.99.9.9", true}, {"24.0.6.0", false}, {"24.0.10.0", false}};
    for (const auto& [pszVersion, bReplaced] : tCases) {
        SCOPED_TRACE(pszVersion);
        Put("installed");
        ASSERT_EQ(csManager("installed"), "0 ");
        const pid_t nPid = nManager();
        fs::remove_all("/opt/velmo/installed");
        Put("installed", pszVersion);
        Put("new");
        EXPECT_EQ(csManager("new"), "0 ");
        EXPECT_EQ(csRead(s_szUnit), csUnitText(bReplaced ? "new" : "installed"));
        EXPECT_EQ(nManager() != nPid, bReplaced);
        EXPECT_EQ(::kill(nPid, 0) == 0, !bReplaced);
        EXPECT_EQ(csShow("MainPID"), std::to_string(nManager()));
        EXPECT_EQ(stRun("systemctl is-enabled VelmoManager").csOutput, "enabled\n");
        EXPECT_TRUE(bAnswers());
        TearDown();
    }
}

TEST_F(Lifecycle, AServiceOfAnotherInstallationThatCannotStartIsReplacedOnce)
{
    Put("new");
    // A start that fails is given up after seconds, and once: systemd does not notice everywhere that a
    // daemon has ended without its PID file.
    DropIn("TimeoutStartSec=2\nRestart=no\n");
    const auto fnRegisterBroken = [] {
        std::ofstream(s_szUnit) << csUnitText("broken");
        stRun("systemctl daemon-reload; systemctl reset-failed; systemctl enable VelmoManager");
    };
    fnRegisterBroken();
    EXPECT_EQ(csManager("new"), "0 ");
    EXPECT_EQ(csRead(s_szUnit), csUnitText("new"));
    EXPECT_TRUE(bAnswers());
    EXPECT_EQ(stRun("systemctl stop VelmoManager").nStatus, 0);

    const CDescripteur clTaken = clTakePort();
    fnRegisterBroken();
    for (const char* pszWhat : {"the new one fails too", "its own failing service is not replaced"}) {
        SCOPED_TRACE(pszWhat);
        EXPECT_EQ(csManager("new"), s_szNotStarted);
        EXPECT_EQ(csRead(s_szUnit), csUnitText("new")) << "it stays registered";
        EXPECT_EQ(csShow("ActiveState"), "failed");
        EXPECT_EQ(csLeftovers(), "");
        stRun("systemctl reset-failed VelmoManager");
    }
}

TEST_F(Lifecycle, RemovalLeavesNothingOfTheManagerAndAllOfTheServers)
{
    AddServer("server", "DXCS-server", 4901, "");
    stRun("systemctl daemon-reload; systemctl start DXCS-server");
    Put("first");
    ASSERT_EQ(csManager("first"), "0 ");
    Play("lifecycle-removal.txt");
    EXPECT_EQ(csLeftovers(), "");
}

TEST_F(Lifecycle, OtherUsersAreToldAndChangeNothing)
{
    Put("first");
    Play("lifecycle-users.txt");
    EXPECT_TRUE(bAnswers());
}

TEST_F(Lifecycle, StopRightBehindStartFiftyTimes)
{
    Put("first");
    ASSERT_EQ(csManager("first"), "0 ");
    ASSERT_EQ(stRun("systemctl stop VelmoManager").nStatus, 0);
    for (int n = 0; n < 50; ++n) {
        SCOPED_TRACE(n);
        stRun("systemctl reset-failed VelmoManager"); // so many starts in a row are a failure otherwise
        ASSERT_EQ(stRun("systemctl start VelmoManager && systemctl stop VelmoManager").nStatus, 0);
        ASSERT_EQ(csLeftovers(), "");
        ASSERT_EQ(csShow("ActiveState") + csShow("Result"), "inactivesuccess");
        ASSERT_LT(nWhen("InactiveEnter") - nWhen("ActiveExit"), 1'000'000) << "microseconds";
    }
}

TEST_F(Lifecycle, SystemdSeesTheRightStateAfterARestartAndAKill)
{
    Put("first");
    ASSERT_EQ(csManager("first"), "0 ");
    const pid_t nBefore = nManager();
    EXPECT_EQ(stRun("systemctl restart VelmoManager").nStatus, 0);
    EXPECT_NE(nManager(), nBefore);
    EXPECT_EQ(csShow("ActiveState") + csShow("MainPID"), "active" + std::to_string(nManager()));

    DropIn("Restart=no\n");
    ::kill(nManager(), SIGKILL);
    EXPECT_TRUE(bWaitUntil([] { return csShow("ActiveState") + csShow("Result") == "failedsignal"; }, 5000));
    EXPECT_EQ(csManager("first"), "0 ") << "what the killed one left is no hindrance";
    EXPECT_TRUE(bAnswers());
}

TEST_F(Lifecycle, SystemdIsNotifiedWhenTheEndpointsAnswer)
{
    Put("first");
    Play("lifecycle-notified.txt");
    EXPECT_EQ(csLeftovers(), "");
}

TEST_F(Lifecycle, StopAllStopsWhatRunsOrStartsAndTheManagerLast)
{
    int nPort = 4901;
    for (const auto& [csName, pszSettings] : {std::pair{std::string("DXCS-run"), ""},
                                              {"DXCS-starts", "StartDelay=60000\n"},
                                              {"DXCS-ends", "IgnoreTerm=1\n"},
                                              {"DXCS-failed", "FailAtStart=1\n"},
                                              {"DXCS-rests", ""},
                                              {"DXCS-refuses", ""},
                                              {"other", ""}}) {
        AddServer(csName, csName, nPort++, pszSettings);
    }
    stRun("sed -i 's/^After=.*/RefuseManualStop=yes/' /lib/systemd/system/DXCS-refuses.service");
    Put("manager");
    Play("lifecycle-stopall.txt");
    EXPECT_LT(nWhen("InactiveEnter", "DXCS-run"), nWhen("ActiveExit"));
    EXPECT_EQ(csLeftovers(), "");
    Play("lifecycle-stopall-again.txt");
}

TEST_F(Lifecycle, StopServerStopsTheServerOfTheDirectoryAndTheManagerThatLiesThere)
{
    AddServer("a", "DXCS-a", 4901, "");
    AddServer("b", "DXCS-b", 4902, "");
    stRun("ln -s /opt/velmo/a /opt/velmo/link; systemctl daemon-reload");
    Put("manager");
    stRun("cp /opt/velmo/manager/VelmoManager /opt/velmo/manager/*.so /opt/velmo/a/");
    const std::tuple<const char*, const char*, const char*> tCases[] = {
        // folder of the registered manager, argument, states of DXCS-a, DXCS-b and the manager afterwards
        {"manager", "/opt/velmo/b/", "active inactive active"},
        {"manager", "/opt/velmo/link", "inactive active active"}, // the same directory on disk
        {"a", "/opt/velmo/a", "inactive active inactive"},
        {"manager", "/opt/velmo/manager", "active active active"}, // no server lies there
        {"manager", "/opt/velmo", "active active active"},
        {"manager", "", "active active active"},
    };
    for (const auto& [pszManager, pszArgument, pszStates] : tCases) {
        SCOPED_TRACE(pszArgument);
        ASSERT_EQ(csManager(pszManager), "0 ");
        stRun("systemctl reset-failed 'DXCS-*'; systemctl start DXCS-a DXCS-b");
        EXPECT_EQ(csManager("manager", std::string("--STOP-SERVER ") + pszArgument), "0 ");
        EXPECT_EQ(csOutput("systemctl show --value -p ActiveState DXCS-a DXCS-b VelmoManager | xargs"),
                  pszStates);
        stRun(s_szForget);
    }
}

namespace {
constexpr char s_szPortTaken[] =
    "The port 4999 cannot be opened. Check that no other program uses it (\"ss -lnp\" "
    "shows which), then start the manager again.\n"
    "System error 98: Address already in use\nDetail: bind\n"
    "Module VelmoManager, message 25627\n";
constexpr char s_szStartFailed[] =
    "The service \"VelmoManager\" could not be started. The system log tells what "
    "failed: correct it, then start the service again.\n";

/// What makes a start fail.
struct STHindrance
{
    const char* pszWhat;
    int nPortType;        ///< of the socket that holds the port; 0: none
    const char* pszBreak; ///< shell commands
    const char* pszMend;
    const char* pszCause; ///< log entry
    std::size_t nWays;    ///< in which it is started, from the first
    const char* pszWrapper = "";
};
constexpr STHindrance s_tHindrances[] = {
    {"TCP", SOCK_STREAM, ":", ":", s_szPortTaken, 3},
    {"UDP", SOCK_DGRAM, ":", ":", s_szPortTaken, 3},
    {"FIFO", 0, "mkdir /tmp/__pipe_velmomanager__; mount -t tmpfs x /tmp/__pipe_velmomanager__",
     "umount /tmp/__pipe_velmomanager__; rmdir /tmp/__pipe_velmomanager__",
     "create /tmp/__pipe_velmomanager__\nSystem error 16: Device or resource busy\n", 3},
    {"a PID file that cannot be written", 0, ":", ":",
     "write /var/run/VelmoManager.pid\nSystem error 27: File too large\n", 1, "prlimit --fsize=0 "},
    {"a link in the PID file's place", 0, "ln -s /tmp/victim /run/VelmoManager.pid",
     "rm /run/VelmoManager.pid", "Echec de la création du fichier de lock du demon\n", 1},
};
} // namespace

TEST_F(Lifecycle, WhateverMakesAStartFailIsLoggedOnceAndLeavesNothing)
{
    Put("first");
    const std::string csProgram = csHome("first") + "VelmoManager ";
    const std::pair<std::string, std::string> tWays[] = {
        // command, outcome
        {csProgram + "--SERVICE VelmoManager", "0 "},
        {"systemd-run --quiet --unit=VelmoManager -p Type=notify " + csProgram, "1 "},
        {csProgram + "--DEBUG", "0 "},
    };
    for (const STHindrance& st : s_tHindrances) {
        const CDescripteur clTaken = st.nPortType != 0 ? clTakePort(st.nPortType) : CDescripteur();
        stRun(st.pszBreak);
        for (std::size_t nWay = 0; nWay < st.nWays; ++nWay) {
            SCOPED_TRACE(st.pszWhat + std::to_string(nWay));
            const auto& [csCommand, csExpected] = tWays[nWay];
            const bool bForeground = nWay == 2;
            const std::string csSince = csTimeOfJournal();
            const std::string csSeen = csOutcome(st.pszWrapper + csCommand);
            EXPECT_TRUE(csSeen.starts_with(csExpected)) << csSeen;
            EXPECT_EQ(csSeen.find(st.pszCause) != csSeen.npos, bForeground) << "who runs it is told at once";
            EXPECT_TRUE(bWaitUntil([] { return csOutput("pgrep -x VelmoManager").empty(); }, 1000));
            stRun("systemctl reset-failed VelmoManager");
            EXPECT_EQ(csLog(csSince), st.pszCause + std::string(bForeground ? "" : s_szStartFailed));
        }
        stRun(st.pszMend);
        EXPECT_EQ(csLeftovers(), "");
    }
    EXPECT_EQ(csManager("first", "--SERVICE"), "255 ");
}

TEST_F(Lifecycle, WithoutTheRuntimeLibraryEveryUseEndsAtOnceAndIsLogged)
{
    AddServer("server", "DXCS-server", 4901, "");
    stRun("systemctl daemon-reload; systemctl start DXCS-server");
    Put("first");
    const std::string csSince = csTimeOfJournal();
    Play("lifecycle-no-library.txt");
    EXPECT_THAT(csLog(csSince), HasSubstr(csHome("first") + "zt240vm64.so"));
    EXPECT_EQ(csLeftovers(), "");
}
