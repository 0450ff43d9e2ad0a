#include "vm/PointEntree.h"

#include "support/Conversion.h"

#include <array>
#include <dlfcn.h>
#include <string>

namespace {
void Report(CXError* pclError, std::wstring csMessage)
{
    if (pclError != nullptr) {
        pclError->SetUserError(0, std::move(csMessage));
    }
}
} // namespace

void* pGetEntry(void* hLibrary, const char* pszEntry, CXError* pclError)
{
    void* pEntry = hLibrary != nullptr ? ::dlsym(hLibrary, pszEntry) : nullptr;
    if (pEntry == nullptr) {
        Report(pclError, L"The language runtime library lacks the entry point \"" + csFromUTF8(pszEntry) +
                             L"\"; install the runtime that belongs to this manager.");
    }
    return pEntry;
}

bool bCallRuntime(int (*pfnOperation)(char*, unsigned int), const char* pszEntry, CXError* pclError)
{
    std::array<char, 512> tReason{};
    if (pfnOperation(tReason.data(), static_cast<unsigned int>(tReason.size())) != 0) {
        return true;
    }
    tReason.back() = '\0'; // whatever the library wrote
    std::wstring csMessage = L"The language runtime refused to initialise (" + csFromUTF8(pszEntry) + L")";
    if (tReason.front() != '\0') {
        csMessage += L": " + csFromUTF8(tReason.data());
    }
    Report(pclError, std::move(csMessage));
    return false;
}
