#include "config/Config.h"
#include "config/WinApi.h"
#include "support/Conversion.h"
#include "support/WinApi.h"
#include "support/XError.h"
#include "tools/Elsewhere.h"
#include "tools/PrivateWorld.h"
#include "tools/TempDir.h"

#include <cerrno>
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
        return csBuffer.c_str();
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

TEST_F(Config, NumbersFollowTheFileAndAreOfTheirType)
{
    using CExpected = std::array<long, 3>; // for "2", "-1" and "4294967295"
    constexpr CExpected tSigned{2, -1, -1};
    constexpr CExpected tUnsigned{2, 4294967295, 4294967295};
    constexpr CExpected tMegabytes{2 << 20, 4293918720, 4293918720}; // wraps at 32 bits
    constexpr CExpected tYes{1, 1, 1};
    const struct
    {
        const char *pszSection, *pszKey;
        std::function<long(const CConfig&)> fnGet;
        long nDefault;
        CExpected tExpected;
    } tCases[] = {
        {"INIT", "LogConnexion", &CConfig::bLogConnexion, 0, tSigned},
        {"INIT", "MoreThan2Go", &CConfig::bMoreThan2Go, 0, tSigned},
        {"INIT", "AccessPort", &CConfig::nGetPort, 4900, tSigned},
        {"INIT", "ZLDebugPort", &CConfig::nGetDebuggerPort, 27281, tSigned},
        {"INIT", "PreVersion", &CConfig::nGetPreVersion, 0, tSigned},
        {"INIT", "NdxCacheSize", &CConfig::dwGetCacheSizeMo, 100, tUnsigned},
        {"INIT", "CacheMaxUnusedFiles", &CConfig::nGetCacheMaximumUnusedTables, 128, tUnsigned},
        {"INIT", "CacheFilesPrefetch", &CConfig::bGetCacheTablesPrefetch, 1, tYes},
        {"INIT", "ReplicAllowIdAuto4", &CConfig::bAllowReplicIdAuto4, 0, tYes},
        {"INIT", "WindowsFileCacheSize", &CConfig::nGetWindowsFileCacheSize, -1, tSigned},
        {"INIT", "WithCoreDump", &CConfig::bWithCoreDump, 0, tSigned},
        {"INIT", "ActivityStatisticPeriod", &CConfig::wGetStatPeriod, 0, {2, 65535, 65535}},
        {"INIT", "ActivityStatisticMaxFileSize", &CConfig::qwGetStatMaxFileSize, 500 << 20, tMegabytes},
        {"INIT", "DumpLevel", &CConfig::dwGetCrashDumpLevel, 0, tUnsigned},
        {"INIT", "KeySearch", &CConfig::bQuerySuggestKey, 1, tYes},
        {"MANAGER", "RestartOnFailed", &CConfig::bRestartOnFailed, 1, tSigned},
        {"MANAGER", "CheckPeriod", &CConfig::dwCheckPeriod, 600, tUnsigned},
        {"ClusterNode", "Cluster", &CConfig::bClusterNode, 0, {0, 0, 0}},
        {"ClusterNode", "NodeRunning", &CConfig::bGetClusterLastRunCrashed, 0, tYes},
        {"ClusterNode", "LastRun", &CConfig::dwGetClusterLastRunNumber, 0, tUnsigned},
        {"AUTOANALYSE", "ENABLE", &CConfig::bGetAutoAnalyseEnable, 1, tYes},
        {"AUTOANALYSE", "WAIT", &CConfig::dwGetAutoAnalyseWait, 10, tUnsigned},
        {"AUTOANALYSE", "TIME_BETWEEN_SCAN", &CConfig::dwGetAutoAnalyseTimeBetweenScan, 600000, tUnsigned},
        {"AUTOANALYSE", "TIME_BETWEEN_CALC", &CConfig::dwGetAutoAnalyseTimeBetweenStat, 604800, tUnsigned},
        {"AUTOANALYSE", "TIME_AFTER_CREATION", &CConfig::dwGetAutoAnalyseTimeAfterCreation, 86400, tUnsigned},
        {"AUTOANALYSE", "MINIMUM_WRITE", &CConfig::dwGetAutoAnalyseMinWrite, 1000, tUnsigned},
        {"AUTOANALYSE", "PERCENT_WRITE", &CConfig::dwGetAutoAnalysePercentWrite, 10, tUnsigned},
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
        EXPECT_EQ((CExpected{nGet("2"), nGet("-1"), nGet("4294967295")}), st.tExpected);
        EXPECT_EQ(nGet(""), 0);
        EXPECT_EQ(nGet("0x10"), 0);
    }
    SetFile("[INIT]\nActivityStatisticMaxFileSize=4096\nActivityStatisticPeriod=65536\n[ClusterNode]"
            "\nCluster=1\n");
    EXPECT_EQ(m_clConfig.qwGetStatMaxFileSize(), 0u);
    EXPECT_EQ(m_clConfig.wGetStatPeriod(), 65535);
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
        {"DBRootPath=%%COMMONAPPDATA%%//DB", &CConfig::GetRootDBPath, L"/var/lib/DB/"},
        {"DBRootPath=%%COMMOxxxxxxxxx>DB", &CConfig::GetRootDBPath, L"/var/lib/DB/"}, // 7 characters decide
        {"DBRootPath=%%COMMO", &CConfig::GetRootDBPath, L"/var/lib/"},
        {"DBRootPath=%%exe%%DB", &CConfig::GetRootDBPath, L"%%exe%%DB/"},
        {"DBRootPath=/x%%EXE%%", &CConfig::GetRootDBPath, L"/x%%EXE%%/"},
        {"DBRootPath=%%EXE%%", &CConfig::GetRootDBPath, L"<D>/"},
        {"DBRootPath=", &CConfig::GetRootDBPath, L""},
        {"", &CConfig::GetStatDirectory, L"<D>//ActivityStatistics/"},
        {"", &CConfig::GetStatDirectoryConfig, L"%%EXE%%\\ActivityStatistics"},
        {"", &CConfig::GetCrashDumpDirectory, L"<D>/Dump/"},
        {"DumpPath=C\\d", &CConfig::GetCrashDumpDirectory, L"C/d/"},
        {"", &CConfig::GetJNLPath, L"<D>/DB/"},
        {"", &CConfig::GetJNLPathConfig, L""},
        {"DBRootPath=/db", &CConfig::GetJNLBackupPath, L"/db/"},
        {"JNLRootPath=%%EXE%%j", &CConfig::GetJNLPath, L"<D>/j/"},
        {"JNLRootPath=/j", &CConfig::GetJNLBackupPath, L"/j/"},
        {"JNLRootPath=/j\nJNLBackupRootPath=/b", &CConfig::GetJNLBackupPath, L"/b/"},
        {"JNLBackupRootPath=/b\\", &CConfig::GetJNLBackupPathConfig, L"/b\\"},
        {"Name=S 1", &CConfig::GetServerName, L"S 1"},
        {"", &CConfig::GetAfterUpdate, L""},
        {"AfterUpdateReport=done", &CConfig::GetAfterUpdate, L"done"},
        {"[ClusterNode]\nClusterManager=host\n", &CConfig::GetClusterManagerName, L"host"},
        {"", &CConfig::GetClusterManagerName, L""},
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
        {"DBRootPath", &CConfig::GetRootDBPathConfig, 259},
        {"DBRootPath", &CConfig::GetRootDBPath, 260}, // with its slash
        {"AfterUpdateReport", &CConfig::GetAfterUpdate, 499},
        {"ClusterManager", &CConfig::GetClusterManagerName, 1024},
        {"NodePassword", &CConfig::GetClusterPassword, 259},
    };
    for (const auto& [pszKey, pfnGetter, nLength] : tCases) {
        const std::string csLine = pszKey + "="s + std::string(2000, 'v') + "\n";
        SetFile("[INIT]\n" + csLine + "[ClusterNode]\n" + csLine);
        EXPECT_EQ(csText(pfnGetter).size(), nLength) << pszKey;
    }
    SetFile("[INIT]\nDBRootPath=%%EXE%%" + std::string(2000, 'v') + "\n");
    EXPECT_EQ(csText(&CConfig::GetRootDBPath).size(), 260u);
    EXPECT_EQ(csText(&CConfig::GetRootDBPath).back(), L'/');
}

