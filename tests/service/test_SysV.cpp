// The SysV half of the service layer in a made /etc: release files, and scripts that note how they are
// called. Real scripts and tools are at work in the machine.

#include "service/Distribution.h"
#include "tools/Command.h"
#include "tools/SoftLimit.h"
#include "tools/SystemdTest.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {
void Write(const std::string& csPath, const std::string& csText, mode_t nMode = 0755)
{
    std::filesystem::create_directories(std::filesystem::path(csPath).parent_path());
    std::ofstream(csPath) << csText;
    ::chmod(csPath.c_str(), nMode);
}

/// Every test has an empty /etc of its own.
class SysV : public CSystemdTest
{
protected:
    void SetUp() override
    {
        CSystemdTest::SetUp();
        if (IsSkipped()) {
            return;
        }

        m_bOwnEtc = bEmptyEtc();
        ASSERT_TRUE(m_bOwnEtc);
        std::filesystem::create_directories("/etc/init.d");
        CServiceManager::ms_eDistri = DISTRI_DEBIAN;
    }
    void TearDown() override
    {
        if (m_bOwnEtc) {
            ::umount2("/etc", MNT_DETACH);
        }
        CSystemdTest::TearDown();
    }
    static bool bEmptyEtc() { return ::mount("tmpfs", "/etc", "tmpfs", 0, "mode=0755") == 0; }
    /// The calls so far; forgets them.
    static std::string csTakeJournal()
    {
        return stRun("cat /tmp/journal 2>/dev/null; rm -f /tmp/journal").csOutput;
    }
    std::unique_ptr<CService> pclGet(const wchar_t* pszName)
    {
        return std::unique_ptr<CService>(m_clManager.pclGetService(pszName));
    }
    std::unique_ptr<CService> pclInstall(const wchar_t* pszName, const wchar_t* pszBinaryPath)
    {
        return std::unique_ptr<CService>(m_clManager.pclInstall(pszName, L"My base", pszBinaryPath, 1, 0));
    }
    bool m_bOwnEtc = false;
};

/// A script that writes its arguments to the journal.
constexpr char s_szRecorder[] = "#!/bin/sh\necho \"$0 $*\" >>/tmp/journal\necho out; echo err >&2\n";
} // namespace

TEST_F(SysV, ReleaseFilesTellTheFamilyInTheirOrder)
{
    const std::pair<const char*, EDistri> tCases[] = {
        // what makes the files, in /etc
        {"true", DISTRI_DEBIAN},
        {"touch debian_version SuSE-release mandrake-release", DISTRI_DEBIAN},
        {"touch mandrake-release SuSE-release; echo x >redhat-release", DISTRI_MANDRAKE},
        {"touch SuSE-release gentoo-release fedora-release", DISTRI_SUSE},
        {"touch gentoo-release fedora-release", DISTRI_GENTOO},
        {"touch fedora-release slackware-version; echo x >redhat-release", DISTRI_FEDORA},
        {"touch slackware-version; echo fedora >version", DISTRI_SLACKWARE},
        {"echo 'MANDRIVA Linux (like Fedora)' >redhat-release", DISTRI_MANDRAKE},
        {"echo 'Fedora Core release 6' >redhat-release; echo debian >version", DISTRI_FEDORA},
        {"mkdir redhat-release; echo 'a Debian, or a RedHat' >version", DISTRI_REDHAT},
        {"echo 'Mandrake, Mandriva, Fedora' >version", DISTRI_MANDRAKE},
        {"echo 'Debian 3' >version; mkdir init.d; touch init.d/function", DISTRI_DEBIAN},
        {"echo 24 >version; mkdir init.d; touch init.d/function", DISTRI_REDHAT},
        {"mkdir init.d; touch init.d/functions", DISTRI_DEBIAN},
    };
    for (const auto& [pszMake, eExpected] : tCases) {
        ASSERT_TRUE(bEmptyEtc());
        ASSERT_EQ(stRun(std::string("cd /etc; ") + pszMake).nStatus, 0) << pszMake;
        EXPECT_EQ(eFindDistribution(), eExpected) << pszMake;
        ::umount2("/etc", MNT_DETACH);
    }
}

TEST_F(SysV, LookupTakesTheScriptNameFirstAndTheUnchangedNameNext)
{
    for (const char* psz : {"DXCS-my-base", "DXCS-old.base", "DXCS-a_b__c", "DXCS-é", "evil;name", "a b"}) {
        Write(std::string("/etc/init.d/") + psz, s_szRecorder);
    }
    Write("/tmp/outside", s_szRecorder);
    const std::pair<const wchar_t*, const wchar_t*> tCases[] = {
        {L"DXCS-my.base", L"DXCS-my-base"},   {L"DXCS-my/base", L"DXCS-my-base"},
        {L"DXCS-a b\tc", L"DXCS-a_b__c"},     {L"DXCS-é", L"DXCS-é"},
        {L"DXCS-old.base", L"DXCS-old.base"},
    };
    for (const auto& [pszAsked, pszFound] : tCases) {
        const auto pcl = pclGet(pszAsked);
        ASSERT_NE(pcl, nullptr) << pszAsked;
        EXPECT_STREQ(pcl->pszGetName(), pszFound);
    }
    for (const wchar_t* psz : {L"DXCS-old-base", L"dxcs-my-base", L"", L".", L"..", L"../../tmp/outside",
                               L"/tmp/outside", L"evil;name", L"a b", L"DXCS-*", L"x\n/tmp/outside"}) {
        errno = 0;
        EXPECT_EQ(pclGet(psz), nullptr) << psz;
        EXPECT_EQ(errno, ENOENT);
    }
}

