// Init scripts at work in a machine without a service manager: the real tools of Debian, the real insserv and
// OpenRC, stand-ins for what only other distributions have. The sample server is real in all of them.

#include "Paths.h"
#include "service/AServiceUnix.h"
#include "service/LanceProcessus.h"
#include "service/ServiceManagerUnix.h"

#include <csignal>
#include <map>

namespace {
/// Stand-ins note their calls; this forgets them.
std::string csTakeJournal()
{
    return stRun("cat /tmp/journal; rm -f /tmp/journal").csOutput;
}

/// One sample server "DXCS-a", installed for a family.
class SysV : public CMachineTest
{
protected:
    void SetUp() override
    {
        CLanceProcessus::sInit();
        ASSERT_EQ(stRun("'" VELMO_FOLDER "standins' " + csBuildFolder() + "/insserv").csOutput, "");
    }
    void TearDown() override
    {
        if (m_pclService != nullptr) {
            (void)m_pclService->bStop();
            (void)m_pclService->bRemove();
        }
        m_pclService.reset();
        CLanceProcessus::sTerm();
        CServiceManager::ms_eDistri = DISTRI_UNKNOWN;
        (void)csTakeJournal();
        CMachineTest::TearDown();
    }
    void Install(EDistri eDistri, const std::string& csSettings = "", const std::string& csFolder = "a")
    {
        CServiceManager::ms_eDistri = eDistri;
        PutServer(csFolder, 4950, csSettings);
        const std::wstring csCommandLine = csFromUTF8("\"/opt/velmo/" + csFolder + "/dxdemo\" --SERVICE");
        m_pclService.reset(m_clManager.pclInstall(L"DXCS-a", L"My base", csCommandLine.c_str(), 1, 1));
        ASSERT_NE(m_pclService, nullptr);
    }
    /// Started twice, restarted, stopped.
    void LiveAndEnd(EDistri eDistri)
    {
        EXPECT_EQ(m_pclService->eGetStatus(), STATUS_STOPPED);
        EXPECT_TRUE(m_pclService->bStop()) << "what does not run is stopped already";
        EXPECT_TRUE(m_pclService->bStart());
        EXPECT_EQ(m_pclService->eGetStatus(), STATUS_RUNNING);
        EXPECT_TRUE(bServes(4950));
        const pid_t nFirst = nServer();
        EXPECT_TRUE(m_pclService->bStart());
        EXPECT_EQ(nServer(), nFirst) << "a second start starts no second server";
        EXPECT_TRUE(m_pclService->bRestart());
        EXPECT_TRUE(bServes(4950));
        EXPECT_EQ(nServer() != nFirst, eDistri != DISTRI_SLACKWARE) << "where it starts twice";
        ExpectStop();
        EXPECT_FALSE(fs::exists("/run/DXCS-a.pid") || fs::exists("/var/lock/subsys/DXCS-a"));
    }
    void ExpectStop()
    {
        const pid_t nLast = nServer();
        EXPECT_TRUE(m_pclService->bStop());
        EXPECT_TRUE(bGone(nLast));
        EXPECT_EQ(m_pclService->eGetStatus(), STATUS_STOPPED);
    }
    static pid_t nServer() { return nPidOf("DXCS-a"); }
    static bool bGone(pid_t nPid)
    {
        return bWaitUntil([&] { return ::kill(nPid, 0) != 0; }, 3000);
    }
    CServiceManager m_clManager;
    std::unique_ptr<CService> m_pclService;
};

/// A family, with what tells it.
struct STFamily
{
    EDistri eDistri;
    const char* pszName;
    const char* pszRelease;
};
class SysVFamily : public SysV, public ::testing::WithParamInterface<STFamily>
{
protected:
    void TearDown() override
    {
        SysV::TearDown();
        stRun("cd /etc; [ ! -e debian_version.kept ] || { rm -f " + std::string(GetParam().pszRelease) +
              "; mv debian_version.kept debian_version; }");
    }
    EDistri m_eDistri = GetParam().eDistri;
};
class SysVPidFile : public SysVFamily
{};
// Mandrake and Fedora have Red Hat's script and tool; Gentoo's script trusts the PID file.
constexpr STFamily s_tFamilies[] = {{DISTRI_DEBIAN, "Debian", "debian_version"},
                                    {DISTRI_REDHAT, "RedHat", "redhat-release"},
                                    {DISTRI_SUSE, "SuSE", "SuSE-release"},
                                    {DISTRI_SLACKWARE, "Slackware", "slackware-version"},
                                    {DISTRI_GENTOO, "Gentoo", "gentoo-release"}};
std::string csNameOf(const ::testing::TestParamInfo<STFamily>& st)
{
    return st.param.pszName;
}
INSTANTIATE_TEST_SUITE_P(, SysVFamily, ::testing::ValuesIn(s_tFamilies), csNameOf);
INSTANTIATE_TEST_SUITE_P(, SysVPidFile, ::testing::ValuesIn(s_tFamilies, s_tFamilies + 4), csNameOf);
} // namespace

