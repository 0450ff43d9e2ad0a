#include "config/Config.h"
#include "config/WinApi.h"
#include "support/Conversion.h"
#include "support/WinApi.h"
#include "support/XError.h"
#include "tools/PrivateWorld.h"
#include "tools/TempDir.h"

#include <array>
#include <cerrno>
#include <cwchar>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {
using namespace std::string_literals;
using PFNText = void (CConfig::*)(wchar_t*) const;

class Config : public testing::Test
{
protected:
    const bool m_bPrivate = bPrivateWorld(); // before the directory is made: it brings its own /tmp
    const CTempDir m_clDirectory;
    CConfig m_clConfig{m_clDirectory.csWidePath().c_str()};

    void SetFile(const std::string& csBytes) const { m_clDirectory.csWrite("DXConf.ini", csBytes); }
    void RemoveFile() const { ::unlink(m_clDirectory.csPath("DXConf.ini").c_str()); }
    std::string csFile() const { return m_clDirectory.csRead("DXConf.ini"); }
    std::wstring csText(PFNText pfnGetter) const
    {
        std::wstring csBuffer(1100, L'#');
        (m_clConfig.*pfnGetter)(csBuffer.data());
        return csBuffer.data();
    }
    /// What a setter throws.
    static CXError clThrown(const std::function<void()>& fnSet)
    {
        try {
            fnSet();
        } catch (const CXError& clError) {
            return clError;
        }
        ADD_FAILURE() << "nothing thrown";
        return {};
    }
    /// Text with "<D>" for the directory, without an ending slash.
    std::wstring csHere(const std::wstring& csText) const
    {
        const std::size_t n = csText.find(L"<D>");
        return n == std::wstring::npos ? csText
                                       : std::wstring(csText).replace(n, 3, m_clDirectory.csWidePath());
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
        RemoveFile();
        EXPECT_EQ(st.fnGet(m_clConfig), st.nDefault);
        const auto nGet = [&](const char* pszValue) {
            SetFile("[Other]\n"s + st.pszKey + "=9\n[" + st.pszSection + "]\n" + st.pszKey + " = " +
                    pszValue + "\n");
            return st.fnGet(m_clConfig);
        };
        EXPECT_THAT((std::array{nGet("2"), nGet("-1"), nGet("4294967295"), nGet("0x10")}),
                    testing::ElementsAreArray(st.tExpected));
    }
    SetFile("[INIT]\nActivityStatisticMaxFileSize=4097\n[ClusterNode]\nCluster=1\n");
    EXPECT_EQ(m_clConfig.qwGetStatMaxFileSize(), 1u << 20); // wraps at 32 bits
    EXPECT_TRUE(m_clConfig.bClusterNode());
}

