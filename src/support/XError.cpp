#include "support/XError.h"

#include "support/WinApi.h"

#include <cerrno>
#include <utility>

std::wstring CXError::csGetSystemMessage() const
{
    return m_nSystem != 0 ? csSystemMessage(m_nSystem) : std::wstring();
}

void CXError::SetUserError(unsigned int nMessageId, std::wstring csMessage)
{
    m_nMessageId = nMessageId;
    m_csMessage = std::move(csMessage);
}

std::wstring CXError::StringDump(unsigned int nMask) const
{
    std::wstring csDump;
    const auto AddLine = [&csDump](const std::wstring& csLine) {
        csDump += csDump.empty() ? L"" : L"\r\n";
        csDump += csLine;
    };

    if ((nMask & INFO_MESSAGE) != 0 && !m_csMessage.empty()) {
        AddLine(m_csMessage);
    }
    if ((nMask & INFO_SYSTEM) != 0 && m_nSystem != 0) {
        AddLine(L"System error " + std::to_wstring(m_nSystem) + L": " + csGetSystemMessage());
    }
    if ((nMask & INFO_DEBUG) != 0) {
        for (const std::wstring& csText : m_tDebug) {
            AddLine(L"Detail: " + csText);
        }
    }
    if ((nMask & INFO_MODULE) != 0 && !m_csModule.empty()) {
        const std::wstring csMessageId =
            m_nMessageId != 0 ? L", message " + std::to_wstring(m_nMessageId) : std::wstring();
        AddLine(L"Module " + m_csModule + csMessageId);
    }

    return csDump;
}

bool bFail(CXError* pclError, const wchar_t* pszOperation, const std::wstring& csObject)
{
    const int nErrno = errno; // building the texts may change it
    if (pclError != nullptr) {
        pclError->Clear();
        pclError->SetSystemError(nErrno);
        pclError->SetUserError(0, std::wstring(pszOperation) + L" " + csObject);
    }
    errno = nErrno;
    return false;
}