TEST_P(SysVFamily, AServerLivesAndEndsByItsScriptPathsAreOnlyPathsAndAMissingProgramIsNoRunningServer)
{
    const std::string csFolder = "it's $(touch ran) `base`; touch  ran &";
    const fs::path clProgram = "/opt/velmo/" + csFolder + "/dxdemo";
    Install(m_eDistri, "", csFolder);
    EXPECT_EQ(m_pclService->pszBinaryPathName(), clProgram.wstring());
    LiveAndEnd(m_eDistri);
    EXPECT_EQ(csRan(), "");
    fs::remove(clProgram);
    (void)m_pclService->bStart();
    EXPECT_EQ(m_pclService->eGetStatus(), STATUS_STOPPED);
    EXPECT_TRUE(m_pclService->bRemove());
    EXPECT_EQ(std::unique_ptr<CService>(m_clManager.pclGetService(L"DXCS-a")), nullptr);
}

TEST_P(SysVPidFile, ANumberOfADeadOrAnotherServerIsNotMistakenForIt)
{
    Install(m_eDistri);
    ASSERT_EQ(stRun("cd /opt/velmo/a && sed -i s/4950/4951/ DXConf.ini && ./dxdemo --SERVICE DXCS-b; "
                    "sed -i s/4951/4950/ DXConf.ini")
                  .nStatus,
              0);
    ASSERT_TRUE(m_pclService->bStart());
    const pid_t nDead = nServer();
    ::kill(nDead, SIGKILL);
    ASSERT_TRUE(bGone(nDead));
    const pid_t nOther = std::stoi(stRun("sleep 1000 >/dev/null 2>&1 & echo $!").csOutput);
    const pid_t nOtherServer = nPidOf("DXCS-b");
    std::vector<std::string> tContents = {
        std::to_string(nDead) + "\n", std::to_string(nOther) + "\n", "", "x\n", "../1\n", "self\n"};
    if (m_eDistri != DISTRI_SUSE) { // which compares programs only
        tContents.push_back(std::to_string(nOtherServer) + "\n");
    }
    for (const std::string& csContent : tContents) {
        SCOPED_TRACE(csContent);
        std::ofstream("/run/DXCS-a.pid") << csContent;
        EXPECT_EQ(m_pclService->eGetStatus(), STATUS_FAILED);
        EXPECT_TRUE(m_pclService->bStop());
        EXPECT_EQ(m_pclService->eGetStatus(), STATUS_STOPPED);
        std::ofstream("/run/DXCS-a.pid") << csContent;
        EXPECT_TRUE(m_pclService->bStart());
        EXPECT_TRUE(bServes(4950));
        ExpectStop();
    }
    EXPECT_EQ(::kill(nOther, SIGKILL), 0) << "a process that has nothing to do with it was ended";
    EXPECT_EQ(::kill(nOtherServer, SIGKILL), 0) << "another server of its program was ended";
    EXPECT_TRUE(bGone(nOtherServer));
}

TEST_P(SysVFamily, AStubbornServerThatChangesItsArgumentsIsKnownByItsProgramAndKilledByAnybodysPidFile)
{
    // What kills on SuSE is a stand-in of this test.
    Install(m_eDistri,
            std::string("ChangeArguments=1\n") + (m_eDistri == DISTRI_SUSE ? "" : "IgnoreTerm=1\n"));
    ASSERT_TRUE(m_pclService->bStart());
    const pid_t nServing = nServer();
    EXPECT_EQ(csOutput("tr -d '\\0' </proc/" + std::to_string(nServing) + "/cmdline"), "dxdemo: ready");
    EXPECT_EQ(m_pclService->eGetStatus(), STATUS_RUNNING);
    if (m_eDistri != DISTRI_SUSE) { // whose checkproc is a stand-in: the program is replaced on disk
        stRun("cd /opt/velmo/a && cp dxdemo new && mv new dxdemo");
        EXPECT_EQ(m_pclService->eGetStatus(), STATUS_RUNNING);
    }
    EXPECT_TRUE(m_pclService->bStart());
    EXPECT_EQ(nServer(), nServing) << "a second start starts no second server";
    if (m_eDistri != DISTRI_GENTOO) { // whose own tool refuses such a file
        ASSERT_EQ(stRun("chown nobody /run/DXCS-a.pid; chmod 666 /run/DXCS-a.pid").nStatus, 0);
    }
    EXPECT_EQ(m_pclService->eGetStatus(), STATUS_RUNNING);
    ExpectStop();
}

