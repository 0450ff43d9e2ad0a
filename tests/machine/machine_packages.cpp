// The Debian package in a machine with a real systemd: installed, upgraded, removed and purged as an
// administrator does. The packages come from packaging/build.

#include "MachineTest.h"

namespace {
const std::string s_csHome = "/opt/velmomanager/";
const std::string s_csSettings = s_csHome + "DXConf.ini";
constexpr char s_szPolicy[] = "/usr/sbin/policy-rc.d";
/// As below a service that reports its readiness, which the manager must not take itself for; without the
/// triggers of other packages, which take their time.
const std::string s_csDpkg = "env NOTIFY_SOCKET=@nobody dpkg --no-triggers ";

/// Where a package is, below the build folder; it is the only one in its folder.
std::string csPackage(const std::string& csFolder)
{
    return csOutput("ls " + csBuildFolder() + "/../packages-here/" + csFolder + "velmomanager_*.deb");
}

/// The version that the manager of this machine tells; or why there is none.
std::string csRunningVersion()
{
    return csOutput(csBuildFolder() + "/velmoctl info | sed 's/^version *//;q'");
}

/// From the time when a test began.
constexpr char s_szStamp[] = "/run/test-began";

/// Whatever on the machine still has the manager's name and came with the test; checkouts of the host are
/// older.
std::string csTraces()
{
    return csOutput(
        "mkdir -p /opt; find /etc /lib/systemd /opt /run /tmp /usr /var -iname '*velmo*' -cnewer " +
        std::string(s_szStamp) + " -not -path \"$(realpath " + csBuildFolder() +
        ")/*\" -not -path '/var/tmp/velmo-build-*'; pgrep -ax VelmoManager");
}

class Packages : public CMachineTest
{
protected:
    void SetUp() override
    {
        if (!fs::exists(m_csCurrent) || !fs::exists(m_csOlder)) {
            GTEST_SKIP() << "the packages are not built: packaging/build --here older";
        }
        ::setenv("DPKG", s_csDpkg.c_str(), 1); // for the transcripts
        ::setenv("CURRENT", m_csCurrent.c_str(), 1);
        ::setenv("OLDER", m_csOlder.c_str(), 1);
        std::ofstream{s_szStamp};
        fs::remove(s_szPolicy); // the host's: no service is to start there
    }
    void TearDown() override
    {
        stRun(s_csDpkg + "-P velmomanager; rm -rf /etc/systemd/system/VelmoManager.service.d; "
                         "systemctl daemon-reload");
        CMachineTest::TearDown();
    }
    const std::string m_csCurrent = csPackage("");
    const std::string m_csOlder = csPackage("older/");

    static void UseExample(const std::string& csFile)
    {
        stRun("mkdir -p /etc/systemd/system/VelmoManager.service.d && cp "
              "/usr/share/doc/velmomanager/examples/" +
              csFile + " /etc/systemd/system/VelmoManager.service.d/ && systemctl daemon-reload");
    }
    static void Install(const std::string& csFile)
    {
        const STCommandResult st = stRun(s_csDpkg + "-i " + csFile);
        ASSERT_EQ(st.nStatus, 0) << st.csOutput;
    }
};
} // namespace

TEST_F(Packages, AFreshInstallationRunsAndStartsAtBoot)
{
    Play("packages-fresh.txt");
}

TEST_F(Packages, AnUpgradeKeepsTheSettingsAndRunsTheNewVersionOfWhatRan)
{
    Play("packages-upgrade.txt");
}

TEST_F(Packages, AnUpgradeWaitsForThePortOfAnOlderReleaseOnly)
{
    stRun("mount -o remount,rw /proc/sys; sysctl -w net.ipv4.tcp_fin_timeout=3"); // seconds, instead of 60
    Install(m_csOlder);
    for (const bool bOlder : {true, false}) {
        CWireClient clTool("127.0.0.1", 4999);
        ASSERT_TRUE(clTool.csLine().starts_with("HELLO")); // and it does not hang up
        const STCommandResult st = stRun(s_csDpkg + "-i " + m_csCurrent);
        EXPECT_EQ(st.csOutput.find("seconds until the system gives port 4999 back") != std::string::npos,
                  bOlder)
            << st.csOutput;
        EXPECT_EQ(csRunningVersion(), "24.0.6.0");
    }
}

TEST_F(Packages, ARemovalLeavesTheSettingsAndAPurgeNothing)
{
    Install(m_csCurrent);
    std::ofstream(s_csSettings) << "[MANAGER]\n";
    EXPECT_EQ(stRun(s_csDpkg + "-r velmomanager").nStatus, 0);
    EXPECT_EQ(csShow("LoadState"), "not-found");
    EXPECT_EQ(csOutput("ls -A " + s_csHome), "DXConf.ini");
    EXPECT_EQ(stRun(s_csDpkg + "-P velmomanager").nStatus, 0);
    EXPECT_EQ(csTraces(), "");
    Install(m_csCurrent);
    fs::remove(s_csHome + "zt240obj.so");
    EXPECT_EQ(stRun(s_csDpkg + "-P velmomanager").nStatus, 0) << "a manager that cannot run any more";
    EXPECT_EQ(csTraces(), "");
}

TEST_F(Packages, WhereNoServiceMayStartTheyAreInstalledAndRegisterNothing)
{
    Play("packages-no-start.txt");
}

TEST_F(Packages, TheServiceOfAnotherFolderIsNotTouched)
{
    PutManager("other");
    ASSERT_EQ(stRun("/opt/velmo/other/VelmoManager").nStatus, 0);
    const std::string csPid = stRun("cat /run/VelmoManager.pid").csOutput;
    Install(m_csCurrent);
    EXPECT_EQ(stRun(s_csDpkg + "-P velmomanager").nStatus, 0);
    EXPECT_EQ(stRun("cat /run/VelmoManager.pid").csOutput, csPid);
    EXPECT_EQ(csRunningVersion(), "24.0.6.0");
}

TEST_F(Packages, TheHardeningThatIsShippedAsAnExampleTakesNothingAway)
{
    Install(m_csCurrent);
    UseExample("hardening.conf");
    PutServer("Orders", 4900, "", "Orders");
    Play("packages-hardening.txt");
    EXPECT_LT(std::stod(csOutput("systemd-analyze security --no-pager VelmoManager | "
                                 "sed -n 's/.*Overall exposure level.*: \\([0-9.]*\\) .*/\\1/p'")),
              4.0);
}

TEST_F(Packages, WithTheExampleForItAManagerThatCannotStartIsTriedAgain)
{
    Install(m_csCurrent);
    UseExample("restart.conf");
    stRun("systemctl stop VelmoManager");
    {
        const CDescripteur clOther = clTakePort();
        stRun("systemctl start VelmoManager");
        EXPECT_NE(csOutput("systemctl is-active VelmoManager"), "active");
    }
    EXPECT_TRUE(bWaitUntil([] { return csRunningVersion() == "24.0.6.0"; }, 90000));
}

TEST_F(Packages, TheClientsInTheirProtocolGuideWork)
{
    if (stRun("command -v python3").nStatus != 0) {
        GTEST_SKIP() << "no python3 here";
    }
    ::setenv("GUIDE", (csBuildFolder() + "/../../docs/protocol.md").c_str(), 1);
    PutServer("Orders", 4900);
    Play("packages-guide.txt");
}
