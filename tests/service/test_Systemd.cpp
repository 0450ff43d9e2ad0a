// The service layer against a scripted systemctl: odd outputs, exact commands. The real one is asked in the
// machine.

#include "tools/Command.h"
#include "tools/SoftLimit.h"
#include "tools/SystemdTest.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <thread>

using Systemd = CSystemdTest;

namespace {
constexpr char s_szFaulty[] = ". " VELMO_SCRIPTS "faulty.sh";

class FailingTool : public CSystemdTest
{
protected:
    /// The next calls run the fault first.
    void Break(const std::string& csFault, int nCalls)
    {
        m_clTool.csTakeJournal();
        m_clTool.Write("fault", csFault + "\n");
        m_clTool.Write("left", std::to_string(nCalls) + "\n");
    }
    int nCalls() { return nCount(m_clTool.csTakeJournal(), "\n"); }
    CService m_clService{&m_clManager, L"DXCS-a"};
    CFakeTool m_clTool{"/bin/systemctl", s_szFaulty};
};

constexpr int s_nForGood = 1000;
} // namespace

TEST_F(FailingTool, AQuestionThatFailsIsAskedAgainAndThenHasFailed)
{
    const std::tuple<const char*, int, int> tCases[] = {
        // the fault, least and most tries of a question that fails for good
        {"echo 'Failed to get properties: Transport endpoint is not connected' >&2; exit 1", 4, 4},
        {"echo ActiveState=failed; echo Type=; kill -KILL $$", 4, 4}, // half an answer, perhaps
        {"printf 'ActiveState=fai'; exit 1", 4, 4},
        // Read after a pause of 2 s, or at once where it is quick to print more than its limit.
        {"exec yes '  DXCS-z.service ActiveState=failed'", 2, 4},
        {"sleep 1.2; exit 1", 3, 3}, // the fourth would begin too late
    };
    for (const auto& [pszFault, nLeast, nMost] : tCases) {
        SCOPED_TRACE(pszFault);
        Break(pszFault, 1);
        EXPECT_EQ(csListed(&m_clManager), L"DXCS-a DXCS-b ");
        Break(pszFault, 1);
        EXPECT_EQ(m_clService.eGetStatus(), STATUS_RUNNING);
        EXPECT_EQ(nCalls(), 2);
        Break(pszFault, s_nForGood);
        EXPECT_EQ(csListed(&m_clManager), L"failed");
        const auto nTries = nCalls();
        EXPECT_TRUE(nTries >= nLeast && nTries <= nMost) << nTries;
    }
    Break("exit 1", 3);
    EXPECT_EQ(m_clService.eGetStatus(), STATUS_RUNNING) << "the last try counts";
    Break("exit 1", s_nForGood);
    EXPECT_FALSE(m_clService.bStart() || m_clService.bStop());
    EXPECT_EQ(nCalls(), 2) << "no question: done once";
}

TEST_F(FailingTool, AnAnswerThatIsThereCountsWhateverTheStatus)
{
    const std::pair<const char*, EServiceStatus> tCases[] = {
        {"echo ActiveState=failed; exit 1", STATUS_FAILED},
        {"echo 'Warning: a=b'; echo ActiveState=failed; echo 'Failed to c: d=e'; exit 3", STATUS_FAILED},
        {"echo ActiveState=; exit 4", STATUS_STOPPED},
        {"exit 0", STATUS_STOPPED},
    };
    for (const auto& [pszFault, eStatus] : tCases) {
        Break(pszFault, 1);
        EXPECT_EQ(m_clService.eGetStatus(), eStatus) << pszFault;
        EXPECT_EQ(nCalls(), 1) << pszFault;
    }
    Break("printf 'Type=\\nDescription=DXCS-a.service\\n'; exit 4", 1);
    errno = 0;
    EXPECT_EQ(m_clManager.pclGetService(L"DXCS-a"), nullptr);
    EXPECT_EQ(errno, ENOENT) << "systemd says that there is none";
}

TEST_F(FailingTool, OutOfDescriptorsAQuestionWaitsForOne)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "SKIPPED: the sanitizer itself needs descriptors";
#endif
    Break("", 0);
    std::optional<CSoftLimit> clNone(std::in_place, RLIMIT_NOFILE, 3);
    errno = 0;
    EXPECT_EQ(m_clManager.pclGetService(L"DXCS-a"), nullptr);
    EXPECT_EQ(errno, EMFILE);
    const std::jthread clLater([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        clNone.reset();
    });
    EXPECT_EQ(m_clService.eGetStatus(), STATUS_RUNNING);
}

