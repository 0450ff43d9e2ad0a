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
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <vector>

namespace {
void Write(const std::string& csPath, const std::string& csText, mode_t nMode = 0755)
{
    std::filesystem::create_directories(std::filesystem::path(csPath).parent_path());
    std::ofstream(csPath) << csText;
    ::chmod(csPath.c_str(), nMode);
}

std::string csReadFile(const std::string& csPath)
{
    std::ostringstream clText;
    clText << std::ifstream(csPath).rdbuf();
    return clText.str();
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

/// Every test has an empty /etc/init.d and /etc/rc.d, and tools in its PATH that write their calls to a
/// journal.
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
                  "#!/bin/sh\necho \"${0##*/} $*\" >>/tmp/journal; exit 1\n");
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
        const std::string csText = csReadFile("/tmp/journal");
        std::filesystem::remove("/tmp/journal");
        return csText;
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
    using tFiles = std::vector<std::pair<const char*, const char*>>;
    const struct
    {
        tFiles tPresent;
        EDistri eExpected;
    } tCases[] = {
        {{}, DISTRI_DEBIAN},
        {{{"/etc/debian_version", ""}, {"/etc/SuSE-release", ""}, {"/etc/mandrake-release", ""}},
         DISTRI_DEBIAN},
        {{{"/etc/mandrake-release", ""}, {"/etc/SuSE-release", ""}, {"/etc/redhat-release", "x"}},
         DISTRI_MANDRAKE},
        {{{"/etc/mandriva-release", ""}, {"/etc/gentoo-release", ""}}, DISTRI_MANDRAKE},
        {{{"/etc/SuSE-release", ""}, {"/etc/gentoo-release", ""}, {"/etc/fedora-release", ""}}, DISTRI_SUSE},
        {{{"/usr/sbin/SuSEconfig", ""}, {"/etc/gentoo-release", ""}}, DISTRI_SUSE},
        {{{"/etc/gentoo-release", ""}, {"/etc/fedora-release", ""}}, DISTRI_GENTOO},
        {{{"/etc/fedora-release", ""}, {"/etc/slackware-version", ""}, {"/etc/redhat-release", "x"}},
         DISTRI_FEDORA},
        {{{"/etc/slackware-release", ""}, {"/etc/redhat-release", "x"}}, DISTRI_SLACKWARE},
        {{{"/etc/slackware-version", ""}, {"/etc/version", "fedora"}}, DISTRI_SLACKWARE},
        {{{"/etc/redhat-release", "MANDRIVA Linux (like Fedora)"}}, DISTRI_MANDRAKE},
        {{{"/etc/redhat-release", "Linux Mandrake release 8"}}, DISTRI_MANDRAKE},
        {{{"/etc/redhat-release", "Fedora Core release 6"}, {"/etc/version", "debian"}}, DISTRI_FEDORA},
        {{{"/etc/redhat-release", "Debian"}, {"/etc/version", "debian"}}, DISTRI_REDHAT},
        {{{"/etc/redhat-release", ""}}, DISTRI_REDHAT},
        {{{"/etc/redhat-release/unreadable", ""}, {"/etc/version", "a Debian, or a RedHat"}}, DISTRI_REDHAT},
        {{{"/etc/version", "Mandrake, Mandriva, Fedora"}}, DISTRI_MANDRAKE},
        {{{"/etc/version", "FEDORA redhat"}}, DISTRI_FEDORA},
        {{{"/etc/version", "Debian 3"}, {"/etc/init.d/function", ""}}, DISTRI_DEBIAN},
        {{{"/etc/version", "24"}, {"/etc/init.d/function", ""}}, DISTRI_REDHAT},
        {{{"/etc/version/unreadable", ""}, {"/etc/init.d/function", ""}}, DISTRI_REDHAT},
        {{{"/etc/init.d/functions", ""}}, DISTRI_DEBIAN},
    };
    for (const auto& st : tCases) {
        const CEmptied clEtc("/etc");
        const CEmptied clSbin("/usr/sbin");
        for (const auto& [pszPath, pszText] : st.tPresent) {
            Write(pszPath, pszText);
        }
        EXPECT_EQ(eFindDistribution(), st.eExpected) << (&st - tCases);
    }
}

