#pragma once

#include "support/XError.h"

#include <string>

/// One shared library loaded at run time: empty, or loaded until Unload or the destructor. Main thread only.
class CProxyDll
{
public:
    CProxyDll() noexcept = default;
    CProxyDll(const CProxyDll&) = delete;
    CProxyDll& operator=(const CProxyDll&) = delete;
    ~CProxyDll() { Unload(); }

    /// Loads the library at csPath and all that it needs. Every symbol is bound at once, and none is visible
    /// to other libraries. A path without a "/" is refused: a bare name would be searched for all over the
    /// system. A library loaded before is unloaded first. On failure the object is empty and the error
    /// carries the loader's text.
    bool bLoad(const std::wstring& csPath, CXError* pclError);
    /// Unloads the library; does nothing when empty. No address obtained from it may be used afterwards.
    void Unload() noexcept;

    /// The library's handle, for bInitVM and CBaseExecutionDLL; null when empty.
    void* hGetHandle() const noexcept { return m_hLibrary; }
    bool bLoaded() const noexcept { return m_hLibrary != nullptr; }

private:
    void* m_hLibrary = nullptr;
};
