// Loads and unloads one shared library.

#include "vm/Proxy.h"

#include "support/Conversion.h"

#include <dlfcn.h>
#include <utility>

bool CProxyDll::bLoad(const std::wstring& csPath, CXError* pclError)
{
    Unload();

    // The path is a bare name when its caller could not find out in which directory the manager lies. dlopen
    // would search the whole system for it, and might load a library that somebody has planted.
    const bool bHasDirectory = csPath.find(L'/') != std::wstring::npos;
    if (bHasDirectory) {
        m_hLibrary = ::dlopen(csToUTF8(csPath).c_str(), RTLD_NOW | RTLD_LOCAL);
    }

    if (m_hLibrary == nullptr && pclError != nullptr) {
        const char* pszReason = bHasDirectory ? ::dlerror() : "the directory is not known";
        pclError->SetUserError(0, L"The library \"" + csPath + L"\" cannot be loaded: " +
                                      csFromUTF8(pszReason != nullptr ? pszReason : "no reason given"));
    }
    return m_hLibrary != nullptr;
}

void CProxyDll::Unload() noexcept
{
    if (void* hLibrary = std::exchange(m_hLibrary, nullptr); hLibrary != nullptr) {
        ::dlclose(hLibrary);
    }
}
