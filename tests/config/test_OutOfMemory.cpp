// Settings when each allocation in turn finds no memory. Reading: the value or the default; writing: an
// error; nothing is thrown.

#include "config/Config.h"
#include "config/WinApi.h"
#include "support/XYString.h"
#include "tools/FailingNew.h"
#include "tools/TempDir.h"

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>

namespace {
using CGetter = std::function<void(const CConfig&, wchar_t*)>;

/// Leaves the text that a getter gives in the buffer.
template <auto pfnGetter>
void Text(const CConfig& clConfig, wchar_t* pszBuffer)
{
    (clConfig.*pfnGetter)(pszBuffer);
}
/// The same of a number.
template <auto pfnGetter>
void Number(const CConfig& clConfig, wchar_t* pszBuffer)
{
    pszBuffer[0] = static_cast<wchar_t>((clConfig.*pfnGetter)());
    pszBuffer[1] = L'\0';
}
} // namespace

TEST(OutOfMemory, AGetterGivesTheValueOrTheDefault)
{
    const CTempDir clFull;
    const CTempDir clEmpty;
    clFull.csWrite(
        "DXConf.ini",
        "[INIT]\nName=n\nAccessPort=7\nErrorLogMode=FILE\nSocketOptions=IPV6_ONLY\nInstaller=natif\n"
        "DBRootPath=%%EXE%%a/folder/whose/name/is/long/enough/for/the/heap\nErrorLogFile=%%COMMONAPPDATA%%x\n"
        "[ClusterNode]\nClusterManager=boss\n");
    const CConfig clConfig(clFull.csWidePath().c_str());
    const CConfig clDefaults(clEmpty.csWidePath().c_str());
    const CGetter tGetters[] = {
        &Text<&CConfig::GetLogFileName>,        &Text<&CConfig::GetJNLBackupPath>,
        &Text<&CConfig::GetClusterManagerName>, &Number<&CConfig::nGetPort>,
        &Number<&CConfig::eGetLogMode>,         &Number<&CConfig::nGetsocketOptions>,
        &Number<&CConfig::bIsInstallerNatif>,   &Number<&CConfig::bRestartOnFailed>,
    };
    for (const CGetter& fnGet : tGetters) {
        SCOPED_TRACE(&fnGet - tGetters);
        wchar_t szGot[1100];
        fnGet(clConfig, szGot);
        const std::wstring csValue = szGot;
        fnGet(clDefaults, szGot);
        const std::wstring csDefault =
            csReplaceAll<wchar_t>(szGot, clEmpty.csWidePath(), clFull.csWidePath());
        StarveInTurn([&] { fnGet(clConfig, szGot); },
                     [&](bool bFed) { EXPECT_TRUE(szGot == csValue || (!bFed && szGot == csDefault)); });
    }
}

TEST(OutOfMemory, AWriteFailsAndThrowsNothing)
{
    const CTempDir clFolder;
    const std::string csFile = clFolder.csWrite("long-enough-for-the-heap.ini", "");
    const auto nWrite = [&] { return WritePrivateProfileStringA("s", "k", "v", csFile.c_str()); };
    // Stops at the first allocation: the file in the home of whoever runs this is not for tests.
    const auto nWriteHome = [] { return g_nAllocationsLeft == 0 ? WriteProfileString(L"s", L"k", L"v") : 1; };
    for (const std::function<int()>& fnWrite : {std::function<int()>(nWrite), {nWriteHome}}) {
        int nResult = 0;
        int nErrno = 0;
        const auto fnDo = [&] {
            errno = 0;
            nResult = fnWrite();
            nErrno = errno;
        };
        StarveInTurn(fnDo, [&](bool bFed) { EXPECT_TRUE(nResult != 0 || (!bFed && nErrno == ENOMEM)); });
    }
}