TEST_F(Config, TextsFollowTheFileAndTheirMacros)
{
    const std::tuple<const char*, PFNText, const wchar_t*> tCases[] = {
        {"", &CConfig::GetLogFileName, L"<D>/EventLog.txt"},
        {"ErrorLogFile=%%EXE%%//a\\b", &CConfig::GetLogFileName, L"<D>/a\\b"},
        {"", &CConfig::GetRootDBPath, L"<D>/DB/"},
        {"", &CConfig::GetRootDBPathConfig, L"%%EXE%%DB\\"},
        {"DBRootPath=%%COMMONAPPDATA%%DB", &CConfig::GetRootDBPath, L"/var/lib/DB/"},
        {"DBRootPath=%%COMMOxxxxxxxxx>DB", &CConfig::GetRootDBPath, L"/var/lib/DB/"}, // 7 characters decide
        {"DBRootPath=%%COMMO", &CConfig::GetRootDBPath, L"/var/lib/"},
        {"DBRootPath=%%exe%%DB", &CConfig::GetRootDBPath, L"%%exe%%DB/"},
        {"DBRootPath=/x%%EXE%%", &CConfig::GetRootDBPath, L"/x%%EXE%%/"},
        {"DBRootPath=", &CConfig::GetRootDBPath, L""},
        {"", &CConfig::GetStatDirectory, L"<D>//ActivityStatistics/"},
        {"", &CConfig::GetCrashDumpDirectory, L"<D>/Dump/"},
        {"DumpPath=C\\d", &CConfig::GetCrashDumpDirectory, L"C/d/"},
        {"", &CConfig::GetJNLPath, L"<D>/DB/"},
        {"DBRootPath=/db", &CConfig::GetJNLBackupPath, L"/db/"},
        {"JNLRootPath=%%EXE%%j", &CConfig::GetJNLPath, L"<D>/j/"},
        {"JNLRootPath=/j", &CConfig::GetJNLBackupPath, L"/j/"},
        {"JNLRootPath=/j\nJNLBackupRootPath=/b", &CConfig::GetJNLBackupPath, L"/b/"},
        {"[ClusterNode]\nClusterManager=host\n", &CConfig::GetClusterManagerName, L"host"},
        {"[ClusterNode]\nNodePassword= s ;\n", &CConfig::GetClusterPassword, L"s ;"},
    };
    for (const auto& [pszLine, pfnGetter, pszExpected] : tCases) {
        SCOPED_TRACE(pszLine);
        SetFile("[INIT]\n"s + pszLine + "\n");
        EXPECT_EQ(csText(pfnGetter), csHere(pszExpected));
    }
}

TEST_F(Config, TextsAreCutToTheirBuffers)
{
    const std::tuple<const char*, PFNText, std::size_t> tCases[] = {
        // length of a value of 2000 characters
        {"Name", &CConfig::GetServerName, 259},
        {"DBRootPath", &CConfig::GetRootDBPath, 260}, // with its slash
        {"AfterUpdateReport", &CConfig::GetAfterUpdate, 499},
        {"ClusterManager", &CConfig::GetClusterManagerName, 1024},
    };
    for (const auto& [pszKey, pfnGetter, nLength] : tCases) {
        const std::string csLine = pszKey + "="s + std::string(2000, 'v') + "\n";
        SetFile("[INIT]\n" + csLine + "[ClusterNode]\n" + csLine);
        EXPECT_EQ(csText(pfnGetter).size(), nLength) << pszKey;
    }
    SetFile("[INIT]\nDBRootPath=%%EXE%%" + std::string(2000, 'v') + "\n");
    EXPECT_EQ(csText(&CConfig::GetRootDBPath).size(), 260u);
}

TEST_F(Config, KeywordsAreRecognised)
{
    const auto nMode = [](const CConfig& cl) { return static_cast<int>(cl.eGetLogMode()); };
    const auto nSockets = [](const CConfig& cl) { return cl.nGetsocketOptions(); };
    const auto nNative = [](const CConfig& cl) { return int{cl.bIsInstallerNatif()}; };
    const auto nUser = [](const CConfig& cl) {
        wchar_t szUser[300];
        return cl.bGetUserDaemon(szUser) ? static_cast<int>(std::wcslen(szUser)) : -1;
    };
    const std::tuple<const char*, int (*)(const CConfig&), int> tCases[] = {
        {"", nMode, 1},
        {"ErrorLogMode=FILE", nMode, 2},
        {"ErrorLogMode=file", nMode, 0},
        {"ErrorLogMode=SYSTEM", nMode, 1},
        {"ErrorLogMode=SYSTEM ", nMode, 0},
        {"", nSockets, 0},
        {"SocketOptions=IPV6_ONLY,IPV4_ONLY", nSockets, 1},
        {"SocketOptions=IPV4_ONLY,IPV4_IPV6,what", nSockets, 0},
        {"SocketOptions=what,ipv6_only,,else", nSockets, 2},
        {"SocketOptions=IPV6_ONLY, IPV4_ONLY", nSockets, 2}, // the blank belongs to the word
        {"Installer=NatiF", nNative, 1},
        {"Installer=natif2", nNative, 0},
        {"DaemonUser=", nUser, -1},
        {"DaemonUser=dbuser", nUser, 6},
    };
    for (const auto& [pszLine, pfnGetter, nExpected] : tCases) {
        SCOPED_TRACE(pszLine);
        SetFile("[INIT]\n"s + pszLine + "\n");
        EXPECT_EQ(pfnGetter(m_clConfig), nExpected);
    }
}