TEST_P(SysVFamily, AManagerAndItsServersLiveAtPathsWithASpace)
{
    // The machine counts as one of this family; the fixture undoes it.
    stRun("mv /etc/debian_version /etc/debian_version.kept; mkdir -p /etc/rc.d; touch /etc/" +
          std::string(GetParam().pszRelease));
    StartManager("CheckPeriod=1\n");
    // Gentoo's own framework tells the status; for it a killed server is no failed one.
    LiveAtAPathWithASpace(m_eDistri != DISTRI_GENTOO);
}

TEST_F(SysV, RunLevelLinksComeAndGo)
{
    const auto csLinks = [] {
        return stRun("cd /etc && ls -d rc?.d/[SK]*DXCS-a | sed 's/[0-9][0-9]DX/DX/'").csOutput;
    };
    for (const EDistri e : {DISTRI_DEBIAN, DISTRI_SUSE}) {
        Install(e);
        EXPECT_EQ(csLinks(),
                  "rc0.d/KDXCS-a\nrc1.d/KDXCS-a\nrc2.d/KDXCS-a\nrc3.d/SDXCS-a\nrc4.d/KDXCS-a\nrc5.d/SDXCS-a\n"
                  "rc6.d/KDXCS-a\n");
        EXPECT_EQ(stRun("insserv -r DXCS-a; insserv DXCS-a").csOutput, "") << "nothing to complain about";
        EXPECT_TRUE(m_pclService->bRemove());
        EXPECT_EQ(stRun("ls /etc/rc?.d | grep DXCS").csOutput, "") << e;
    }
}

TEST_F(SysV, HelpersAreCalledAsTheirFamiliesExpect)
{
    const std::pair<EDistri, const char*> tCases[] = {
        {DISTRI_REDHAT, "chkconfig --add DXCS-a\ndaemon --check=DXCS-a /opt/velmo/a/dxdemo --SERVICE DXCS-a\n"
                        "success DXCS-a shutdown\nchkconfig --del DXCS-a\n"},
        {DISTRI_GENTOO, "rc-update add DXCS-a default\nD\xE9marrage : DXCS-a\nArr\xEAt : DXCS-a\n"
                        "rc-update del DXCS-a\n"}};
    for (const auto& [eDistri, pszCalls] : tCases) {
        Install(eDistri);
        EXPECT_TRUE(m_pclService->bStart());
        EXPECT_EQ(fs::exists("/var/lock/subsys/DXCS-a"), eDistri == DISTRI_REDHAT);
        EXPECT_TRUE(m_pclService->bStop() && m_pclService->bRemove());
        EXPECT_EQ(csTakeJournal(), pszCalls);
    }
}

TEST_F(SysV, AStatusScriptThatHangsIsUnknownInTheEnd)
{
    CServiceManager::ms_eDistri = DISTRI_DEBIAN;
    std::ofstream("/etc/init.d/DXCS-hangs") << "#!/bin/sh\nexec sleep 600\n";
    fs::permissions("/etc/init.d/DXCS-hangs", fs::perms(0755));
    const auto clStart = CClock::now();
    EXPECT_EQ(CService(&m_clManager, L"DXCS-hangs").eGetStatus(), STATUS_UNKNOWN);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_LT(CClock::now() - clStart, 40s);
    EXPECT_EQ(stRun("pgrep -f 'sleep 60[0]'").csOutput, "") << "and it does not stay";
    fs::remove("/etc/init.d/DXCS-hangs");
}

TEST_F(SysV, TheRealOpenRCRunsTheScript)
{
    const std::string csPackages = csBuildFolder() + "/openrc";
    if (!fs::exists(csPackages)) {
        GTEST_SKIP() << "SKIPPED: OpenRC is not unpacked in " << csPackages << " (docs/sysv.md tells how)";
    }
    ASSERT_EQ(stRun("rm /sbin/rc-update; tar -C " + csPackages +
                    " -c . | tar -C / -x --keep-directory-symlink && ldconfig && "
                    "ln -sf /sbin/openrc-run /sbin/runscript && openrc sysinit && openrc default")
                  .nStatus,
              0);
    Install(DISTRI_GENTOO);
    LiveAndEnd(DISTRI_GENTOO);
    EXPECT_NE(stRun("rc-update show default").csOutput.find("DXCS-a"), std::string::npos);
    EXPECT_TRUE(m_pclService->bRemove());
    EXPECT_EQ(stRun("rc-update show default").csOutput.find("DXCS-a"), std::string::npos);
}

TEST_F(SysV, TheManagerInstallsItselfServesAndRemovesItself)
{
    PutManager("m");
    Play("sysv-manager.txt");
}
