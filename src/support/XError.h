#pragma once

#include <string>
#include <vector>

/// An error: what failed, why, and details that help to find the cause. Operations fill one that is passed by
/// pointer (null: the caller does not want it); operations whose names begin with "x" throw one. A plain
/// value, copied freely.
class CXError
{
public:
    /// Bits of the information mask of StringDump.
    enum EInfo : unsigned int
    {
        INFO_MESSAGE = 0x1,
        INFO_SYSTEM = 0x2,
        INFO_DEBUG = 0x4,
        INFO_MODULE = 0x8,
    };

    /// Whether there is an error: a system error or a message.
    bool bIsSet() const noexcept { return m_nSystem != 0 || !m_csMessage.empty(); }
    void Clear() { *this = CXError(); }

    /// The errno of the failure; 0 is none.
    void SetSystemError(int nErrno) noexcept { m_nSystem = nErrno; }
    int nGetSystemError() const noexcept { return m_nSystem; }
    /// The C library's text for the system error; empty when there is none.
    std::wstring csGetSystemMessage() const;

    /// The message for people, and its number among the module's messages (0 is none).
    void SetUserError(unsigned int nMessageId, std::wstring csMessage);
    const std::wstring& csGetMessage() const noexcept { return m_csMessage; }

    /// The module whose messages the error's number belongs to.
    void SetModule(std::wstring csModule) { m_csModule = std::move(csModule); }
    /// Appends a detail, such as the call that failed.
    void AddDebugMessage(std::wstring csText) { m_tDebug.push_back(std::move(csText)); }

    /// The items that the mask asks for and the error has, one a line, separated by "\r\n".
    std::wstring StringDump(unsigned int nMask) const;

private:
    int m_nSystem = 0;
    unsigned int m_nMessageId = 0;
    std::wstring m_csMessage;
    std::wstring m_csModule;
    std::vector<std::wstring> m_tDebug;
};

/// Fills the error, unless it is null, with the current errno and "operation object". Keeps errno. Always
/// returns false, for `return bFail(...)`.
bool bFail(CXError* pclError, const wchar_t* pszOperation, const std::wstring& csObject);
