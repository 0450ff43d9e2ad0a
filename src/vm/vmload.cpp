#include "vm/vmload.h"

#include "support/Conversion.h"
#include "vm/PointEntree.h"
#include "vm/RuntimeAbi.h"

#include <optional>

namespace {
struct STEntryPoints
{
    PFN_bInitVM pfnInit;
    PFN_bCheminDLL pfnPath;
    PFN_TermVM pfnTerm;
};

// Set between a successful bInitVM and TermVM; main thread only.
std::optional<STEntryPoints> gstVM;

/// Whether the library exports all that the manager calls, now or at its end.
bool bComplete(void* hLibrary, CXError* pclError)
{
    for (const char* pszEntry :
         {VM_ENTRY_INIT, VM_ENTRY_PATH, VM_ENTRY_TERM, VM_ENTRY_SELF_INIT, VM_ENTRY_SELF_TERM}) {
        if (pGetEntry(hLibrary, pszEntry, pclError) == nullptr) {
            return false;
        }
    }
    return true;
}
} // namespace

bool bInitVM(void* hLibrary, CXError* pclError)
{
    gstVM.reset();
    if (!bComplete(hLibrary, pclError)) {
        return false;
    }
    // All of them are there: an incomplete library has been refused.
    const STEntryPoints stVM{
        reinterpret_cast<PFN_bInitVM>(pGetEntry(hLibrary, VM_ENTRY_INIT, pclError)),
        reinterpret_cast<PFN_bCheminDLL>(pGetEntry(hLibrary, VM_ENTRY_PATH, pclError)),
        reinterpret_cast<PFN_TermVM>(pGetEntry(hLibrary, VM_ENTRY_TERM, pclError)),
    };
    if (!bCallRuntime(stVM.pfnInit, VM_ENTRY_INIT, pclError)) {
        return false;
    }
    gstVM = stVM;
    return true;
}

bool bCheminDLL(const wchar_t* pszPath)
{
    if (!gstVM) {
        return false;
    }
    const std::string csPath = pszPath != nullptr ? csToUTF8(pszPath) : std::string();
    return gstVM->pfnPath(csPath.empty() ? nullptr : csPath.c_str()) != 0;
}

void TermVM(int nReason)
{
    if (gstVM) {
        gstVM->pfnTerm(nReason);
        gstVM.reset();
    }
}