TEST_F(Config, KeywordsAreRecognised)
{
    const auto nMode = [](const CConfig& cl) { return static_cast<int>(cl.eGetLogMode()); };
    const auto nSockets = [](const CConfig& cl) { return cl.nGetsocketOptions(); };
    const auto nNative = [](const CConfig& cl) { return cl.bIsInstallerNatif() ? 1 : 0; };
    const auto nUser = [](const CConfig& cl) {
        std::wstring csUser(300, L'#');
        return cl.bGetUserDaemon(csUser.data()) ? static_cast<int>(csUser.find(L'\0')) : -1;
    };
    const std::tuple<const char*, int (*)(const CConfig&), int> tCases[] = {
        {"", nMode, 1},
        {"ErrorLogMode=FILE", nMode, 2},
        {"ErrorLogMode=file", nMode, 0},
        {"ErrorLogMode=SYSTEM", nMode, 1},
        {"ErrorLogMode=SYSTEM ", nMode, 0},
        {"ErrorLogMode=", nMode, 0},
        {"", nSockets, 0},
        {"SocketOptions=ipv6_only", nSockets, 2},
        {"SocketOptions=IPV6_ONLY,IPV4_ONLY", nSockets, 1},
        {"SocketOptions=IPV4_ONLY,IPV6_IPV4", nSockets, 0},
        {"SocketOptions=IPV4_ONLY,IPV4_IPV6,what", nSockets, 0},
        {"SocketOptions=what,IPV6_ONLY,,else", nSockets, 2},
        {"SocketOptions=IPV6_ONLY, IPV4_ONLY", nSockets, 2}, // the blank belongs to the word
        {"SocketOptions=what", nSockets, 0},
        {"", nNative, 0},
        {"Installer=NatiF", nNative, 1},
        {"Installer=natif2", nNative, 0},
        {"", nUser, -1},
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
        {"INIT", "", "MoreThan2Go = 4294967295\n", [](CConfig& cl) { cl.SetMoreThan2Go(4294967295u); }},
        {"INIT", "AccessPort=2\n", "AccessPort = 65535\n", [](CConfig& cl) { cl.SetPort(65535); }},
        {"INIT", "", "ZLDebugPort = 0\n", [](CConfig& cl) { cl.SetDebuggerPort(0); }},
        {"INIT", "", "NdxCacheSize = 4294967295\n", [](CConfig& cl) { cl.SetCacheSizeMo(4294967295u); }},
        {"INIT", "", "CacheMaxUnusedFiles = 7\n", [](CConfig& cl) { cl.SetCacheMaximumUnusedTables(7); }},
        {"INIT", "", "WindowsFileCacheSize = -2\n", [](CConfig& cl) { cl.SetWindowsFileCacheSize(-2); }},
        {"INIT", "", "DaemonUser = db user\n", [](CConfig& cl) { cl.SetUserDaemon(L"db user"); }},
        {"INIT", "DaemonUser = x\n", "", [](CConfig& cl) { cl.SetUserDaemon(nullptr); }},
        {"INIT", "", "ActivityStatisticPeriod = 65535\n", [](CConfig& cl) { cl.SetStatPeriod(65535); }},
        {"INIT", "", "ActivityStatisticMaxFileSize = 4096\n",
         [](CConfig& cl) { cl.SetStatMaxFileSizeMO(4096); }},
        {"INIT", "", "ActivityStatisticPath = %%EXE%%s\n",
         [](CConfig& cl) { cl.SetStatDirectory(L"%%EXE%%s"); }},
        {"INIT", "", "AfterUpdateReport = ok\n", [](CConfig& cl) { cl.WriteAfterUpdate(L"ok"); }},
        {"INIT", "AfterUpdateReport = x\n", "", [](CConfig& cl) { EXPECT_NE(cl.ClearAfterUpdate(), 0); }},
        {"INIT", "", "JNLRootPath = /j\n", [](CConfig& cl) { EXPECT_NE(cl.SetJNLPath(L"/j"), 0); }},
        {"INIT", "JNLRootPath = x\n", "", [](CConfig& cl) { EXPECT_NE(cl.SetJNLPath(L""), 0); }},
        {"INIT", "", "JNLBackupRootPath = /b\n",
         [](CConfig& cl) { EXPECT_NE(cl.SetJNLBackupPath(L"/b"), 0); }},
        {"INIT", "JNLBackupRootPath=x\n", "",
         [](CConfig& cl) { EXPECT_NE(cl.SetJNLBackupPath(nullptr), 0); }},
        {"INIT", "", "DBRootPath = %%EXE%%x\\y\n", [](CConfig& cl) { cl.SetDBRootPath(L"%%EXE%%x\\y"); }},
        {"ClusterNode", "", "NodeRunning = 1\n",
         [](CConfig& cl) { EXPECT_NE(cl.SetClusterRunning(true), 0); }},
        {"ClusterNode", "", "NodeRunning = 0\n",
         [](CConfig& cl) { EXPECT_NE(cl.SetClusterRunning(false), 0); }},
        {"ClusterNode", "", "LastRun = 4294967295\n",
         [](CConfig& cl) { EXPECT_NE(cl.SetClusterLastRunNumber(4294967295u), 0); }},
        {"AUTOANALYSE", "", "ENABLE = 1\n", [](CConfig& cl) { cl.SetAutoAnalyseEnable(true); }},
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
    EXPECT_EQ(clError.nGetUserError(), 3859u);
    EXPECT_FALSE(clError.csGetMessage().empty());
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

TEST_F(Config, AWorkerThreadsSmallStackIsEnough)
{
    SetFile("[INIT]\n" + std::string(300000, 'x') + "\nAccessPort=12\n");
    OnWorker([this] {
        m_clConfig.SetPort(13);
        m_clConfig.SetDBRootPath(L"%%EXE%%db");
    });
    EXPECT_EQ(m_clConfig.nGetPort(), 13);
}
