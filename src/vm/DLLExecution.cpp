// Starts and ends the execution part of the language runtime.

#include "vm/DLLExecution.h"

#include "vm/PointEntree.h"

#include <utility>

bool CBaseExecutionDLL::s_bInitialiseMoiMeme(void* hLibrary, CXError* pclError)
{
    if (!g_stRuntime || g_stRuntime->hLibrary != hLibrary) {
        return false;
    }
    g_stRuntime->bSelfInitialised = bCallRuntime(g_stRuntime->pfnSelfInit, VM_ENTRY_SELF_INIT, pclError);
    return g_stRuntime->bSelfInitialised;
}

void CBaseExecutionDLL::s_TermineMoiMeme(void* hLibrary)
{
    // The caller's clean-up also comes here when the registration failed: then there is nothing to undo.
    if (g_stRuntime && g_stRuntime->hLibrary == hLibrary &&
        std::exchange(g_stRuntime->bSelfInitialised, false)) {
        g_stRuntime->pfnSelfTerm();
    }
}
