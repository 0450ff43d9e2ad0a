#include "config/Config.h"
#include "support/Conversion.h"
#include "support/WinApi.h"
#include "support/XError.h"
#include "support/XYString.h"
#include "tools/PrivateWorld.h"
#include "tools/TempDir.h"

#include <array>
#include <cerrno>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <type_traits>
#include <unistd.h>

namespace {
using namespace std::string_literals;
using CGetter = std::wstring (*)(const CConfig&);

/// What a getter of a text, or of a number, gives.
template <auto pfnGetter>
std::wstring csGot(const CConfig& clConfig)
{
    if constexpr (std::is_invocable_v<decltype(pfnGetter), const CConfig&>) {
        return std::to_wstring(static_cast<int>((clConfig.*pfnGetter)()));
    } else {
        std::wstring csBuffer(1100, L'#');
        (clConfig.*pfnGetter)(csBuffer.data());
        return csBuffer.data();
    }
}

std::wstring csDaemonUser(const CConfig& clConfig)
{
    wchar_t szUser[300];
    return clConfig.bGetUserDaemon(szUser) ? szUser : L"<none>";
}

class Config : public testing::Test
{
protected:
    const bool m_bPrivate = bPrivateWorld(); // before the directory is made: it brings its own /tmp
    const CTempDir m_clDirectory;
    CConfig m_clConfig{m_clDirectory.csWidePath().c_str()};

    void SetFile(const std::string& csBytes) const { m_clDirectory.csWrite("DXConf.ini", csBytes); }
    std::string csFile() const { return m_clDirectory.csRead("DXConf.ini"); }
    /// The errno that a setter throws; 0 when it throws nothing.
    static int nThrown(const std::function<void()>& fnSet)
    {
        try {
            fnSet();
        } catch (const CXError& clError) {
            return static_cast<int>(clError.nGetSystemError());
        }
        return 0;
    }
};
} // namespace

TEST_F(Config, NumbersAreOfTheirTypeOrHaveTheirOwnRule)
{
    const struct
    {
        const char *pszSection, *pszKey;
        std::function<long(const CConfig&)> fnGet;
        long nDefault;
        std::array<long, 4> tExpected; // for "2", "-1", "4294967295" and "0x10"
    } tCases[] = {
        {"INIT", "AccessPort", &CConfig::nGetPort, 4900, {2, -1, -1, 0}},
        {"MANAGER", "RestartOnFailed", &CConfig::bRestartOnFailed, 1, {2, -1, -1, 0}},
        {"MANAGER", "CheckPeriod", &CConfig::dwCheckPeriod, 600, {2, 4294967295, 4294967295, 0}},
        {"AUTOANALYSE", "ENABLE", &CConfig::bGetAutoAnalyseEnable, 1, {1, 1, 1, 0}},
        {"ClusterNode", "Cluster", &CConfig::bClusterNode, 0, {0, 0, 0, 0}}, // only 1 makes one
        {"INIT", "ActivityStatisticPeriod", &CConfig::wGetStatPeriod, 0, {2, 65535, 65535, 0}},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszKey);
        ::unlink(m_clDirectory.csPath("DXConf.ini").c_str());
        EXPECT_EQ(st.fnGet(m_clConfig), st.nDefault);
        const auto nGet = [&](const char* pszValue) {
            SetFile("[Other]\n"s + st.pszKey + "=9\n[" + st.pszSection + "]\n" + st.pszKey + " = " +
                    pszValue + "\n");
            return st.fnGet(m_clConfig);
        };
        EXPECT_THAT((std::array{nGet("2"), nGet("-1"), nGet("4294967295"), nGet("0x10")}),
                    testing::ElementsAreArray(st.tExpected));
    }
}

