// The service layer against a scripted systemctl: odd outputs, exact commands. The real one is asked in the
// machine.

#include "service/AServiceUnix.h"
#include "service/LanceProcessus.h"
#include "service/ServiceManagerUnix.h"
#include "tools/Command.h"
#include "tools/PrivateWorld.h"

#include <atomic>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <thread>

namespace {
class Systemd : public ::testing::Test
{
protected:
    void SetUp() override
    {
        REQUIRE_PRIVATE_WORLD();
        CLanceProcessus::sInit();
        CServiceManager::ms_eDistri = DISTRI_SYSTEMD;
    }
    void TearDown() override
    {
        CLanceProcessus::sTerm();
        CServiceManager::ms_eDistri = DISTRI_UNKNOWN;
    }
    std::unique_ptr<CService> pclGet(const wchar_t* pszName)
    {
        return std::unique_ptr<CService>(m_clManager.pclGetService(pszName));
    }
    CServiceManager m_clManager;
};

/// Answers "show" for three servers and one other service, and the listing of them.
constexpr char s_szRegistry[] = R"(case "$*" in
list-units*) printf '  DXCS-a.service l a r A\n● DXCS-b.service l f f B\n  ssh.service l a r S\n'
             printf '● DXCS-gone.service not-found i d G\n  DXCS-c.service l a r C\n' ;;
*DXCS-gone) printf 'Type=\nDescription=DXCS-gone.service\n' ;;
*show*) printf 'Type=forking\nExecStart={ path=/opt/x ; argv[]=/opt/x --SERVICE n ; }\nDescription=D %s\n' "$3" ;;
esac)";

std::string csReadFile(const std::string& csPath)
{
    std::ostringstream clText;
    clText << std::ifstream(csPath).rdbuf();
    return clText.str();
}
} // namespace

TEST_F(Systemd, StatusFollowsActiveState)
{
    const struct
    {
        const char* pszState;
        EServiceStatus eExpected;
    } tCases[] = {
        {"active", STATUS_RUNNING},
        {"ACTIVE", STATUS_RUNNING},
        {"reloading", STATUS_RUNNING},
        {"inactive", STATUS_STOPPED},
        {"failed", STATUS_FAILED},
        {"activating", STATUS_START_PENDING},
        {"deactivating", STATUS_STOP_PENDING},
        {"maintenance", STATUS_STOPPED},
        {"", STATUS_STOPPED},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszState);
        CFakeTool clTool("/bin/systemctl", std::string("echo ActiveState=") + st.pszState);
        EXPECT_EQ(CService(&m_clManager, L"DXCS-A").eGetStatus(), st.eExpected);
        EXPECT_EQ(clTool.csTakeJournal(), "--property=ActiveState show DXCS-A\n");
    }
    const CFakeTool clBroken("/bin/systemctl", "exit 1");
    EXPECT_EQ(CService(&m_clManager, L"DXCS-A").eGetStatus(), STATUS_STOPPED);
}

TEST_F(Systemd, EveryOperationRunsItsOneCommandAndJudgesItsExitCode)
{
    CService cl(&m_clManager, L"DXCS-A");
    const struct
    {
        std::function<bool()> fnAction;
        const char* pszCommand;
    } tCases[] = {
        {[&] { return cl.bStart(L"ignored arguments"); }, "start DXCS-A\n"},
        {[&] { return cl.bStop(); }, "stop DXCS-A\n"},
        {[&] { return cl.bRestart(); }, "restart DXCS-A\n"},
        {[&] { return cl.bSendControlCommand(CONTROL_STOP); }, "stop DXCS-A\n"},
        {[&] { return cl.bSendControlCommand(CONTROL_RELOAD); }, "reload DXCS-A\n"},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszCommand);
        {
            CFakeTool clTool("/bin/systemctl", "exit 0");
            EXPECT_TRUE(st.fnAction());
            EXPECT_EQ(clTool.csTakeJournal(), st.pszCommand);
        }
        const CFakeTool clRefusing("/bin/systemctl", "exit 4");
        EXPECT_FALSE(st.fnAction());
        EXPECT_EQ(errno, ECANCELED);
    }
    CFakeTool clTool("/bin/systemctl", "");
    EXPECT_FALSE(cl.bSendControlCommand(2));
    EXPECT_EQ(clTool.csTakeJournal(), "");
}