TEST_F(Systemd, RemovalStopsAtARefusedDisableAndOtherwiseDeletesBothFiles)
{
    CFakeTool clTool("/bin/systemctl",
                     "case \"$*\" in *FragmentPath*) echo FragmentPath=/run/DXCS-A.service;; *SourcePath*) "
                     "echo SourcePath=/run/DXCS-A;; disable*) [ -e $DIR/agree ];; stop*) exit 5;; "
                     "esac");
    const std::string csShown = "--property=FragmentPath show DXCS-A\n--property=SourcePath show DXCS-A\n"
                                "--property=ActiveState show DXCS-A\n";
    CService cl(&m_clManager, L"DXCS-A");
    const std::string csFiles = "/run/DXCS-A.service /run/DXCS-A";
    stRun("touch " + csFiles);
    EXPECT_FALSE(cl.bRemove());
    EXPECT_EQ(clTool.csTakeJournal(), csShown + "disable DXCS-A\n");
    EXPECT_EQ(stRun("ls " + csFiles).nStatus, 0);
    clTool.Write("agree", "");
    EXPECT_TRUE(cl.bRemove());
    EXPECT_EQ(clTool.csTakeJournal(),
              csShown + "disable DXCS-A\nstop DXCS-A\n--property=ActiveState show DXCS-A\ndaemon-reload\n"
                        "reset-failed DXCS-A\n");
    EXPECT_EQ(stRun("ls " + csFiles + " 2>/dev/null").csOutput, "");
}

TEST_F(Systemd, EnumerationGivesUnitsThatExistWithTheirScriptsProgramsAndToleratesStaleCursors)
{
    const CFakeTool clTool("/bin/systemctl", R"(case "$*" in
list-units*) printf '  DXCS-a.service l a r A\n● DXCS-b.service l f f B\n  ssh.service l a r S\n'
             printf '● DXCS-gone.service not-found i d G\n  DXCS-c.service l a r C\n' ;;
*DXCS-gone) printf 'Type=\nDescription=DXCS-gone.service\n' ;;
*DXCS-c) printf 'Type=forking\nExecStart={ argv[]=/etc/init.d/DXCS-c start ; }\n' ;;
*) printf 'Type=forking\n' ;;
esac)");
    std::ofstream("/etc/init.d/DXCS-c")
        << "#!/bin/sh\n# Do not remove\n# Program=\"/opt/old/dx\" Name=\"Old\" \n";
    const std::unique_ptr<CService> pclGenerated(m_clManager.pclGetService(L"DXCS-c"));
    ASSERT_NE(pclGenerated, nullptr);
    EXPECT_STREQ(pclGenerated->pszBinaryPathName(), L"/opt/old/dx");
    EXPECT_EQ(csListed(&m_clManager), L"DXCS-a DXCS-b DXCS-c ");

    unsigned long nCursor = 0;
    while (std::unique_ptr<CService>(m_clManager.pclEnumService(&nCursor, L"DXCS-")) != nullptr) {
    }
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
    // They would not be read back as they were written.
    const std::pair<const wchar_t*, const wchar_t*> tRefused[] = {
        {L"DXCS-*", L"/x"},
        {L"DXCS-5%q", L"/x"},
        {L"DXCS-n", L"/x\nExecStartPre=/evil"},
        {L"DXCS-n", L"/opt/my base/x --SERVICE"},
    };
    for (const auto& [pszName, pszProgram] : tRefused) {
        errno = 0;
        EXPECT_EQ(m_clManager.pclInstall(pszName, L"x", pszProgram, 1, 1), nullptr) << pszName;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(m_clManager.pclInstall(nullptr, L"x", L"/x", 1, 1), nullptr);
    EXPECT_EQ(m_clManager.pclInstall(L"DXCS-n", L"x", nullptr, 1, 1), nullptr);
    EXPECT_EQ(clTool.csTakeJournal(), "");
}