TEST_F(SysV, LookupTakesTheScriptNameFirstAndTheUnchangedNameNext)
{
    for (const char* psz :
         {"DXCS-my-base", "DXCS-old.base", "DXCS-a_b__c", "DXCS-\xC3\xA9", "evil;name", "a b"}) {
        Write(std::string("/etc/init.d/") + psz, s_szRecorder);
    }
    Write("/tmp/outside", s_szRecorder);
    const struct
    {
        const wchar_t* pszAsked;
        const wchar_t* pszFound; ///< null: no service
    } tCases[] = {
        {L"DXCS-my-base", L"DXCS-my-base"},
        {L"DXCS-my.base", L"DXCS-my-base"},
        {L"DXCS-my/base", L"DXCS-my-base"},
        {L"DXCS-a b\tc", L"DXCS-a_b__c"},
        {L"DXCS-\u00e9", L"DXCS-\u00e9"},
        {L"DXCS-old.base", L"DXCS-old.base"},
        {L"DXCS-old-base", nullptr},
        {L"dxcs-my-base", nullptr},
        {L"", nullptr},
        {L".", nullptr},
        {L"..", nullptr},
        {L"../../tmp/outside", nullptr},
        {L"/tmp/outside", nullptr},
        {L"evil;name", nullptr},
        {L"a b", nullptr},
        {L"DXCS-*", nullptr},
        {L"$(touch /tmp/ran)", nullptr},
        {L"x\n/tmp/outside", nullptr},
    };
    for (const auto& st : tCases) {
        errno = 0;
        const auto pcl = pclGet(st.pszAsked);
        if (st.pszFound != nullptr) {
            ASSERT_NE(pcl, nullptr) << st.pszAsked;
            EXPECT_STREQ(pcl->pszGetName(), st.pszFound);
        } else {
            EXPECT_EQ(pcl, nullptr) << st.pszAsked;
            EXPECT_EQ(errno, ENOENT);
        }
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
    const std::string csHandles = "ls /proc/" + std::to_string(::getpid()) + "/fd | wc -l";
    const std::string csBefore = stRun(csHandles).csOutput;
    for (int nRound = 0; nRound < 3; ++nRound) {
        unsigned long nCursor = 0;
        unsigned long nOther = 0;
        std::unique_ptr<CService>(m_clManager.pclEnumService(&nOther, L"ssh"));
        while (std::unique_ptr<CService>(m_clManager.pclEnumService(&nCursor, L"DXCS-"))) {
        }
        EXPECT_EQ(m_clManager.pclEnumService(&nCursor, L"DXCS-"), nullptr);
        m_clManager.AbortEnumService(&nCursor);
        m_clManager.AbortEnumService(&nCursor);
        m_clManager.AbortEnumService(&nOther);
    }
    EXPECT_EQ(stRun(csHandles).csOutput, csBefore);
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
        {[&] { return cl.bStart(L""); }, "/etc/init.d/DXCS-a start\n", "err\n"},
        {[&] { return cl.bStart(L"-v --port=1"); }, "/etc/init.d/DXCS-a start -v --port=1\n", "err\n"},
        {[&] { return cl.bStop(); }, "/etc/init.d/DXCS-a stop\n", ""},
        {[&] { return cl.bRestart(); }, "/etc/init.d/DXCS-a restart\n", ""},
        {[&] { return cl.bSendControlCommand(CONTROL_STOP); }, "/etc/init.d/DXCS-a stop\n", ""},
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
    const struct
    {
        const wchar_t* pszName;
        bool bExpected;
        int nErrno;
    } tCases[] = {
        {L"refuses", false, ECANCELED}, {L"plain", false, EACCES},
        {L"missing", false, ENOENT},    {L"x;touch /tmp/ran", false, ENOENT},
        {L"x;touch", false, ENOENT},    {L"../../bin/true", false, ENOENT},
        {L"killed", true, 0}, // a shell that a signal ended has no exit status: success, as intended
    };
    for (const auto& st : tCases) {
        errno = 0;
        CService cl(&m_clManager, st.pszName);
        EXPECT_EQ(cl.bStop(), st.bExpected) << st.pszName;
        EXPECT_TRUE(st.bExpected || errno == st.nErrno) << st.pszName << " " << errno;
    }
    EXPECT_FALSE(CService(&m_clManager, L"x;touch").bRemove());
    EXPECT_EQ(CService(&m_clManager, L"x;touch").eGetStatus(), STATUS_UNKNOWN);
    EXPECT_EQ(CService(&m_clManager, L"x;touch").pszGetDisplayName(), nullptr);
    EXPECT_EQ(csTakeJournal(), "");
    EXPECT_FALSE(std::filesystem::exists("/tmp/ran"));
}

TEST_F(SysV, StatusFollowsTheExitCode)
{
    const struct
    {
        const char* pszScript; ///< null: there is none
        EServiceStatus eExpected;
    } tCases[] = {
        {"#!/bin/sh\n[ \"$*\" = status ]\n", STATUS_RUNNING},
        {"#!/bin/sh\nexit 1\n", STATUS_FAILED},
        {"#!/bin/sh\nexit 3\n", STATUS_STOPPED},
        {"#!/bin/sh\nexit 255\n", STATUS_STOPPED},
        {"#!/no/such/interpreter\n", STATUS_STOPPED},
        {"#!/bin/sh\nhead -c 5000000 /dev/zero; exit 0\n", STATUS_RUNNING},
        {"#!/bin/sh\nsleep 30 & exit 0\n", STATUS_RUNNING},        // what it leaves running holds nobody up
        {"#!/bin/sh\nread x && exit 4; exit 0\n", STATUS_RUNNING}, // its input is at its end
        {nullptr, STATUS_UNKNOWN},
    };
    for (const auto& st : tCases) {
        std::filesystem::remove("/etc/init.d/DXCS-a");
        if (st.pszScript != nullptr) {
            Write("/etc/init.d/DXCS-a", st.pszScript);
        }
        EXPECT_EQ(CService(&m_clManager, L"DXCS-a").eGetStatus(), st.eExpected) << st.pszScript;
    }
    Write("/etc/init.d/DXCS-a", "#!/bin/sh\n", 0644);
    EXPECT_EQ(CService(&m_clManager, L"DXCS-a").eGetStatus(), STATUS_UNKNOWN);
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
        {DISTRI_DEBIAN, "#!/bin/sh\n", "update-rc.d DXCS-my-base defaults\n",
         "update-rc.d -f DXCS-my-base remove\n"},
        {DISTRI_REDHAT, "#!/bin/sh\n", "chkconfig --add DXCS-my-base\n", "chkconfig --del DXCS-my-base\n"},
        {DISTRI_MANDRAKE, "#!/bin/sh\n", "chkconfig --add DXCS-my-base\n", "chkconfig --del DXCS-my-base\n"},
        {DISTRI_FEDORA, "#!/bin/sh\n", "chkconfig --add DXCS-my-base\n", "chkconfig --del DXCS-my-base\n"},
        {DISTRI_SUSE, "#!/bin/sh\n", "insserv DXCS-my-base\n", "insserv -r DXCS-my-base\n"},
        {DISTRI_GENTOO, "#!/sbin/runscript\n", "rc-update add DXCS-my-base default\n",
         "rc-update del DXCS-my-base\n"},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.eDistri);
        CServiceManager::ms_eDistri = st.eDistri;
        ASSERT_NE(pclInstall(L"DXCS-my.base", L"My base", L"/opt/a/dx --SERVICE"), nullptr);
        EXPECT_EQ(csTakeJournal(), "") << "not to be started at boot: not registered";
        Write("/etc/init.d/DXCS-my-base", std::string(10'000, 'x'), 0600); // is replaced as a whole
        ASSERT_EQ(::chown("/etc/init.d/DXCS-my-base", 12, 34), 0);
        const auto pcl = pclInstall(L"DXCS-my.base", L"My b\u00e4se", L"/opt/a/dx --SERVICE", 1);
        ASSERT_NE(pcl, nullptr);
        EXPECT_EQ(csTakeJournal(), st.pszRegister);
        EXPECT_STREQ(pcl->pszGetName(), L"DXCS-my-base");
        EXPECT_STREQ(pcl->pszGetDisplayName(), L"My b\u00e4se");
        EXPECT_STREQ(pcl->pszBinaryPathName(), L"/opt/a/dx");
        EXPECT_EQ(stRun("stat -c '%a %u %g' /etc/init.d/DXCS-my-base").csOutput, "755 0 0\n");
        EXPECT_TRUE(csReadFile("/etc/init.d/DXCS-my-base").starts_with(st.pszInterpreter));
        EXPECT_TRUE(pcl->bRemove());
        EXPECT_EQ(csTakeJournal(), st.pszUnregister);
        EXPECT_FALSE(std::filesystem::exists("/etc/init.d/DXCS-my-base"));
    }
}

TEST_F(SysV, OnlyDebianUnregistersAfterTheScriptIsGone)
{
    for (const char* psz : {"update-rc.d", "chkconfig", "insserv", "rc-update"}) {
        Write(std::string("/tmp/tools/") + psz, "#!/bin/sh\nls /etc/init.d >>/tmp/journal\n");
    }
    for (const EDistri e : {DISTRI_DEBIAN, DISTRI_REDHAT, DISTRI_SUSE, DISTRI_GENTOO}) {
        CServiceManager::ms_eDistri = e;
        const auto pcl = pclInstall(L"DXCS-a", L"", L"/opt/dx");
        EXPECT_TRUE(pcl != nullptr && pcl->bRemove());
        EXPECT_EQ(csTakeJournal(), e == DISTRI_DEBIAN ? "" : "DXCS-a\n") << e;
    }
}

TEST_F(SysV, InstallationsThatCannotBeMadeLeaveNothing)
{
    const struct
    {
        const wchar_t* pszName;
        const wchar_t* pszBinaryPath;
        int nErrno;
    } tCases[] = {
        {L"DXCS-a;reboot", L"/opt/dx", EINVAL},
        {L"DXCS-$(x)", L"/opt/dx", EINVAL},
        {L"-a", L"/opt/dx", EINVAL},
        {L"..", L"/opt/dx", EINVAL},
        {L"", L"/opt/dx", EINVAL},
        {L"DXCS-a\nb", L"/opt/dx", EINVAL},
        {L"DXCS-a", L"/opt/dx a\nreboot", EINVAL},
        {L"DXCS-a", L"/opt/d\"x", EINVAL},
        {L"DXCS-a", L"", EINVAL},
    };
    for (const auto& st : tCases) {
        errno = 0;
        EXPECT_EQ(pclInstall(st.pszName, L"A", st.pszBinaryPath, 1), nullptr) << st.pszName;
        EXPECT_EQ(errno, st.nErrno);
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
    Write("/etc/rc.d/rc.M", "#!/bin/sh\n# multi user\n");
    Write("/etc/rc.d/rc.K", "#!/bin/sh\n# kill\n");
    ASSERT_NE(pclInstall(L"DXCS-my.base", L"My base", L"/opt/a/dx -v", 1), nullptr);
    ASSERT_NE(pclInstall(L"DXCS-my.base", L"My base", L"/opt/a/dx -v", 1), nullptr);
    EXPECT_EQ(csReadFile("/etc/rc.d/rc.M"), "#!/bin/sh\n# multi user\n\n# Start the DXCS-my-base server\nif "
                                            "[ -x /etc/rc.d/rc.DXCS-my-base ]; then\n"
                                            "/. etc/rc.d/rc.DXCS-my-base start\nfi\n");
    EXPECT_EQ(
        csReadFile("/etc/rc.d/rc.K"),
        "#!/bin/sh\n# kill\n\n# Start the DXCS-my-base server\nif [ -x /etc/rc.d/rc.DXCS-my-base ]; then\n"
        "/etc/rc.d/rc.DXCS-my-base stop\nfi\n");
    EXPECT_EQ(stRun("stat -c %a /etc/rc.d/rc.M /etc/rc.d/rc.DXCS-my-base").csOutput, "755\n755\n");
    Write("/etc/init.d/DXCS-second", s_szRecorder);
    Write("/etc/init.d/DXCS-my-base", "#!/bin/sh\nexit 9\n"); // hidden by the one in the family's own place
    EXPECT_EQ(tList(L"DXCS-"), (std::multiset<std::wstring>{L"DXCS-my-base", L"DXCS-second"}));
    auto pcl = pclGet(L"DXCS-my.base");
    ASSERT_NE(pcl, nullptr);
    EXPECT_STREQ(pcl->pszGetName(), L"DXCS-my-base");
    EXPECT_STREQ(pcl->pszGetDisplayName(), L"My base");
    EXPECT_STREQ(pcl->pszBinaryPathName(), L"/opt/a/dx");
    EXPECT_EQ(pcl->eGetStatus(), STATUS_STOPPED);
    Write("/etc/rc.d/rc.DXCS-my-base", s_szRecorder);
    EXPECT_TRUE(pcl->bStart() && pcl->bStop() && pcl->bRestart() && pcl->bSendControlCommand(CONTROL_RELOAD));
    EXPECT_EQ(csTakeJournal(), "/etc/rc.d/rc.DXCS-my-base start\n/etc/rc.d/rc.DXCS-my-base stop\n"
                               "/etc/rc.d/rc.DXCS-my-base restart\n/etc/rc.d/rc.DXCS-my-base reload\n");
    EXPECT_TRUE(pclGet(L"DXCS-second")->bStart());
    EXPECT_EQ(csTakeJournal(), "/etc/init.d/DXCS-second start\n");
    const std::string csBoot = csReadFile("/etc/rc.d/rc.M");
    EXPECT_TRUE(pcl->bRemove());
    EXPECT_FALSE(std::filesystem::exists("/etc/rc.d/rc.DXCS-my-base"));
    EXPECT_EQ(csReadFile("/etc/rc.d/rc.M"), csBoot) << "the boot blocks stay";
    std::filesystem::remove(
        "/etc/rc.d/rc.M"); // a machine without boot files: the script is installed all the same
    EXPECT_NE(pclInstall(L"DXCS-b", L"B", L"/opt/b", 1), nullptr);
    EXPECT_FALSE(std::filesystem::exists("/etc/rc.d/rc.M"));
}

TEST_F(SysV, MarkerValuesOfOddFilesAreNull)
{
    const std::string csLong(300, 'x');
    const struct
    {
        std::string csScript;
        const wchar_t* pszDisplayName;
        const wchar_t* pszProgram;
    } tCases[] = {
        {"# Program=\"/opt/dx\" Name=\"My b\xC3\xA4se\" \n", L"My b\u00e4se", L"/opt/dx"},
        {"#!/bin/sh\n", L"odd", nullptr},
        {"# Program=\"/opt/dx Name=no\r\n", L"odd", nullptr},
        {"# Name=\"no end\r\n", nullptr, nullptr},
        {"# Program=\"/" + csLong + "\" Name=\"x\"\n", L"odd", nullptr},
        {"# Program=\"/" + csLong.substr(0, 150) + "\" Name=\"x\"\n", L"x", nullptr},
        {"# Name=\"" + csLong + "\"\n", nullptr, nullptr},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.csScript);
        Write("/etc/init.d/odd", st.csScript);
        CService cl(&m_clManager, L"odd");
        EXPECT_STREQ(cl.pszGetDisplayName(), st.pszDisplayName);
        EXPECT_STREQ(cl.pszBinaryPathName(), st.pszProgram);
    }
    for (const char* pszMake :
         {"mkdir", "mkfifo", "ln -s /dev/zero", "ln -s /dev/tty", "ln -s odd", "true"}) {
        SCOPED_TRACE(pszMake);
        stRun(std::string("rm -rf /etc/init.d/odd; ") + pszMake + " /etc/init.d/odd");
        CService cl(&m_clManager, L"odd");
        EXPECT_EQ(cl.pszGetDisplayName(), nullptr);
        EXPECT_EQ(cl.pszBinaryPathName(), nullptr);
    }
}
