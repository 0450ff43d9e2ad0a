// The service layer against a scripted systemctl: odd outputs, exact commands. The real one is asked in the
// machine.

#include "service/AServiceUnix.h"
#include "tools/Command.h"
#include "tools/SystemdTest.h"

#include <fstream>
#include <gtest/gtest.h>
#include <memory>

namespace {
class Systemd : public CSystemdTest
{
protected:
    std::unique_ptr<CService> pclGet(const wchar_t* pszName)
    {
        return std::unique_ptr<CService>(m_clManager.pclGetService(pszName));
    }
};

/// Answers "show" for three servers and one other service, and the listing of them.
constexpr char s_szRegistry[] = R"(case "$*" in
list-units*) printf '  DXCS-a.service l a r A\n● DXCS-b.service l f f B\n  ssh.service l a r S\n'
             printf '● DXCS-gone.service not-found i d G\n  DXCS-c.service l a r C\n' ;;
*DXCS-gone) printf 'Type=\nDescription=DXCS-gone.service\n' ;;
*show*) printf 'Type=forking\nExecStart={ path=/opt/x ; argv[]=/opt/x --SERVICE n ; }\nDescription=D %s\n' "$3" ;;
esac)";

} // namespace

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
        CFakeTool clTool("/bin/systemctl", "[ ! -e $DIR/refuse ] || exit 4");
        EXPECT_TRUE(st.fnAction());
        EXPECT_EQ(clTool.csTakeJournal(), st.pszCommand);
        clTool.Write("refuse", "");
        EXPECT_FALSE(st.fnAction()) << st.pszCommand;
        EXPECT_EQ(errno, ECANCELED);
    }
    CFakeTool clTool("/bin/systemctl", "");
    EXPECT_FALSE(cl.bSendControlCommand(2));
    EXPECT_EQ(clTool.csTakeJournal(), "");
}

TEST_F(Systemd, RemovalStopsAtARefusedDisableAndOtherwiseDeletesBothFiles)
{
    CFakeTool clTool("/bin/systemctl",
                     "case \"$*\" in *FragmentPath*) echo FragmentPath=/run/fragment;; *SourcePath*) echo "
                     "SourcePath=/run/source;; disable*) [ -e $DIR/agree ];; stop*) exit 5;; esac");
    const std::string csShown = "--property=FragmentPath show DXCS-A\n--property=SourcePath show DXCS-A\n";
    CService cl(&m_clManager, L"DXCS-A");
    stRun("touch /run/fragment /run/source");
    EXPECT_FALSE(cl.bRemove());
    EXPECT_EQ(clTool.csTakeJournal(), csShown + "disable DXCS-A\n");
    EXPECT_EQ(stRun("ls /run/fragment /run/source").nStatus, 0);
    clTool.Write("agree", "");
    EXPECT_TRUE(cl.bRemove());
    EXPECT_EQ(clTool.csTakeJournal(), csShown + "disable DXCS-A\nstop DXCS-A\ndaemon-reload\n");
    EXPECT_EQ(stRun("cat /run/fragment || cat /run/source").nStatus, 1);
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
    const std::pair<const wchar_t*, const wchar_t*> tCases[] = {
        {L"DXCS-", L"DXCS-a DXCS-b DXCS-c "}, {L"", L"DXCS-a DXCS-b ssh DXCS-c "}, {L"dxcs-", L""}};
    unsigned long nCursor = 0;
    for (const auto& [pszPrefix, pszNames] : tCases) {
        std::wstring csNames;
        while (const auto pcl = std::unique_ptr<CService>(m_clManager.pclEnumService(&nCursor, pszPrefix))) {
            csNames += pcl->pszGetName() + std::wstring(L" ");
        }
        EXPECT_EQ(csNames, pszNames);
        EXPECT_EQ(m_clManager.pclEnumService(&nCursor, pszPrefix), nullptr) << "the end stays the end";
        m_clManager.AbortEnumService(&nCursor);
        nCursor = 0;
    }
    const std::unique_ptr<CService> pclFirst(m_clManager.pclEnumService(&nCursor, L"DXCS-"));
    m_clManager.AbortEnumService(&nCursor);
    m_clManager.AbortEnumService(&nCursor);
    EXPECT_EQ(m_clManager.pclEnumService(&nCursor, L"DXCS-"), nullptr);
}

TEST_F(Systemd, InstallationWritesTheUnitByteForByte)
{
    CFakeTool clTool("/bin/systemctl", "exit 1"); // outcomes are not judged
    const std::unique_ptr<CService> pclService(
        m_clManager.pclInstall(L"DXCS-my server", L"DXCS-My\nserver \u00e9", L"/opt/a/dx --SERVICE", 1, 1));
    ASSERT_NE(pclService, nullptr);
    EXPECT_STREQ(pclService->pszGetName(), L"DXCS-my_server");
    EXPECT_STREQ(pclService->pszBinaryPathName(), L"/opt/a/dx --SERVICE");
    EXPECT_EQ(stRun("cat /lib/systemd/system/DXCS-my_server.service").csOutput,
              "[Unit]\nDescription=DXCS-My server \xC3\xA9\nAfter=network.target\n[Install]\n"
              "WantedBy=multi-user.target\n[Service]\nType=forking\n"
              "ExecStart=/opt/a/dx --SERVICE DXCS-my_server\nPIDFile=/var/run/DXCS-my_server.pid\n"
              "Restart=on-abnormal\n");
    EXPECT_EQ(clTool.csTakeJournal(), "daemon-reload\nenable DXCS-my_server\n");
    const std::unique_ptr<CService> pclManual(
        m_clManager.pclInstallEx(L"DXCS-m", L"M", L"/opt/m", 16, nullptr, nullptr, 0, 3));
    EXPECT_EQ(clTool.csTakeJournal(), "daemon-reload\n");
    EXPECT_EQ(stRun("cat /lib/systemd/system/DXCS-m.service").csOutput.find("Restart="), std::string::npos);
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
