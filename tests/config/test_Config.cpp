#include "config/Config.h"
#include "support/Conversion.h"
#include "support/XError.h"
#include "support/XYString.h"
#include "tools/PrivateWorld.h"
#include "tools/TempDir.h"

#include <cerrno>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <type_traits>

namespace {
using namespace std::string_literals;
using CGetter = std::wstring (*)(const CConfig&);

/// What a getter of a text, or of a number, gives.
template <auto pfnGetter>
std::wstring csGot(const CConfig& clConfig)
{
    if constexpr (std::is_invocable_v<decltype(pfnGetter), const CConfig&>) {
        return std::to_wstring(static_cast<long long>((clConfig.*pfnGetter)()));
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

TEST_F(Config, NumbersTextsAndKeywordsFollowTheFileByTheirOwnRules)
{
    const std::tuple<const char*, CGetter, const char*> tCases[] = {
        // a line of the section INIT, and what is got, with <D> for the directory
        {"", csGot<&CConfig::nGetPort>, "4900"},
        {"AccessPort=-1", csGot<&CConfig::nGetPort>, "-1"},
        {"AccessPort=4294967295", csGot<&CConfig::nGetPort>, "-1"},
        {"AccessPort=0x10\n[Other]\nAccessPort=9", csGot<&CConfig::nGetPort>, "0"},
        {"", csGot<&CConfig::bRestartOnFailed>, "1"},
        {"[MANAGER]\nRestartOnFailed=2", csGot<&CConfig::bRestartOnFailed>, "2"},
        {"", csGot<&CConfig::dwCheckPeriod>, "600"},
        {"[MANAGER]\nCheckPeriod=-1", csGot<&CConfig::dwCheckPeriod>, "4294967295"},
        {"[AUTOANALYSE]\nENABLE=-1", csGot<&CConfig::bGetAutoAnalyseEnable>, "1"},
        {"[ClusterNode]\nCluster=1", csGot<&CConfig::bClusterNode>, "1"},
        {"[ClusterNode]\nCluster=2", csGot<&CConfig::bClusterNode>, "0"},
        {"ActivityStatisticPeriod=-1", csGot<&CConfig::wGetStatPeriod>, "65535"},
        {"ActivityStatisticMaxFileSize=4097", csGot<&CConfig::qwGetStatMaxFileSize>, "1048576"}, // wraps
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
    const std::tuple<const char*, const char*, std::function<void(CConfig&)>> tCases[] = {
        // the line before and after
        {"AccessPort=2\n", "AccessPort = 65535\n", [](CConfig& cl) { cl.SetPort(65535); }},
        {"", "NdxCacheSize = 4294967295\n", [](CConfig& cl) { cl.SetCacheSizeMo(4294967295u); }},
        {"", "WindowsFileCacheSize = -2\n", [](CConfig& cl) { cl.SetWindowsFileCacheSize(-2); }},
        {"DaemonUser = x\n", "", [](CConfig& cl) { cl.SetUserDaemon(nullptr); }},
        {"JNLRootPath = x\n", "", [](CConfig& cl) { EXPECT_NE(cl.SetJNLPath(L""), 0); }},
        {"", "DBRootPath = %%EXE%%x\\y\n", [](CConfig& cl) { cl.SetDBRootPath(L"%%EXE%%x\\y"); }},
    };
    for (const auto& [pszBefore, pszAfter, fnSet] : tCases) {
        const std::string csHead = ":note\r\n[ZZ]\nAccessPort=1\n[INIT]\r\n; kept \r\n";
        const std::string csTail = "\r\nlast line";
        SetFile(csHead + pszBefore + csTail);
        fnSet(m_clConfig);
        EXPECT_EQ(csFile(), csHead + pszAfter + csTail);
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