TEST_F(Systemd, RemovalStopsAtARefusedDisableAndOtherwiseDeletesBothFiles)
{
    CService cl(&m_clManager, L"DXCS-A");
    std::ofstream("/run/fragment") << "unit";
    std::ofstream("/run/source") << "script";
    constexpr char szShow[] = "case \"$*\" in *FragmentPath*) echo FragmentPath=/run/fragment;; "
                              "*SourcePath*) echo SourcePath=/run/source;; disable*) exit ";
    {
        CFakeTool clTool("/bin/systemctl", std::string(szShow) + "1;; esac");
        EXPECT_FALSE(cl.bRemove());
        EXPECT_EQ(clTool.csTakeJournal(),
                  "--property=FragmentPath show DXCS-A\n--property=SourcePath show DXCS-A\n"
                  "disable DXCS-A\n");
        EXPECT_EQ(csReadFile("/run/fragment"), "unit");
    }
    CFakeTool clTool("/bin/systemctl", std::string(szShow) + "0;; stop*) exit 5;; esac");
    EXPECT_TRUE(cl.bRemove());
    EXPECT_EQ(clTool.csTakeJournal(),
              "--property=FragmentPath show DXCS-A\n--property=SourcePath show DXCS-A\n"
              "disable DXCS-A\nstop DXCS-A\ndaemon-reload\n");
    EXPECT_FALSE(std::ifstream("/run/fragment") || std::ifstream("/run/source"));
}