TEST_F(Config, ANamelessServerKeepsTheNameItIsGiven)
{
    SetFile("[INIT]\nName =\nB=1\n");
    const std::wstring csName = csText(&CConfig::GetServerName);
    EXPECT_THAT(csToUTF8(csName), testing::MatchesRegex("Velmo_20[0-9]{6} [0-9]{6}"));
    EXPECT_EQ(csFile(), "[INIT]\nName = " + csToUTF8(csName) + "\nB=1\n");
    SetFile(csFile());
    EXPECT_EQ(csText(&CConfig::GetServerName), csName);
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
        {"INIT", "", "DaemonUser = db user\n", [](CConfig& cl) { cl.SetUserDaemon(L"db user"); }},
        {"INIT", "DaemonUser = x\n", "", [](CConfig& cl) { cl.SetUserDaemon(nullptr); }},
        {"INIT", "JNLRootPath = x\n", "", [](CConfig& cl) { EXPECT_NE(cl.SetJNLPath(L""), 0); }},
        {"INIT", "", "DBRootPath = %%EXE%%x\\y\n", [](CConfig& cl) { cl.SetDBRootPath(L"%%EXE%%x\\y"); }},
        {"ClusterNode", "", "LastRun = 4294967295\n",
         [](CConfig& cl) { EXPECT_NE(cl.SetClusterLastRunNumber(4294967295u), 0); }},
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
    const CXError clError = clThrown([this] { m_clConfig.SetPort(1); });
    EXPECT_EQ(clError.nGetSystemError(), EISDIR);
    EXPECT_FALSE(clError.csGetMessage().empty());
    EXPECT_EQ(clError.StringDump(CXError::INFO_MODULE), L"Module VelmoManager, message 3859");
    EXPECT_THAT(csToUTF8(clError.StringDump(CXError::INFO_DEBUG)),
                testing::HasSubstr("IEvelmomanager=1.1\r\nModule=<velmomanager>\r\nVersion=<24.0.6.0>"));
    errno = 0;
    EXPECT_EQ(m_clConfig.SetClusterLastRunNumber(1), 0);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_THAT(csToUTF8(csText(&CConfig::GetServerName)),
                testing::StartsWith("Velmo_")); // without keeping it
}

TEST_F(Config, ADatabaseRootThatCannotBeMadeLeavesTheFileAlone)
{
    SetFile("[INIT]\nDBRootPath = /old\n");
    m_clDirectory.csWrite("file", "");
    const std::pair<const wchar_t*, int> tCases[] = {
        {L"%%EXE%%file/below", ENOTDIR}, {L"%%EXE%%file", EEXIST}, {L"", ENOENT}, {nullptr, ENOENT}};
    for (const auto& [pszPath, nErrno] : tCases) {
        EXPECT_EQ(clThrown([&, psz = pszPath] { m_clConfig.SetDBRootPath(psz); }).nGetSystemError(), nErrno);
    }
    EXPECT_EQ(csFile(), "[INIT]\nDBRootPath = /old\n");
}

TEST_F(Config, WithoutADirectoryTheExecutablesCounts)
{
    const std::wstring csOwn = GetModuleFileNameW();
    std::wstring csBuffer(CConfig::s_nPathBuffer, L'#');
    CConfig(nullptr).GetLogFileName(csBuffer.data());
    EXPECT_EQ(csBuffer.c_str(), csOwn.substr(0, csOwn.rfind(L'/') + 1) + L"EventLog.txt");
    CConfig(L"\\a\\b").GetLogFileName(csBuffer.data());
    EXPECT_STREQ(csBuffer.c_str(), L"/a/b/EventLog.txt");
}
