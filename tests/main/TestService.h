#pragma once

#include "main/ServiceUnix.h"
#include "support/ZTSem.h"
#include "tools/Wait.h"

#include <cwchar>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

/// Where the services of the tests note what happens to them, one word each.
inline constexpr char g_szEvents[] = "/tmp/events";

inline std::string csReadFile(const std::string& csPath)
{
    std::ifstream clFile(csPath);
    return {std::istreambuf_iterator<char>(clFile), {}};
}

/// A small real service: waits for Stop and notes what happens.
class CTestService : public CServiceImp
{
public:
    CTestService() { m_clEnd.Init(0, 1); }

    void MainLoop() override
    {
        m_clEnd.Wait();
        s_Note("ended ");
    }
    ILogger* pclGetLogger() override { return &m_clLogger; }
    bool bStart() override
    {
        s_Note("started ");
        return m_fnStart();
    }
    void Stop() override
    {
        s_Note("stop ");
        m_clEnd.__Post(0);
    }
    bool vbWithCoreDump() override { return m_bCoreDump; }
    bool vbGetServiceUser(wchar_t* pszUser) override
    {
        return std::wcscpy(pszUser, m_csUser.c_str())[0] != 0;
    }
    bool vbGetOwnDirectory(wchar_t* pszDirectory) override
    {
        return std::wcscpy(pszDirectory, m_csDirectory.c_str())[0] != 0;
    }

    /// Async-signal-safe.
    static void s_Note(const char* pszWord)
    {
        const int nFd = ::open(g_szEvents, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
        (void)!::write(nFd, pszWord, std::string_view(pszWord).size());
        ::close(nFd);
    }

    std::function<bool()> m_fnStart = [] { return true; };
    std::wstring m_csUser;
    std::wstring m_csDirectory;
    bool m_bCoreDump = false;

private:
    CLogger m_clLogger;
    CZTSemNoInit m_clEnd;
};

/// Forks a process that runs a service as main does; its status is what main would return.
inline pid_t nLaunch(const std::function<void(CTestService&)>& fnPrepare, const std::function<bool()>& fnRun)
{
    std::ofstream{g_szEvents};
    ::chmod(g_szEvents, 0666);
    const pid_t nPid = ::fork();
    if (nPid == 0) {
        CTestService clService;
        gpclServiceImp = &clService;
        fnPrepare(clService);
        ::_exit(fnRun() ? 0 : 255);
    }
    return nPid;
}