TEST_F(Systemd, LookupTakesItsRecordFromShow)
{
    CFakeTool clTool("/bin/systemctl", s_szRegistry);
    const auto pclService = pclGet(L"DXCS-my server");
    ASSERT_NE(pclService, nullptr);
    EXPECT_STREQ(pclService->pszGetName(), L"DXCS-my_server");
    EXPECT_STREQ(pclService->pszBinaryPathName(), L"/opt/x --SERVICE n ");
    EXPECT_EQ(pclService->csGetExecutable(), L"/opt/x");
    EXPECT_EQ(clTool.csTakeJournal(), "--property=Description,ExecStart,Type show DXCS-my_server\n");
    (void)pclGet(L"DXCS-x;other|third");
    EXPECT_EQ(clTool.csTakeJournal(), "--property=Description,ExecStart,Type show DXCS-x other third\n");
    errno = 0;
    EXPECT_EQ(pclGet(L"DXCS-gone"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    (void)clTool.csTakeJournal();
    EXPECT_EQ(pclGet(L"DXCS-bu*"), nullptr);
    EXPECT_EQ(clTool.csTakeJournal(), "") << "a name that names no service reaches no tool";
}

TEST_F(Systemd, AUnitGeneratedFromAScriptTakesItsProgramFromTheScript)
{
    std::ofstream("/etc/init.d/DXCS-old")
        << "#!/bin/sh\n# Do not remove\n# Program=\"/opt/old/dx\" Name=\"Old\" \n";
    const CFakeTool clTool("/bin/systemctl",
                           "printf 'Type=forking\\nExecStart={ argv[]=/etc/init.d/DXCS-old start ; }\\n'");
    const auto pclService = pclGet(L"DXCS-old");
    ASSERT_NE(pclService, nullptr);
    EXPECT_STREQ(pclService->pszBinaryPathName(), L"/opt/old/dx");
}

TEST_F(Systemd, EnumerationGivesThePrefixedUnitsThatExistAndToleratesStaleCursors)
{
    const CFakeTool clTool("/bin/systemctl", s_szRegistry);
    const auto csAll = [&](const wchar_t* pszPrefix) {
        std::wstring csNames;
        unsigned long nCursor = 0;
        while (const auto pcl = std::unique_ptr<CService>(m_clManager.pclEnumService(&nCursor, pszPrefix))) {
            csNames += pcl->pszGetName() + std::wstring(L" ");
        }
        EXPECT_EQ(m_clManager.pclEnumService(&nCursor, pszPrefix), nullptr) << "the end stays the end";
        m_clManager.AbortEnumService(&nCursor);
        return csNames;
    };
    EXPECT_EQ(csAll(L"DXCS-"), L"DXCS-a DXCS-b DXCS-c ");
    EXPECT_EQ(csAll(L""), L"DXCS-a DXCS-b ssh DXCS-c ");
    EXPECT_EQ(csAll(L"dxcs-"), L"") << "the prefix is compared with its case";
    unsigned long nCursor = 0;
    const std::unique_ptr<CService> pclFirst(m_clManager.pclEnumService(&nCursor, L"DXCS-"));
    m_clManager.AbortEnumService(&nCursor);
    m_clManager.AbortEnumService(&nCursor);
    EXPECT_EQ(m_clManager.pclEnumService(&nCursor, L"DXCS-"), nullptr);
}

TEST_F(Systemd, ThreadsThatListAtOnceDoNotDisturbEachOther)
{
    const CFakeTool clTool("/bin/systemctl", s_szRegistry);
    std::atomic<int> nListed{0};
    std::vector<std::thread> tThreads;
    for (int n = 0; n < 6; ++n) {
        tThreads.emplace_back([&] {
            for (int nRound = 0; nRound < 3; ++nRound) {
                unsigned long nCursor = 0;
                while (std::unique_ptr<CService>(m_clManager.pclEnumService(&nCursor, L"DXCS-"))) {
                    ++nListed;
                }
            }
        });
    }
    for (std::thread& clThread : tThreads) {
        clThread.join();
    }
    EXPECT_EQ(nListed, 6 * 3 * 3);
}

TEST_F(Systemd, InstallationWritesTheUnitByteForByte)
{
    CFakeTool clTool("/bin/systemctl", "exit 1"); // outcomes are not judged
    const std::unique_ptr<CService> pclService(
        m_clManager.pclInstall(L"DXCS-my server", L"DXCS-My\nserver \u00e9", L"/opt/a/dx --SERVICE", 1, 1));
    ASSERT_NE(pclService, nullptr);
    EXPECT_STREQ(pclService->pszGetName(), L"DXCS-my_server");
    EXPECT_STREQ(pclService->pszBinaryPathName(), L"/opt/a/dx --SERVICE");
    EXPECT_EQ(csReadFile("/lib/systemd/system/DXCS-my_server.service"),
              "[Unit]\nDescription=DXCS-My server \xC3\xA9\nAfter=network.target\n[Install]\n"
              "WantedBy=multi-user.target\n[Service]\nType=forking\n"
              "ExecStart=/opt/a/dx --SERVICE DXCS-my_server\nPIDFile=/var/run/DXCS-my_server.pid\n"
              "Restart=on-abnormal\n");
    EXPECT_EQ(clTool.csTakeJournal(), "daemon-reload\nenable DXCS-my_server\n");
    const std::unique_ptr<CService> pclManual(
        m_clManager.pclInstallEx(L"DXCS-m", L"M", L"/opt/m", 16, nullptr, nullptr, 0, 3));
    EXPECT_EQ(clTool.csTakeJournal(), "daemon-reload\n");
    EXPECT_EQ(csReadFile("/lib/systemd/system/DXCS-m.service").find("Restart="), std::string::npos);
    EXPECT_EQ(m_clManager.pclInstall(L"DXCS-*", L"x", L"/x", 1, 1), nullptr);
    EXPECT_EQ(m_clManager.pclInstall(L"DXCS-n", L"x", L"/x\nExecStartPre=/evil", 1, 1), nullptr);
    EXPECT_EQ(clTool.csTakeJournal(), "");
}

TEST_F(Systemd, DetectionSurvivesAToolThatPrintsMoreThanAPipeHolds)
{
    CServiceManager::ms_eDistri = DISTRI_UNKNOWN;
    CFakeTool clTool("/bin/systemctl", "head -c 200000 /dev/zero");
    EXPECT_TRUE(m_clManager.bInit(nullptr, 0));
    EXPECT_EQ(CServiceManager::ms_eDistri, DISTRI_SYSTEMD);
    EXPECT_EQ(clTool.csTakeJournal(), "--no-pager --no-legend\n");
    CServiceManager::ms_eDistri = DISTRI_UNKNOWN;
    const CFakeTool clBroken("/bin/systemctl", "exit 1");
    EXPECT_TRUE(m_clManager.bInit(nullptr, 0));
    EXPECT_NE(CServiceManager::ms_eDistri, DISTRI_SYSTEMD);
}