TEST_F(Config, TextsAndKeywordsFollowTheFile)
{
    const std::tuple<const char*, CGetter, const char*> tCases[] = {
        // a line of the section INIT, and the text, with <D> for the directory
        {"", csGot<&CConfig::GetLogFileName>, "<D>/EventLog.txt"},
        {"ErrorLogFile=%%EXE%%//a\\b", csGot<&CConfig::GetLogFileName>, "<D>/a\\b"},
        {"", csGot<&CConfig::GetRootDBPath>, "<D>/DB/"},
        {"", csGot<&CConfig::GetRootDBPathConfig>, "%%EXE%%DB\\"},
        {"DBRootPath=%%COMMONAPPDATA%%DB", csGot<&CConfig::GetRootDBPath>, "/var/lib/DB/"},
        {"DBRootPath=%%COMMOxxxxxxxxx>DB", csGot<&CConfig::GetRootDBPath>, "/var/lib/DB/"}, // 7 decide
        {"DBRootPath=%%COMMO", csGot<&CConfig::GetRootDBPath>, "/var/lib/"},
        {"DBRootPath=%%exe%%DB", csGot<&CConfig::GetRootDBPath>, "%%exe%%DB/"},
        {"DBRootPath=/x%%EXE%%", csGot<&CConfig::GetRootDBPath>, "/x%%EXE%%/"},
        {"DBRootPath=", csGot<&CConfig::GetRootDBPath>, ""},
        {"", csGot<&CConfig::GetStatDirectory>, "<D>//ActivityStatistics/"},
        {"DumpPath=C\\d", csGot<&CConfig::GetCrashDumpDirectory>, "C/d/"},
        {"", csGot<&CConfig::GetJNLPath>, "<D>/DB/"},
        {"DBRootPath=/db", csGot<&CConfig::GetJNLBackupPath>, "/db/"},
        {"JNLRootPath=%%EXE%%j", csGot<&CConfig::GetJNLPath>, "<D>/j/"},
        {"JNLRootPath=/j", csGot<&CConfig::GetJNLBackupPath>, "/j/"},
        {"JNLRootPath=/j\nJNLBackupRootPath=/b", csGot<&CConfig::GetJNLBackupPath>, "/b/"},
        {"[ClusterNode]\nNodePassword= s ;", csGot<&CConfig::GetClusterPassword>, "s ;"},
        {"", csGot<&CConfig::eGetLogMode>, "1"},
        {"ErrorLogMode=FILE", csGot<&CConfig::eGetLogMode>, "2"},
        {"ErrorLogMode=file", csGot<&CConfig::eGetLogMode>, "0"},
        {"ErrorLogMode=SYSTEM ", csGot<&CConfig::eGetLogMode>, "0"},
        {"", csGot<&CConfig::nGetsocketOptions>, "0"},
        {"SocketOptions=IPV6_ONLY,IPV4_ONLY", csGot<&CConfig::nGetsocketOptions>, "1"},
        {"SocketOptions=IPV4_ONLY,IPV4_IPV6,what", csGot<&CConfig::nGetsocketOptions>, "0"},
        {"SocketOptions=what,ipv6_only,,else", csGot<&CConfig::nGetsocketOptions>, "2"},
        {"SocketOptions=IPV6_ONLY, IPV4_ONLY", csGot<&CConfig::nGetsocketOptions>, "2"}, // as " IPV4_ONLY"
        {"Installer=NatiF", csGot<&CConfig::bIsInstallerNatif>, "1"},
        {"Installer=natif2", csGot<&CConfig::bIsInstallerNatif>, "0"},
        {"[ClusterNode]\nCluster=1", csGot<&CConfig::bClusterNode>, "1"},
        {"ActivityStatisticMaxFileSize=4097", csGot<&CConfig::qwGetStatMaxFileSize>, "1048576"}, // wraps
        {"DaemonUser=", csDaemonUser, "<none>"},
        {"DaemonUser=dbuser", csDaemonUser, "dbuser"},
    };
    for (const auto& [pszLine, pfnGetter, pszExpected] : tCases) {
        SetFile("[INIT]\n"s + pszLine + "\n");
        EXPECT_EQ(csReplaceAll<char>(csToUTF8(pfnGetter(m_clConfig)), m_clDirectory.csPath(), "<D>"),
                  pszExpected)
            << pszLine;
    }
}

TEST_F(Config, TextsAreCutToTheirBuffers)
{
    const std::tuple<const char*, CGetter, std::size_t> tCases[] = {
        // length of a value of 2000 characters
        {"Name=", csGot<&CConfig::GetServerName>, 259},
        {"DBRootPath=", csGot<&CConfig::GetRootDBPath>, 260}, // with its slash
        {"DBRootPath=%%EXE%%", csGot<&CConfig::GetRootDBPath>, 260},
        {"[ClusterNode]\nClusterManager=", csGot<&CConfig::GetClusterManagerName>, 1024},
    };
    for (const auto& [pszLine, pfnGetter, nLength] : tCases) {
        SetFile("[INIT]\n"s + pszLine + std::string(2000, 'v') + "\n");
        EXPECT_EQ(pfnGetter(m_clConfig).size(), nLength) << pszLine;
    }
}

