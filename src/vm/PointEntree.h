#pragma once

#include "support/XError.h"
#include "vm/RuntimeAbi.h"

#include <optional>

/// What vmload and CBaseExecutionDLL share; private to this folder.

/// The entry points of the runtime library, and how far it is started.
struct STRuntime
{
    PFN_bInitVM pfnInit;
    PFN_bCheminDLL pfnPath;
    PFN_TermVM pfnTerm;
    PFN_bInitialiseMoiMeme pfnSelfInit;
    PFN_TermineMoiMeme pfnSelfTerm;
    void* hLibrary;        ///< whose entry points these are
    bool bSelfInitialised; ///< the execution part is registered
};

/// Set between a successful bInitVM and TermVM; main thread only.
extern std::optional<STRuntime> g_stRuntime;

/// Calls one of the runtime's operations that can fail, with a buffer for its reason. On failure the error,
/// if wanted (it may be null), names the operation by pszEntry and carries the reason.
bool bCallRuntime(int (*pfnOperation)(char*, unsigned int), const char* pszEntry, CXError* pclError);
