// Binds the language runtime's virtual machine.

#include "vm/vmload.h"

#include "support/Conversion.h"
#include "vm/PointEntree.h"

#include <dlfcn.h>

namespace {
/// Looks up an entry point. False, with an error that names it, when the library does not export it.
template <class TEntry>
bool bResolve(void* hLibrary, const char* pszEntry, TEntry* ppfnEntry, CXError* pclError)
{
    // For a null handle dlsym would search the manager itself and all of its libraries.
    *ppfnEntry = reinterpret_cast<TEntry>(hLibrary != nullptr ? ::dlsym(hLibrary, pszEntry) : nullptr);

    if (*ppfnEntry == nullptr && pclError != nullptr) {
        pclError->SetUserError(0, L"The language runtime library lacks the entry point \"" +
                                      csFromUTF8(pszEntry) +
                                      L"\"; install the runtime that belongs to this manager.");
    }
    return *ppfnEntry != nullptr;
}
} // namespace

bool bInitVM(void* hLibrary, CXError* pclError)
{
    g_stRuntime.reset();

    // All entry points first, also those that only CBaseExecutionDLL calls: an incomplete library must be
    // refused before any of its operations runs.
    STRuntime stRuntime{};
    stRuntime.hLibrary = hLibrary;
    if (!bResolve(hLibrary, VM_ENTRY_INIT, &stRuntime.pfnInit, pclError) ||
        !bResolve(hLibrary, VM_ENTRY_PATH, &stRuntime.pfnPath, pclError) ||
        !bResolve(hLibrary, VM_ENTRY_TERM, &stRuntime.pfnTerm, pclError) ||
        !bResolve(hLibrary, VM_ENTRY_SELF_INIT, &stRuntime.pfnSelfInit, pclError) ||
        !bResolve(hLibrary, VM_ENTRY_SELF_TERM, &stRuntime.pfnSelfTerm, pclError) ||
        !bCallRuntime(stRuntime.pfnInit, VM_ENTRY_INIT, pclError)) {
        return false;
    }

    g_stRuntime = stRuntime;
    return true;
}

bool bCheminDLL(const wchar_t* pszPath)
{
    if (!g_stRuntime) {
        return false;
    }
    const std::string csPath = pszPath != nullptr ? csToUTF8(pszPath) : std::string();
    return g_stRuntime->pfnPath(csPath.empty() ? nullptr : csPath.c_str()) != 0;
}

void TermVM(int nReason)
{
    if (g_stRuntime) {
        g_stRuntime->pfnTerm(nReason);
        g_stRuntime.reset();
    }
}
