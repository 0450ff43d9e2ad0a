// The runtime that is bound, and how its operations are called.

#include "vm/PointEntree.h"

#include "support/Conversion.h"

#include <array>
#include <string>

std::optional<STRuntime> g_stRuntime;

bool bCallRuntime(int (*pfnOperation)(char*, unsigned int), const char* pszEntry, CXError* pclError)
{
    // Cleared, as the library may leave it alone; docs/runtime.md fixes its size for every library.
    std::array<char, 512> tReason{};
    if (pfnOperation(tReason.data(), static_cast<unsigned int>(tReason.size())) != 0) {
        return true;
    }

    tReason.back() = '\0'; // a faulty library may have filled the buffer to its end
    if (pclError != nullptr) {
        const std::wstring csReason = csFromUTF8(tReason.data());
        pclError->SetUserError(0, L"The language runtime refused to initialise (" + csFromUTF8(pszEntry) +
                                      (csReason.empty() ? L")" : L"): " + csReason));
    }
    return false;
}
