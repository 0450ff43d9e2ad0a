#include "vm/DLLExecution.h"

#include "vm/PointEntree.h"
#include "vm/RuntimeAbi.h"

namespace {
// The library whose execution part is registered; null when none is. Main thread only.
void* ghRegistered = nullptr;
} // namespace

bool CBaseExecutionDLL::s_bInitialiseMoiMeme(void* hLibrary, CXError* pclError)
{
    const auto pfnInit =
        reinterpret_cast<PFN_bInitialiseMoiMeme>(pGetEntry(hLibrary, VM_ENTRY_SELF_INIT, pclError));
    if (pfnInit == nullptr || !bCallRuntime(pfnInit, VM_ENTRY_SELF_INIT, pclError)) {
        return false;
    }
    ghRegistered = hLibrary;
    return true;
}

void CBaseExecutionDLL::s_TermineMoiMeme(void* hLibrary)
{
    if (hLibrary == nullptr || hLibrary != ghRegistered) {
        return;
    }
    ghRegistered = nullptr;
    const auto pfnTerm =
        reinterpret_cast<PFN_TermineMoiMeme>(pGetEntry(hLibrary, VM_ENTRY_SELF_TERM, nullptr));
    if (pfnTerm != nullptr) {
        pfnTerm();
    }
}
