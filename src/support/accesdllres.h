#pragma once

#include "support/MessageIds.h"
#include "support/XError.h"
#include "support/XYString.h"

#include <cstdarg>
#include <string_view>

/// Describes a module whose messages can be loaded: its name and the routine that finds the text of a
/// message. Static data; the manager has one, g_stMyModule.
struct _stMyModuleInfo
{
    const wchar_t* pszName;
    bool (*pfnGetResource)(unsigned int nId, std::wstring_view& csText);
};
extern const _stMyModuleInfo g_stMyModule;

/// Text of a message; false and an empty text when there is none.
bool DLLRES_bLoadString(const _stMyModuleInfo& stModule, unsigned int nId, CTString* pcsText);
/// Fills the message's inserts with the arguments; true when the result is not empty. Arguments are wide
/// strings unless the message gives another type.
bool DLLRES_bFormatMessage(const _stMyModuleInfo* pstModule, unsigned int nId, CTString* pcsText, ...);
bool DLLRES_bFormatMessageList(const _stMyModuleInfo& stModule, unsigned int nId, CTString* pcsText,
                               va_list pArgs);

/// Completes an error with a "user error" of a module (nCode; see EUserError) and an errno (0: none).
void DLLRES_SetUserError(CXError* pclError, const _stMyModuleInfo& stModule, unsigned int nCode, int nErrno);
