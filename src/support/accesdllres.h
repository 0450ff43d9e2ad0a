#pragma once

#include "support/MessageIds.h"
#include "support/ResANSI.h"
#include "support/XError.h"
#include "support/XYString.h"

#include <cstdarg>

/// Describes a module whose messages can be loaded: its name and the routine that finds a message in its
/// block. Static data; the manager has one, g_stMyModule.
struct _stMyModuleInfo
{
    const wchar_t* pszName;
    bool (*pfnGetResource)(unsigned int nId, STRessourceModule& stResource);
};
extern const _stMyModuleInfo g_stMyModule;

/// Optional outside loader, asked first for every id: writes at most nSize characters with terminator,
/// returns their number without it, 0 when it does not know the id. Installed before any thread runs.
using PFNLoadStringZTM = int (*)(unsigned int nId, wchar_t* pszBuffer, int nSize);
void DLLRES_SetLoadStringZTM(PFNLoadStringZTM pfnLoader);

/// Request of CommandeComposante command 3.
struct STLoadString
{
    unsigned int nId;
    wchar_t* pszBuffer;
    int nSize;
    int nCount;
};
/// The language runtime's entry to the module: 2 installs the outside loader, 3 loads a string
/// (STLoadString*, the count is returned and stored back), 4 looks a resource up (id, STRessourceModule*);
/// any other answers 0.
long CommandeComposante(int nCommand, ...);

/// Text of a message; false and an empty text when there is none.
bool DLLRES_bLoadString(const _stMyModuleInfo& stModule, unsigned int nId, CTString* pcsText);
/// The same into a buffer of nSize characters. Returns the number of characters, nSize - 1 when the text was
/// cut, 0 when not found.
int DLLRES_nLoadString(const _stMyModuleInfo& stModule, unsigned int nId, wchar_t* pszBuffer, int nSize);
/// The message with its inserts filled; true when the result is not empty. Inserts are wide strings unless
/// the message says otherwise.
bool DLLRES_bFormatMessage(const _stMyModuleInfo* pstModule, unsigned int nId, CTString* pcsText, ...);
bool DLLRES_bFormatMessageList(const _stMyModuleInfo& stModule, unsigned int nId, CTString* pcsText,
                               va_list pArgs);

/// Completes an error with "user error n" of a module and a system error number (0: none).
void DLLRES_SetUserError(CXError* pclError, const _stMyModuleInfo& stModule, unsigned int nCode, int nErrno);