TEST_F(Systemd, AnInstallationThatCannotBeEnabledLeavesWhatWasThere)
{
    CFakeTool clTool("/bin/systemctl", "case \"$*\" in enable*) exit 1;; esac");
    EXPECT_EQ(m_clManager.pclInstall(L"DXCS-R&D", nullptr, L"/opt/a/dx --SERVICE", 1, 0), nullptr);
    EXPECT_EQ(errno, ECANCELED);
    EXPECT_EQ(clTool.csTakeJournal(),
              "daemon-reload\nenable DXCS-R\\x26D\ndisable DXCS-R\\x26D\ndaemon-reload\n");
    EXPECT_EQ(stRun("ls /lib/systemd/system | grep R").csOutput, "");
    std::ofstream("/lib/systemd/system/DXCS-R\\x26D.service") << "somebody's\n";
    EXPECT_EQ(m_clManager.pclInstall(L"DXCS-R&D", nullptr, L"/opt/a/dx --SERVICE", 1, 0), nullptr);
    EXPECT_EQ(stRun("cat /lib/systemd/system/DXCS-R*").csOutput, "somebody's\n");
}

TEST_F(Systemd, NullTextsAreFieldsThatAreNotThere)
{
    CFakeTool clTool("/bin/systemctl", "exit 0");
    CService clService(&m_clManager, nullptr, nullptr, nullptr);
    EXPECT_TRUE(clService.pszGetName() == nullptr && clService.pszGetDisplayName() == nullptr);
    EXPECT_EQ(clService.pszBinaryPathName(), nullptr);
    EXPECT_FALSE(clService.bStart() || clService.bRemove());
    EXPECT_EQ(clService.eGetStatus(), STATUS_STOPPED);
    EXPECT_EQ(m_clManager.pclGetService(nullptr), nullptr);
    EXPECT_EQ(clTool.csTakeJournal(), "") << "nothing is asked without a name";
}

namespace {
constexpr char s_szSixty[] = ". " VELMO_SCRIPTS "sixty.sh";

std::wstring csSixty(CServiceManager& clManager)
{
    CServiceListing clListing(&clManager, L"DXCS-", L"dxsql");
    std::wstring csAll;
    while (const auto pcl = clListing.pclNext()) {
        csAll += pcl->pszGetName() + std::wstring(L"|") + pcl->pszGetDisplayName() + L"|" +
                 pcl->pszBinaryPathName() + L"|" + pcl->csGetExecutable() + L"\n";
    }
    return csAll + (clListing.bFailed() ? L"failed" : L"");
}
} // namespace

TEST_F(Systemd, WhateverABatchPrintsTheListingIsThatOfSingleQuestions)
{
    const std::pair<const char*, int> tCases[] = {
        // What answers, with the names as its arguments. The launches: the listing's own, two batches, and
        // the names that were asked again.
        {"exit 1", 64},
        {"blocks \"$@\"", 3},
        {"blocks \"$@\"; exit 1", 3},
        {"echo 'Warning: reload' >&2; blocks \"$@\"", 3},
        {"shift; blocks \"$@\"", 64},
        {"blocks DXCS-1 \"$@\"", 64},
        {"a=$1; shift; blocks \"$@\" $a", 64},
        {"a=$1; shift; blocks DXCS-x \"$@\"", 64},
        {"for u; do echo; done", 64},
        {"blocks \"$@\"; echo; echo", 64},
        {"blocks \"$@\" | sed 's/$/\\r/'", 64},
        {"blocks \"$@\" | sed 's/^Type=forking/&\\n/'", 64},
        {":", 64},
        {"echo noise; echo; echo =; exit 1", 64},
        {"blocks \"$@\"; kill -9 $$", 64},
        {"blocks \"$@\" | head -c 1500", 64},
    };
    CFakeTool clTool("/bin/systemctl", s_szSixty);
    clTool.Write("batch", "exit 1\n");
    const std::wstring csSingly = csSixty(m_clManager);
    EXPECT_EQ(std::count(csSingly.begin(), csSingly.end(), L'\n'), 59) << "two are not there";
    EXPECT_TRUE(csSingly.ends_with(L"\ndxsql|of dxsql|/s/dxsql --SERVICE dxsql |/s/dxsql\n"));
    for (const auto& [pszBatch, nLaunches] : tCases) {
        clTool.Write("batch", pszBatch + std::string("\n"));
        clTool.csTakeJournal();
        EXPECT_EQ(csSixty(m_clManager), csSingly) << pszBatch;
        EXPECT_EQ(nCount(clTool.csTakeJournal(), "\n"), nLaunches) << pszBatch;
    }

    CServiceListing clLeftEarly(&m_clManager, L"DXCS-");
    EXPECT_NE(clLeftEarly.pclNext(), nullptr);
    EXPECT_EQ(nCount(clTool.csTakeJournal(), "DXCS-48"), 0) << "only the first batch has been asked for";
}
