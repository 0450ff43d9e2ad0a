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

/// Looks an entry point up; false when the library lacks it.
template <class TEntry>
bool bResolve(void* hLibrary, const char* pszEntry, TEntry* ppfnEntry, CXError* pclError)
{
    *ppfnEntry = reinterpret_cast<TEntry>(pGetEntry(hLibrary, pszEntry, pclError));
    return *ppfnEntry != nullptr;
}
} // namespace

bool bInitVM(void* hLibrary, CXError* pclError)
{
    gstVM.reset();
    STEntryPoints stVM{};
    // The execution part's, too, which are called later: an incomplete library is refused before any of its
    // code runs.
    if (!bResolve(hLibrary, VM_ENTRY_INIT, &stVM.pfnInit, pclError) ||
        !bResolve(hLibrary, VM_ENTRY_PATH, &stVM.pfnPath, pclError) ||
        !bResolve(hLibrary, VM_ENTRY_TERM, &stVM.pfnTerm, pclError) ||
        pGetEntry(hLibrary, VM_ENTRY_SELF_INIT, pclError) == nullptr ||
        pGetEntry(hLibrary, VM_ENTRY_SELF_TERM, pclError) == nullptr) {
        return false;
    }
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
