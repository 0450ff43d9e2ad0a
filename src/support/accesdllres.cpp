#include "support/accesdllres.h"

#include "support/DataCompressor.h"
#include "support/WinApi.h"

#include <algorithm>
#include <memory>

constinit const _stMyModuleInfo g_stMyModule = {L"VelmoManager", &bGetResAnsi602};

namespace {
constexpr int s_nMaxOutsideText = 65536;

PFNLoadStringZTM gpfnLoadStringZTM = nullptr;

/// Asks the outside loader. Returns the number of characters in the buffer, never more than fit.
int nLoadOutside(unsigned int nId, wchar_t* pszBuffer, int nSize)
{
    if (gpfnLoadStringZTM == nullptr || nSize <= 0) {
        return 0;
    }
    const int nLength = std::clamp(gpfnLoadStringZTM(nId, pszBuffer, nSize), 0, nSize - 1);
    pszBuffer[nLength] = L'\0';
    return nLength;
}

/// The loader does not tell a text's length: one that fills the buffer may have been cut, and is asked for
/// again with more room.
bool bLoadOutside(unsigned int nId, CTString* pcsText)
{
    for (int nSize = 1024; gpfnLoadStringZTM != nullptr && nSize <= s_nMaxOutsideText; nSize *= 8) {
        const auto pszBuffer = std::make_unique<wchar_t[]>(static_cast<std::size_t>(nSize));
        const int nLength = nLoadOutside(nId, pszBuffer.get(), nSize);
        if (nLength == 0) {
            return false;
        }
        pcsText->assign(pszBuffer.get(), static_cast<std::size_t>(nLength));
        if (nLength < nSize - 1) {
            break;
        }
    }
    return !pcsText->empty();
}

bool bLoadOwn(const _stMyModuleInfo& stModule, unsigned int nId, CTString* pcsText)
{
    STRessourceModule stResource{};
    if (!stModule.pfnGetResource(nId, stResource)) {
        return false;
    }
    const std::unique_ptr<wchar_t[]> pszText = CDataCompressor::s_pszDeCompress(stResource);
    if (!pszText) {
        return false;
    }
    pcsText->assign(pszText.get());
    return true;
}

bool __DLLRES_bLoadString(const _stMyModuleInfo& stModule, unsigned int nId, CTString* pcsText)
{
    pcsText->clear();
    return bLoadOutside(nId, pcsText) || bLoadOwn(stModule, nId, pcsText);
}
} // namespace

void DLLRES_SetLoadStringZTM(PFNLoadStringZTM pfnLoader)
{
    gpfnLoadStringZTM = pfnLoader;
}

long CommandeComposante(int nCommand, ...)
{
    enum ECommand : int
    {
        SET_LOADER = 2,
        LOAD_STRING = 3,
        FIND_RESOURCE = 4,
    };
    long nResult = 0;
    // Which arguments follow depends on the command, so none is taken before it is known.
    va_list pArgs;
    va_start(pArgs, nCommand);
    if (nCommand == SET_LOADER) {
        DLLRES_SetLoadStringZTM(va_arg(pArgs, PFNLoadStringZTM));
    } else if (nCommand == LOAD_STRING) {
        auto* pst = va_arg(pArgs, STLoadString*);
        pst->nCount = DLLRES_nLoadString(g_stMyModule, pst->nId, pst->pszBuffer, pst->nSize);
        nResult = pst->nCount;
    } else if (nCommand == FIND_RESOURCE) {
        const auto nId = va_arg(pArgs, unsigned int);
        nResult = g_stMyModule.pfnGetResource(nId, *va_arg(pArgs, STRessourceModule*)) ? 1 : 0;
    }
    va_end(pArgs);
    return nResult;
}

bool DLLRES_bLoadString(const _stMyModuleInfo& stModule, unsigned int nId, CTString* pcsText)
{
    return __DLLRES_bLoadString(stModule, nId, pcsText);
}

int DLLRES_nLoadString(const _stMyModuleInfo& stModule, unsigned int nId, wchar_t* pszBuffer, int nSize)
{
    if (nSize <= 0) {
        return 0;
    }
    const int nOutside = nLoadOutside(nId, pszBuffer, nSize);
    if (nOutside > 0) {
        return nOutside;
    }
    CTString csText;
    bLoadOwn(stModule, nId, &csText);
    const std::size_t nLength = csText.copy(pszBuffer, static_cast<std::size_t>(nSize) - 1);
    pszBuffer[nLength] = L'\0';
    return static_cast<int>(nLength);
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
    if (!__DLLRES_bLoadString(stModule, nId, &csFormat)) {
        return false;
    }
    va_list pCopy; // as a parameter a va_list is a mere pointer: its address is not that of a list
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