TEST_F(SysV, EnumerationListsThePrefixedScriptsAndFailsWhereOneCannotBeRead)
{
    for (const char* psz :
         {"DXCS-a", "dxcs-c", "ssh", "DXCS-x;reboot", "DXCS-my base", ".hidden", "DXCS-folder/x"}) {
        Write(std::string("/etc/init.d/") + psz, "");
    }
    std::filesystem::create_symlink("nowhere", "/etc/init.d/DXCS-gone");
    EXPECT_EQ(pclGet(L"DXCS-gone"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    const auto nHandles = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto nBefore = nHandles();
    EXPECT_EQ(csListed(&m_clManager), L"DXCS-a DXCS-folder ");
    unsigned long nAborted = 0;
    const std::unique_ptr<CService> pclOne(m_clManager.pclEnumService(&nAborted, L"ssh"));
    m_clManager.AbortEnumService(&nAborted);
    EXPECT_EQ(nHandles(), nBefore);
    EXPECT_EQ(nAborted, 0u) << "ready for another listing, unlike under systemd";

    // This process's own memory: a file that opens and whose first page cannot be read.
    std::filesystem::create_symlink("/proc/self/mem", "/etc/init.d/DXCS-b");
    EXPECT_EQ(csListed(&m_clManager), L"failed");
    EXPECT_EQ(pclGet(L"DXCS-b"), nullptr);
    EXPECT_EQ(errno, EIO);
    std::filesystem::remove("/etc/init.d/DXCS-b");

    std::optional<CSoftLimit> clNone(std::in_place, RLIMIT_NOFILE, 3);
    const std::wstring csOutOfDescriptors = csListed(&m_clManager);
    clNone.reset();
    EXPECT_EQ(csOutOfDescriptors, L"failed");
    std::filesystem::remove_all("/etc/init.d");
    EXPECT_EQ(csListed(&m_clManager), L"") << "no folder, no scripts";
}

TEST_F(SysV, WhatCannotBeDoneIsAFailureWithItsCauseAndNothingElseIsRun)
{
    Write("/etc/init.d/refuses", "#!/bin/sh\nexit 3\n");
    Write("/etc/init.d/plain", "#!/bin/sh\n", 0644);
    Write("/etc/init.d/killed", "#!/bin/sh\nkill -KILL $PPID\n");
    Write("/etc/init.d/x;touch", s_szRecorder);
    const std::tuple<const wchar_t*, const wchar_t*, int> tCases[] = {
        // script, arguments, cause
        {L"refuses", L"", ECANCELED},
        {L"plain", L"", EACCES},
        {L"missing", L"", ENOENT},
        {L"x;touch", L"", ENOENT},
        {L"x;touch /tmp/ran", L"", ENOENT},
        {L"../../bin/true", L"", ENOENT},
        {L"killed", L";touch /tmp/ran", EINVAL},
        {L"killed", L"$(touch /tmp/ran)", EINVAL},
        {L"killed", L"a\ntouch /tmp/ran", EINVAL},
    };
    for (const auto& [pszName, pszArguments, nErrno] : tCases) {
        errno = 0;
        EXPECT_FALSE(CService(&m_clManager, pszName).bStart(pszArguments)) << pszName;
        EXPECT_EQ(errno, nErrno) << pszName;
    }
    EXPECT_TRUE(CService(&m_clManager, L"killed").bStop()); // no exit status: clients rely on a success
    EXPECT_FALSE(CService(&m_clManager, L"x;touch").bRemove());
    for (const wchar_t* psz : {L"plain", L"missing", L"x;touch"}) {
        EXPECT_EQ(CService(&m_clManager, psz).eGetStatus(), STATUS_UNKNOWN) << psz;
    }
    EXPECT_EQ(csTakeJournal(), "");
    EXPECT_FALSE(std::filesystem::exists("/tmp/ran"));
}

TEST_F(SysV, InstallationsThatCannotBeMadeLeaveNothing)
{
    std::vector<std::pair<std::wstring, const wchar_t*>> tCases = {{L"", L"/opt/dx"}, {L"-a", L"/opt/dx"}};
    for (const wchar_t* psz :
         {L"", L" /opt/dx", L"\"\" a", L"\"/opt/dx a", L"/opt/a\"b c", L"/opt/dx a\nreboot", L"/opt/dx\ta"}) {
        tCases.emplace_back(L"DXCS-a", psz);
    }
    for (const wchar_t c : std::wstring(L";$`|&><('\"\\*?[~#!{\n\x7f\u0085")) {
        tCases.emplace_back(std::wstring(L"DXCS-a") + c + L"reboot", L"/opt/dx");
    }
    for (const auto& [csName, pszBinaryPath] : tCases) {
        SCOPED_TRACE(::testing::PrintToString(csName));
        errno = 0;
        EXPECT_EQ(pclInstall(csName.c_str(), pszBinaryPath), nullptr) << pszBinaryPath;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(stRun("ls -A /etc/init.d").csOutput, "");
    std::filesystem::remove_all("/etc/init.d");
    EXPECT_EQ(pclInstall(L"DXCS-a", L"/opt/dx"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(SysV, ARefusingToolHoldsNothingUpAndDebiansIsAskedWhenTheScriptIsGone)
{
    CFakeTool clTool("/usr/sbin/update-rc.d", "ls /etc/init.d >>$JOURNAL; exit 1");
    const auto pcl = pclInstall(L"DXCS-a", L"/opt/dx");
    ASSERT_NE(pcl, nullptr);
    EXPECT_TRUE(pcl->bRemove());
    EXPECT_EQ(clTool.csTakeJournal(), "DXCS-a defaults\nDXCS-a\n-f DXCS-a remove\n");
}

TEST_F(SysV, SlackwareKeepsItsScriptsInItsOwnPlaceForEveryOperation)
{
    CServiceManager::ms_eDistri = DISTRI_SLACKWARE;
    Write("/etc/rc.d/rc.M", "#!/bin/sh\n");
    Write("/etc/rc.d/rc.K", "#!/bin/sh\n");
    Write("/etc/rc.d/rc.DXCS-a-b", std::string(10'000, 'x'), 0600); // is replaced as a whole
    ASSERT_EQ(::chown("/etc/rc.d/rc.DXCS-a-b", 12, 34), 0);
    ASSERT_NE(pclInstall(L"DXCS-a.b", L"/opt/a/dx -v"), nullptr);
    EXPECT_EQ(pclGet(L"DXCS-a.b")->csGetExecutable(), L"/opt/a/dx");
    EXPECT_EQ(stRun("stat -c '%a %u %g' /etc/rc.d/rc.DXCS-a-b").csOutput, "755 0 0\n");
    EXPECT_EQ(stRun("grep -c xxx /etc/rc.d/rc.DXCS-a-b").csOutput, "0\n");
    ASSERT_NE(pclInstall(L"DXCS-a.b", L"/opt/a/dx -v"), nullptr) << "adds no second block";
    const std::string csBoot =
        "#!/bin/sh\n\n# Start the DXCS-a-b server\nif [ -x /etc/rc.d/rc.DXCS-a-b ]; then\n";
    EXPECT_EQ(stRun("cat /etc/rc.d/rc.M").csOutput, csBoot + "/. etc/rc.d/rc.DXCS-a-b start\nfi\n");
    EXPECT_EQ(stRun("cat /etc/rc.d/rc.K").csOutput, csBoot + "/etc/rc.d/rc.DXCS-a-b stop\nfi\n");
    Write("/etc/init.d/DXCS-second", s_szRecorder);
    Write("/etc/init.d/DXCS-a-b", "#!/bin/sh\nexit 9\n"); // hidden by the one in the family's own place
    EXPECT_EQ(csListed(&m_clManager), L"DXCS-a-b DXCS-second ");
    Write("/etc/rc.d/rc.DXCS-a-b", s_szRecorder);
    const auto pcl = pclGet(L"DXCS-a.b");
    EXPECT_TRUE(pcl->bStart(L"-v --port=1") && pclGet(L"DXCS-second")->bRestart());
    EXPECT_EQ(csTakeJournal(), "/etc/rc.d/rc.DXCS-a-b start -v --port=1\n/etc/init.d/DXCS-second restart\n");
    // Its script has no status: the PID file says whether it runs.
    const std::string csPid = stRun("sh -c 'sleep 60; :' sh DXCS-a-b >/dev/null 2>&1 & echo $!").csOutput;
    Write("/run/DXCS-a-b.pid", csPid);
    EXPECT_FALSE(pcl->bRemove()) << "it runs whatever its stop does";
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(stRun("kill -9 " + csPid).nStatus, 0);
    EXPECT_TRUE(pcl->bRemove());
    EXPECT_FALSE(std::filesystem::exists("/etc/rc.d/rc.DXCS-a-b"));
    std::filesystem::remove("/etc/rc.d/rc.M");
    EXPECT_NE(pclInstall(L"DXCS-b", L"/opt/b"), nullptr) << "installed all the same";
    EXPECT_FALSE(std::filesystem::exists("/etc/rc.d/rc.M"));
}
