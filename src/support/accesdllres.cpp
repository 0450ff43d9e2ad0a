#include "support/accesdllres.h"

#include "support/ManagerNames.h"
#include "support/ResANSI.h"
#include "support/WinApi.h"

constinit const _stMyModuleInfo g_stMyModule = {g_szManagerService, &bGetResAnsi602};

bool DLLRES_bLoadString(const _stMyModuleInfo& stModule, unsigned int nId, CTString* pcsText)
{
    std::wstring_view csText;
    const bool bFound = stModule.pfnGetResource(nId, csText);
    pcsText->assign(csText);
    return bFound;
}

bool DLLRES_bFormatMessage(const _stMyModuleInfo* pstModule, unsigned int nId, CTString* pcsText, ...)
{
    va_list pArgs;
    va_start(pArgs, pcsText);
    const bool bFormatted = DLLRES_bFormatMessageList(*pstModule, nId, pcsText, pArgs);
    va_end(pArgs);
    return bFormatted;
}

bool DLLRES_bFormatMessageList(const _stMyModuleInfo& stModule, unsigned int nId, CTString* pcsText,
                               va_list pArgs)
{
    CTString csFormat;
    pcsText->clear();
    if (!DLLRES_bLoadString(stModule, nId, &csFormat)) {
        return false;
    }

    // A parameter of the type va_list may be a mere pointer, whose address is not that of a list.
    va_list pCopy;
    va_copy(pCopy, pArgs);
    *pcsText = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_STRING, csFormat.c_str(),
                              0, &pCopy);
    va_end(pCopy);

    return !pcsText->empty();
}

void DLLRES_SetUserError(CXError* pclError, const _stMyModuleInfo& stModule, unsigned int nCode, int nErrno)
{
    if (pclError == nullptr) {
        return;
    }

    CTString csText;
    DLLRES_bLoadString(stModule, nUserErrorMessage(nCode), &csText);
    pclError->SetUserError(nUserErrorMessage(nCode), csText);
    pclError->SetModule(stModule.pszName);
    pclError->SetSystemError(nErrno);
}