TEST_F(Config, ANamelessServerKeepsTheNameItIsGiven)
{
    SetFile("[INIT]\nName =\nB=1\n");
    const std::string csName = csToUTF8(csGot<&CConfig::GetServerName>(m_clConfig));
    EXPECT_THAT(csName, testing::MatchesRegex("Velmo_20[0-9]{6} [0-9]{6}"));
    EXPECT_EQ(csFile(), "[INIT]\nName = " + csName + "\nB=1\n");
}

TEST_F(Config, SettersChangeTheirLineOnly)
{
    const struct
    {
        const char *pszSection, *pszBefore, *pszAfter; // the line of the key
        std::function<void(CConfig&)> fnSet;
    } tCases[] = {
        {"INIT", "AccessPort=2\n", "AccessPort = 65535\n", [](CConfig& cl) { cl.SetPort(65535); }},
        {"INIT", "", "NdxCacheSize = 4294967295\n", [](CConfig& cl) { cl.SetCacheSizeMo(4294967295u); }},
        {"INIT", "", "WindowsFileCacheSize = -2\n", [](CConfig& cl) { cl.SetWindowsFileCacheSize(-2); }},
        {"INIT", "DaemonUser = x\n", "", [](CConfig& cl) { cl.SetUserDaemon(nullptr); }},
        {"INIT", "JNLRootPath = x\n", "", [](CConfig& cl) { EXPECT_NE(cl.SetJNLPath(L""), 0); }},
        {"INIT", "", "DBRootPath = %%EXE%%x\\y\n", [](CConfig& cl) { cl.SetDBRootPath(L"%%EXE%%x\\y"); }},
        {"AUTOANALYSE", "ENABLE=1\n", "ENABLE = 0\n", [](CConfig& cl) { cl.SetAutoAnalyseEnable(false); }},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszAfter);
        const std::string csHead = ":note\r\n[ZZ]\nAccessPort=1\n["s + st.pszSection + "]\r\n; kept \r\n";
        const std::string csTail = "\r\nlast line";
        SetFile(csHead + st.pszBefore + csTail);
        st.fnSet(m_clConfig);
        EXPECT_EQ(csFile(), csHead + st.pszAfter + csTail);
    }
    EXPECT_TRUE(m_clDirectory.bExists("x/y"));
}

TEST_F(Config, AFailedWriteThrowsWhatTheSystemSaid)
{
    m_clDirectory.csMakeDirectory("DXConf.ini"); // cannot be written, not even by root
    EXPECT_EQ(nThrown([this] { m_clConfig.SetPort(1); }), EISDIR);
    errno = 0;
    EXPECT_EQ(m_clConfig.SetClusterLastRunNumber(1), 0);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_TRUE(csGot<&CConfig::GetServerName>(m_clConfig).starts_with(L"Velmo_")) << "without keeping it";
}

TEST_F(Config, ADatabaseRootThatCannotBeMadeLeavesTheFileAlone)
{
    SetFile("[INIT]\nDBRootPath = /old\n");
    m_clDirectory.csWrite("file", "");
    const std::pair<const wchar_t*, int> tCases[] = {
        {L"%%EXE%%file/below", ENOTDIR}, {L"%%EXE%%file", EEXIST}, {L"", ENOENT}, {nullptr, ENOENT}};
    for (const auto& [pszPath, nErrno] : tCases) {
        EXPECT_EQ(nThrown([&, psz = pszPath] { m_clConfig.SetDBRootPath(psz); }), nErrno);
    }
    EXPECT_EQ(csFile(), "[INIT]\nDBRootPath = /old\n");
}

TEST_F(Config, WithoutADirectoryTheExecutablesCounts)
{
    const std::wstring csOwn = GetModuleFileNameW();
    EXPECT_EQ(csGot<&CConfig::GetLogFileName>(CConfig(nullptr)),
              csOwn.substr(0, csOwn.rfind(L'/') + 1) + L"EventLog.txt");
    EXPECT_EQ(csGot<&CConfig::GetLogFileName>(CConfig(L"\\a\\b")), L"/a/b/EventLog.txt");
}
