// How the command-line modes talk to the person at the terminal.

#include "main/ErrorMsg.h"

#include "support/accesdllres.h"
#include "support/Conversion.h"
#include "support/ManagerNames.h"
#include "support/WinApi.h"

#include <cerrno>
#include <cstdio>

void ShowError(int, const wchar_t* pszMessage)
{
    std::puts(csToUTF8(pszMessage).c_str());
}

void ShowErrorIDS(int nStyle, unsigned int nMessage)
{
    CTString csText;
    DLLRES_bLoadString(g_stMyModule, nMessage, &csText);
    ShowError(nStyle, csText.c_str());
}

void ShowErrorIDS_Service(int nStyle, unsigned int nMessage)
{
    CTString csText;
    DLLRES_bFormatMessage(&g_stMyModule, nMessage, &csText, g_szManagerService);
    ShowError(nStyle, csText.c_str());
}

void ShowErrorIDSError(int nStyle, unsigned int nMessage)
{
    // Before anything else, here and below: what follows may change errno.
    const std::wstring csError = csSystemMessage(errno);
    CTString csText;
    DLLRES_bFormatMessage(&g_stMyModule, nMessage, &csText, csError.c_str());
    ShowError(nStyle, csText.c_str());
}

void ShowErrorIDSError_Service(int nStyle, unsigned int nMessage)
{
    const std::wstring csError = csSystemMessage(errno);
    CTString csText;
    DLLRES_bFormatMessage(&g_stMyModule, nMessage, &csText, csError.c_str(), g_szManagerService);
    ShowError(nStyle, csText.c_str());
}
