// The service layer against a scripted systemctl: odd outputs, exact commands. The real one is asked in the
// machine.

#include "service/AServiceUnix.h"
#include "tools/Command.h"
#include "tools/SystemdTest.h"

#include <fstream>
#include <gtest/gtest.h>
#include <memory>

using Systemd = CSystemdTest;

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

TEST_F(Systemd, AUnitGeneratedFromAScriptTakesItsProgramFromTheScript)
{
    std::ofstream("/etc/init.d/DXCS-old")
        << "#!/bin/sh\n# Do not remove\n# Program=\"/opt/old/dx\" Name=\"Old\" \n";
    const CFakeTool clTool("/bin/systemctl",
                           "printf 'Type=forking\\nExecStart={ argv[]=/etc/init.d/DXCS-old start ; }\\n'");
    const std::unique_ptr<CService> pclService(m_clManager.pclGetService(L"DXCS-old"));
    ASSERT_NE(pclService, nullptr);
    EXPECT_STREQ(pclService->pszBinaryPathName(), L"/opt/old/dx");
}

TEST_F(Systemd, EnumerationGivesThePrefixedUnitsThatExistAndToleratesStaleCursors)
{
    const CFakeTool clTool("/bin/systemctl", R"(case "$*" in
list-units*) printf '  DXCS-a.service l a r A\n● DXCS-b.service l f f B\n  ssh.service l a r S\n'
             printf '● DXCS-gone.service not-found i d G\n  DXCS-c.service l a r C\n' ;;
*DXCS-gone) printf 'Type=\nDescription=DXCS-gone.service\n' ;;
*) printf 'Type=forking\n' ;;
esac)");
    unsigned long nCursor = 0;
    std::wstring csNames;
    while (const auto pcl = std::unique_ptr<CService>(m_clManager.pclEnumService(&nCursor, L"DXCS-"))) {
        csNames += pcl->pszGetName() + std::wstring(L" ");
    }
    EXPECT_EQ(csNames, L"DXCS-a DXCS-b DXCS-c ");
    EXPECT_EQ(m_clManager.pclEnumService(&nCursor, L"DXCS-"), nullptr) << "the end stays the end";
    nCursor = 0;
    const std::unique_ptr<CService> pclFirst(m_clManager.pclEnumService(&nCursor, L"DXCS-"));
    m_clManager.AbortEnumService(&nCursor);
    m_clManager.AbortEnumService(&nCursor);
    EXPECT_EQ(m_clManager.pclEnumService(&nCursor, L"DXCS-"), nullptr);
}

TEST_F(Systemd, InstallationKeepsNamesAndCommandLinesToTheirOwnLine)
{
    CFakeTool clTool("/bin/systemctl", "exit 1"); // outcomes are not judged
    const std::unique_ptr<CService> pclService(
        m_clManager.pclInstall(L"DXCS-my server", L"DXCS-My\nserver \u00e9", L"/opt/a/dx --SERVICE", 0, 0));
    ASSERT_NE(pclService, nullptr);
    EXPECT_STREQ(pclService->pszGetName(), L"DXCS-my_server");
    EXPECT_EQ(stRun("cat /lib/systemd/system/DXCS-my_server.service").csOutput,
              "[Unit]\nDescription=DXCS-My server \xC3\xA9\nAfter=network.target\n[Install]\n"
              "WantedBy=multi-user.target\n[Service]\nType=forking\n"
              "ExecStart=/opt/a/dx --SERVICE DXCS-my_server\nPIDFile=/var/run/DXCS-my_server.pid\n");
    EXPECT_EQ(clTool.csTakeJournal(), "daemon-reload\n") << "not to start at boot: not enabled";
    // The last four would not be read back as they were written.
    for (const wchar_t* psz : {L"DXCS-*", L"DXCS-a\\", L"DXCS-5%q", L"DXCS-$HOME", L"DXCS-d'or"}) {
        EXPECT_EQ(m_clManager.pclInstall(psz, L"x", L"/x", 1, 1), nullptr)
            << ::testing::PrintToString(std::wstring(psz));
    }
    EXPECT_EQ(m_clManager.pclInstall(L"DXCS-n", L"x", L"/x\nExecStartPre=/evil", 1, 1), nullptr);
    EXPECT_EQ(clTool.csTakeJournal(), "");
}
