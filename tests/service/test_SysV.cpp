// The SysV half of the service layer on made machines: release files, scripts and registration tools that
// record.

#include "service/AServiceUnix.h"
#include "service/Distribution.h"
#include "service/LanceProcessus.h"
#include "service/ServiceManagerUnix.h"
#include "tools/Command.h"
#include "tools/PrivateWorld.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <sys/mount.h>
#include <sys/stat.h>

namespace {
void Write(const std::string& csPath, const std::string& csText, mode_t nMode = 0755)
{
    std::filesystem::create_directories(std::filesystem::path(csPath).parent_path());
    std::ofstream(csPath) << csText;
    ::chmod(csPath.c_str(), nMode);
}

/// An empty directory over the given one, for the life of the object.
class CEmptied
{
public:
    explicit CEmptied(const char* pszDirectory) : m_pszDirectory(pszDirectory)
    {
        EXPECT_EQ(::mount("tmpfs", pszDirectory, "tmpfs", 0, "mode=0755"), 0);
    }
    ~CEmptied() { ::umount2(m_pszDirectory, MNT_DETACH); }
    CEmptied(const CEmptied&) = delete;
    CEmptied& operator=(const CEmptied&) = delete;

private:
    const char* m_pszDirectory;
};

/// Every test has an empty /etc/init.d and /etc/rc.d, and tools in its PATH that write to a journal how they
/// are called, and with how many scripts in /etc/init.d; they fail, which is not to matter.
class SysV : public ::testing::Test
{
protected:
    void SetUp() override
    {
        REQUIRE_PRIVATE_WORLD();
        CLanceProcessus::sInit();
        m_pclEtc = std::make_unique<CEmptied>("/etc");
        std::filesystem::create_directories("/etc/init.d");
        std::filesystem::create_directories("/etc/rc.d");
        for (const char* psz : {"update-rc.d", "chkconfig", "insserv", "rc-update"}) {
            Write(std::string("/tmp/tools/") + psz,
                  "#!/bin/sh\necho \"${0##*/} $*\" $(ls /etc/init.d | wc -l) >>/tmp/journal; exit 1\n");
        }
        m_csPath = ::getenv("PATH");
        ::setenv("PATH", ("/tmp/tools:" + m_csPath).c_str(), 1);
        CServiceManager::ms_eDistri = DISTRI_DEBIAN;
    }
    void TearDown() override
    {
        if (m_pclEtc == nullptr) {
            return;
        }
        CServiceManager::ms_eDistri = DISTRI_UNKNOWN;
        ::setenv("PATH", m_csPath.c_str(), 1);
        m_pclEtc.reset();
        CLanceProcessus::sTerm();
    }
    /// The calls so far; forgets them.
    static std::string csTakeJournal()
    {
        return stRun("cat /tmp/journal 2>/dev/null; rm -f /tmp/journal").csOutput;
    }
    std::unique_ptr<CService> pclGet(const wchar_t* pszName)
    {
        return std::unique_ptr<CService>(m_clManager.pclGetService(pszName));
    }
    std::unique_ptr<CService> pclInstall(const wchar_t* pszName, const wchar_t* pszDisplayName,
                                         const wchar_t* pszBinaryPath, int bAutoStart = 0)
    {
        return std::unique_ptr<CService>(
            m_clManager.pclInstall(pszName, pszDisplayName, pszBinaryPath, bAutoStart, 0));
    }
    std::multiset<std::wstring> tList(const wchar_t* pszPrefix)
    {
        std::multiset<std::wstring> tNames;
        unsigned long nCursor = 0;
        while (const auto pcl = std::unique_ptr<CService>(m_clManager.pclEnumService(&nCursor, pszPrefix))) {
            tNames.insert(pcl->pszGetName());
        }
        return tNames;
    }
    CServiceManager m_clManager;
    std::unique_ptr<CEmptied> m_pclEtc;
    std::string m_csPath;
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
        {"touch mandriva-release gentoo-release", DISTRI_MANDRAKE},
        {"touch SuSE-release gentoo-release fedora-release", DISTRI_SUSE},
        {"touch /usr/sbin/SuSEconfig gentoo-release", DISTRI_SUSE},
        {"touch gentoo-release fedora-release", DISTRI_GENTOO},
        {"touch fedora-release slackware-version; echo x >redhat-release", DISTRI_FEDORA},
        {"touch slackware-release; echo x >redhat-release", DISTRI_SLACKWARE},
        {"touch slackware-version; echo fedora >version", DISTRI_SLACKWARE},
        {"echo 'MANDRIVA Linux (like Fedora)' >redhat-release", DISTRI_MANDRAKE},
        {"echo 'Linux Mandrake release 8' >redhat-release", DISTRI_MANDRAKE},
        {"echo 'Fedora Core release 6' >redhat-release; echo debian >version", DISTRI_FEDORA},
        {"echo Debian >redhat-release; echo debian >version", DISTRI_REDHAT},
        {"touch redhat-release", DISTRI_REDHAT},
        {"mkdir redhat-release; echo 'a Debian, or a RedHat' >version", DISTRI_REDHAT},
        {"echo 'Mandrake, Mandriva, Fedora' >version", DISTRI_MANDRAKE},
        {"echo 'FEDORA redhat' >version", DISTRI_FEDORA},
        {"echo 'Debian 3' >version; mkdir init.d; touch init.d/function", DISTRI_DEBIAN},
        {"echo 24 >version; mkdir init.d; touch init.d/function", DISTRI_REDHAT},
        {"mkdir version init.d; touch init.d/function", DISTRI_REDHAT},
        {"mkdir init.d; touch init.d/functions", DISTRI_DEBIAN},
    };
    for (const auto& [pszMake, eExpected] : tCases) {
        const CEmptied clEtc("/etc");
        const CEmptied clSbin("/usr/sbin");
        ASSERT_EQ(stRun(std::string("cd /etc; ") + pszMake).nStatus, 0) << pszMake;
        EXPECT_EQ(eFindDistribution(), eExpected) << pszMake;
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

TEST_F(SysV, EnumerationListsThePrefixedScriptsAndToleratesEveryUseOfItsCursor)
{
    for (const char* psz :
         {"DXCS-a", "DXCS-b", "dxcs-c", "ssh", "DXCS-x;reboot", "DXCS-my base", ".hidden"}) {
        Write(std::string("/etc/init.d/") + psz, "");
    }
    EXPECT_EQ(tList(L"DXCS-"), (std::multiset<std::wstring>{L"DXCS-a", L"DXCS-b"}));
    EXPECT_EQ(tList(L""), (std::multiset<std::wstring>{L".hidden", L"DXCS-a", L"DXCS-b", L"dxcs-c", L"ssh"}));
    const auto nHandles = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto nBefore = nHandles();
    unsigned long nCursor = 0;
    unsigned long nOther = 0;
    const std::unique_ptr<CService> pclOther(m_clManager.pclEnumService(&nOther, L"ssh"));
    while (std::unique_ptr<CService>(m_clManager.pclEnumService(&nCursor, L"DXCS-"))) {
    }
    EXPECT_EQ(m_clManager.pclEnumService(&nCursor, L"DXCS-"), nullptr);
    for (unsigned long* pnEnded : {&nCursor, &nCursor, &nOther}) {
        m_clManager.AbortEnumService(pnEnded);
    }
    EXPECT_EQ(nHandles(), nBefore);
    std::filesystem::remove_all("/etc/init.d");
    EXPECT_TRUE(tList(L"").empty());
}

TEST_F(SysV, EveryOperationRunsItsOneShellLine)
{
    Write("/etc/init.d/DXCS-a", s_szRecorder);
    CService cl(&m_clManager, L"DXCS-a");
    const struct
    {
        std::function<bool()> fnAction;
        const char* pszCall;
        const char* pszVisible; ///< what reaches the daemon's own output
    } tCases[] = {
        {[&] { return cl.bStart(); }, "/etc/init.d/DXCS-a start\n", "err\n"},
        {[&] { return cl.bStart(L"-v --port=1"); }, "/etc/init.d/DXCS-a start -v --port=1\n", "err\n"},
        {[&] { return cl.bStop(); }, "/etc/init.d/DXCS-a stop\n", ""},
        {[&] { return cl.bRestart(); }, "/etc/init.d/DXCS-a restart\n", ""},
        {[&] { return cl.bSendControlCommand(CONTROL_RELOAD); }, "/etc/init.d/DXCS-a reload\n", ""},
    };
    for (const auto& st : tCases) {
        ::testing::internal::CaptureStdout();
        ::testing::internal::CaptureStderr();
        EXPECT_TRUE(st.fnAction());
        const std::string csError = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(::testing::internal::GetCapturedStdout() + csError, st.pszVisible) << st.pszCall;
        EXPECT_EQ(csTakeJournal(), st.pszCall);
    }
    for (const wchar_t* psz :
         {L";touch /tmp/ran", L"$(touch /tmp/ran)", L"a\ntouch /tmp/ran", L"'a'", L">/tmp/ran"}) {
        EXPECT_FALSE(cl.bStart(psz)) << psz;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(csTakeJournal(), "");
    EXPECT_FALSE(std::filesystem::exists("/tmp/ran"));
}

TEST_F(SysV, RefusalsAndNamesOfNoServiceAreFailuresWithACause)
{
    Write("/etc/init.d/refuses", "#!/bin/sh\nexit 3\n");
    Write("/etc/init.d/plain", "#!/bin/sh\n", 0644);
    Write("/etc/init.d/killed", "#!/bin/sh\nkill -KILL $PPID\n");
    Write("/etc/init.d/x;touch", s_szRecorder);
    const std::pair<const wchar_t*, int> tCases[] = {
        {L"refuses", ECANCELED},       {L"plain", EACCES},   {L"missing", ENOENT},
        {L"x;touch /tmp/ran", ENOENT}, {L"x;touch", ENOENT}, {L"../../bin/true", ENOENT},
    };
    for (const auto& [pszName, nErrno] : tCases) {
        errno = 0;
        EXPECT_FALSE(CService(&m_clManager, pszName).bStop()) << pszName;
        EXPECT_EQ(errno, nErrno) << pszName;
    }
    EXPECT_TRUE(CService(&m_clManager, L"killed").bStop())
        << "a shell that a signal ended has no exit status: success, as intended";
    EXPECT_FALSE(CService(&m_clManager, L"x;touch").bRemove());
    EXPECT_EQ(CService(&m_clManager, L"x;touch").eGetStatus(), STATUS_UNKNOWN);
    EXPECT_EQ(csTakeJournal(), "");
    EXPECT_FALSE(std::filesystem::exists("/tmp/ran"));
}

TEST_F(SysV, StatusFollowsTheExitCode)
{
    const std::pair<const char*, EServiceStatus> tCases[] = {
        {"#!/bin/sh\n[ \"$*\" = status ]\n", STATUS_RUNNING},
        {"#!/bin/sh\nexit 1\n", STATUS_FAILED},
        {"#!/bin/sh\nexit 3\n", STATUS_STOPPED},
        {"#!/bin/sh\nexit 255\n", STATUS_STOPPED},
        {"#!/no/such/interpreter\n", STATUS_STOPPED},
        {"#!/bin/sh\nhead -c 5000000 /dev/zero; exit 0\n", STATUS_RUNNING},
        {"#!/bin/sh\nsleep 30 & exit 0\n", STATUS_RUNNING},        // what it leaves running holds nobody up
        {"#!/bin/sh\nread x && exit 4; exit 0\n", STATUS_RUNNING}, // its input is at its end
    };
    for (const auto& [pszScript, eExpected] : tCases) {
        Write("/etc/init.d/DXCS-a", pszScript);
        EXPECT_EQ(CService(&m_clManager, L"DXCS-a").eGetStatus(), eExpected) << pszScript;
    }
    for (const char* pszSpoil : {"chmod 644", "rm"}) {
        stRun(std::string(pszSpoil) + " /etc/init.d/DXCS-a");
        EXPECT_EQ(CService(&m_clManager, L"DXCS-a").eGetStatus(), STATUS_UNKNOWN) << pszSpoil;
    }
}

TEST_F(SysV, InstallationAndRemovalRunTheFamilysOwnTool)
{
    const struct
    {
        EDistri eDistri;
        const char* pszInterpreter;
        const char* pszRegister;
        const char* pszUnregister;
    } tCases[] = {
        // Debian's tool minds a script that is still there when it unregisters, the others need it
        {DISTRI_DEBIAN, "#!/bin/sh\n", "update-rc.d DXCS-a-b defaults 1\n",
         "update-rc.d -f DXCS-a-b remove 0\n"},
        {DISTRI_REDHAT, "#!/bin/sh\n", "chkconfig --add DXCS-a-b 1\n", "chkconfig --del DXCS-a-b 1\n"},
        {DISTRI_MANDRAKE, "#!/bin/sh\n", "chkconfig --add DXCS-a-b 1\n", "chkconfig --del DXCS-a-b 1\n"},
        {DISTRI_FEDORA, "#!/bin/sh\n", "chkconfig --add DXCS-a-b 1\n", "chkconfig --del DXCS-a-b 1\n"},
        {DISTRI_SUSE, "#!/bin/sh\n", "insserv DXCS-a-b 1\n", "insserv -r DXCS-a-b 1\n"},
        {DISTRI_GENTOO, "#!/sbin/runscript\n", "rc-update add DXCS-a-b default 1\n",
         "rc-update del DXCS-a-b 1\n"},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.eDistri);
        CServiceManager::ms_eDistri = st.eDistri;
        ASSERT_NE(pclInstall(L"DXCS-a.b", L"My base", L"/opt/a/dx --SERVICE"), nullptr);
        EXPECT_EQ(csTakeJournal(), "") << "not to be started at boot: not registered";
        Write("/etc/init.d/DXCS-a-b", std::string(10'000, 'x'), 0600); // is replaced as a whole
        ASSERT_EQ(::chown("/etc/init.d/DXCS-a-b", 12, 34), 0);
        const auto pcl = pclInstall(L"DXCS-a.b", L"My bäse", L"/opt/a/dx --SERVICE", 1);
        ASSERT_NE(pcl, nullptr);
        EXPECT_EQ(csTakeJournal(), st.pszRegister);
        EXPECT_STREQ(pcl->pszGetName(), L"DXCS-a-b");
        EXPECT_STREQ(pcl->pszGetDisplayName(), L"My bäse");
        EXPECT_STREQ(pcl->pszBinaryPathName(), L"/opt/a/dx");
        EXPECT_EQ(stRun("stat -c '%a %u %g' /etc/init.d/DXCS-a-b").csOutput, "755 0 0\n");
        EXPECT_TRUE(stRun("cat /etc/init.d/DXCS-a-b").csOutput.starts_with(st.pszInterpreter));
        EXPECT_TRUE(pcl->bRemove());
        EXPECT_EQ(csTakeJournal(), st.pszUnregister);
        EXPECT_FALSE(std::filesystem::exists("/etc/init.d/DXCS-a-b"));
    }
}

TEST_F(SysV, InstallationsThatCannotBeMadeLeaveNothing)
{
    const std::pair<const wchar_t*, const wchar_t*> tCases[] = {
        {L"DXCS-a;reboot", L"/opt/dx"},    {L"DXCS-$(x)", L"/opt/dx"}, {L"-a", L"/opt/dx"}, {L"", L"/opt/dx"},
        {L"DXCS-a", L"/opt/dx a\nreboot"}, {L"DXCS-a", L""},
    };
    for (const auto& [pszName, pszBinaryPath] : tCases) {
        errno = 0;
        EXPECT_EQ(pclInstall(pszName, L"A", pszBinaryPath, 1), nullptr) << pszName;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(stRun("ls -A /etc/init.d").csOutput + csTakeJournal(), "");
    std::filesystem::remove_all("/etc/init.d");
    EXPECT_EQ(pclInstall(L"DXCS-a", L"A", L"/opt/dx", 1), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(csTakeJournal(), "");
}

TEST_F(SysV, SlackwareKeepsItsScriptsInItsOwnPlaceForEveryOperation)
{
    CServiceManager::ms_eDistri = DISTRI_SLACKWARE;
    Write("/etc/rc.d/rc.M", "#!/bin/sh\n");
    Write("/etc/rc.d/rc.K", "#!/bin/sh\n");
    ASSERT_NE(pclInstall(L"DXCS-a.b", L"My base", L"/opt/a/dx -v", 1), nullptr);
    ASSERT_NE(pclInstall(L"DXCS-a.b", L"My base", L"/opt/a/dx -v", 1), nullptr) << "adds no second block";
    const std::string csBoot =
        "#!/bin/sh\n\n# Start the DXCS-a-b server\nif [ -x /etc/rc.d/rc.DXCS-a-b ]; then\n";
    EXPECT_EQ(stRun("cat /etc/rc.d/rc.M").csOutput, csBoot + "/. etc/rc.d/rc.DXCS-a-b start\nfi\n");
    EXPECT_EQ(stRun("cat /etc/rc.d/rc.K").csOutput, csBoot + "/etc/rc.d/rc.DXCS-a-b stop\nfi\n");
    EXPECT_EQ(stRun("stat -c %a /etc/rc.d/rc.M /etc/rc.d/rc.DXCS-a-b").csOutput, "755\n755\n");
    Write("/etc/init.d/DXCS-second", s_szRecorder);
    Write("/etc/init.d/DXCS-a-b", "#!/bin/sh\nexit 9\n"); // hidden by the one in the family's own place
    EXPECT_EQ(tList(L"DXCS-"), (std::multiset<std::wstring>{L"DXCS-a-b", L"DXCS-second"}));
    Write("/etc/rc.d/rc.DXCS-a-b", s_szRecorder);
    const auto pcl = pclGet(L"DXCS-a.b");
    EXPECT_TRUE(pcl->bStart() && pcl->bSendControlCommand(CONTROL_RELOAD) &&
                pclGet(L"DXCS-second")->bStart());
    EXPECT_EQ(csTakeJournal(), "/etc/rc.d/rc.DXCS-a-b start\n/etc/rc.d/rc.DXCS-a-b reload\n"
                               "/etc/init.d/DXCS-second start\n");
    EXPECT_TRUE(pcl->bRemove());
    EXPECT_FALSE(std::filesystem::exists("/etc/rc.d/rc.DXCS-a-b"));
    EXPECT_TRUE(stRun("cat /etc/rc.d/rc.M").csOutput.starts_with(csBoot)) << "the boot blocks stay";
    std::filesystem::remove("/etc/rc.d/rc.M");
    EXPECT_NE(pclInstall(L"DXCS-b", L"B", L"/opt/b", 1), nullptr) << "installed all the same";
    EXPECT_FALSE(std::filesystem::exists("/etc/rc.d/rc.M"));
}

TEST_F(SysV, MarkerValuesOfOddFilesAreNull)
{
    const std::string csLong(300, 'x');
    const struct
    {
        std::string csMake; ///< makes "odd"
        const wchar_t* pszDisplayName;
        const wchar_t* pszProgram;
    } tCases[] = {
        {"echo '# Program=\"/opt/dx\" Name=\"My bäse\" ' >odd", L"My bäse", L"/opt/dx"},
        {"echo '#!/bin/sh' >odd", L"odd", nullptr},
        {"echo '# Name=\"no end' >odd", nullptr, nullptr},
        {"echo '# Program=\"/" + csLong + "\" Name=\"x\"' >odd", L"odd", nullptr},
        {"echo '# Name=\"" + csLong + "\"' >odd", nullptr, nullptr},
        {"mkdir odd", nullptr, nullptr},
        {"mkfifo odd", nullptr, nullptr},
        {"ln -s /dev/zero odd", nullptr, nullptr},
        {"ln -s odd odd", nullptr, nullptr},
        {"true", nullptr, nullptr},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.csMake);
        ASSERT_EQ(stRun("cd /etc/init.d; rm -rf odd; " + st.csMake).nStatus, 0);
        CService cl(&m_clManager, L"odd");
        EXPECT_STREQ(cl.pszGetDisplayName(), st.pszDisplayName);
        EXPECT_STREQ(cl.pszBinaryPathName(), st.pszProgram);
    }
}
