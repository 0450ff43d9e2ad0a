// Settings when each allocation in turn finds no memory. Nothing is thrown.

#include "config/Config.h"
#include "config/WinApi.h"
#include "tools/FailingNew.h"
#include "tools/TempDir.h"

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>

TEST(OutOfMemory, AReadGivesTheValueOrTheDefaultAndAWriteFails)
{
    const CTempDir clFolder;
    const std::string csFile = clFolder.csWrite(
        "DXConf.ini", "[INIT]\nAccessPort=7\nJNLBackupRootPath=/a/folder/too/long/for/the/object\n");
    const CConfig clConfig(clFolder.csWidePath().c_str());
    wchar_t szPath[1100];
    clConfig.GetJNLBackupPath(szPath);
    const std::wstring csPath(szPath);
    const std::function<bool()> tCalls[] = {
        // whether it did what it does with memory
        [&] { return clConfig.nGetPort() == 7; },
        [&] { return clConfig.GetJNLBackupPath(szPath), szPath == csPath; },
        [&] { return WritePrivateProfileStringA("s", "k", "v", csFile.c_str()) != 0 || errno != ENOMEM; },
        // Stops at the first allocation: the file in the home of whoever runs this is not for tests.
        [] {
            return g_nAllocationsLeft != 0 || WriteProfileString(L"s", L"k", L"v") != 0 || errno != ENOMEM;
        },
    };
    for (const auto& fnCall : tCalls) {
        int nFailed = 0;
        for (bool bDone = false; !bDone && nFailed < 100; nFailed += bDone ? 0 : 1) {
            g_nAllocationsLeft = nFailed;
            EXPECT_NO_THROW(bDone = fnCall());
            g_nAllocationsLeft = -1;
        }
        EXPECT_TRUE(nFailed > 0 && nFailed < 100) << &fnCall - tCalls << ": " << nFailed;
    }
}
