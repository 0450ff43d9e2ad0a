#include "service/Systemctl.h"

#include "service/LanceProcessus.h"

#include <cerrno>

bool bSystemctl(const std::wstring& csArguments, std::string* pcsOutput, unsigned int* pnExitCode)
{
    CLanceProcessus clLauncher;
    return clLauncher.bLanceProcessus(g_szSystemctl, csArguments.c_str(), nullptr) &&
           clLauncher.bLitSortieEtAttendFinExecution(pcsOutput, pnExitCode);
}

bool bSystemctlDone(const std::wstring& csArguments)
{
    unsigned int nExitCode = 1;
    if (!bSystemctl(csArguments, nullptr, &nExitCode)) {
        return false;
    }
    if (nExitCode != 0) {
        errno = ECANCELED;
    }
    return nExitCode == 0;
}
