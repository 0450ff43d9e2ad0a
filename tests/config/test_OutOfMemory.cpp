// Settings when each allocation in turn finds no memory. Reading: the value or the default; writing: an
// error; nothing is thrown.

#include "config/Config.h"
#include "config/WinApi.h"
#include "tools/FailingNew.h"
#include "tools/TempDir.h"

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <new>

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
        wchar_t szValue[1100];
        wchar_t szDefault[1100];
        wchar_t szGot[1100];
        fnGet(clConfig, szValue);
        fnGet(clDefaults, szDefault);
        std::wstring csDefault(szDefault); // of the full directory
        if (const std::size_t n = csDefault.find(clEmpty.csWidePath()); n != std::wstring::npos) {
            csDefault.replace(n, clEmpty.csWidePath().size(), clFull.csWidePath());
        }
        bool bValue = false;
        for (int nAllocations = 0; nAllocations < 100 && !bValue; ++nAllocations) {
            g_nAllocationsLeft = nAllocations;
            EXPECT_NO_THROW(fnGet(clConfig, szGot));
            bValue = g_nAllocationsLeft != 0; // nothing was refused
            g_nAllocationsLeft = -1;
            EXPECT_TRUE(szGot == std::wstring(szValue) || (!bValue && szGot == csDefault)) << nAllocations;
        }
        EXPECT_TRUE(bValue);
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
        bool bDone = false;
        for (int nAllocations = 0; nAllocations < 100 && !bDone; ++nAllocations) {
            g_nAllocationsLeft = nAllocations;
            errno = 0;
            bool bThrown = false;
            try {
                bDone = fnWrite() != 0;
            } catch (const std::bad_alloc&) {
                bThrown = true;
            }
            g_nAllocationsLeft = -1; // what gtest says takes memory, too
            EXPECT_TRUE(!bThrown && (bDone || errno == ENOMEM)) << nAllocations;
        }
        EXPECT_TRUE(bDone);
    }
}
