#include "support/WinApi.h"

#include "support/Conversion.h"
#include "support/FormatMessage.h"
#include "support/XYString.h"

#include <cstring>
#include <unistd.h>

namespace {
constexpr std::size_t s_nMaxLink = 65536;

/// Target of a symbolic link; empty when it cannot be read. readlink cuts silently, so a target that fills
/// the buffer is read again into a larger one.
std::string csReadLink(const char* pszLink)
{
    for (std::size_t nSize = 512; nSize <= s_nMaxLink; nSize *= 2) {
        std::string csTarget(nSize, '\0');
        const ssize_t nLength = ::readlink(pszLink, csTarget.data(), nSize);
        if (nLength < 0) {
            return {};
        }

        if (static_cast<std::size_t>(nLength) < nSize) {
            csTarget.resize(static_cast<std::size_t>(nLength));
            return csTarget;
        }
    }

    return {};
}
} // namespace

std::wstring GetModuleFileNameW(std::size_t nMax)
{
    // The kernel appends this suffix when the file was replaced or deleted while its program runs. A name
    // that really ends so has its file.
    constexpr std::string_view csDeleted = " (deleted)";
    std::string csPath = csReadLink("/proc/self/exe");
    if (csPath.ends_with(csDeleted) && ::access(csPath.c_str(), F_OK) != 0) {
        csPath.resize(csPath.size() - csDeleted.size());
    }
    return csFromUTF8(csPath).substr(0, nMax);
}

std::wstring FormatMessageW(unsigned int nFlags, const wchar_t* pszSource, unsigned int nMessageId,
                            va_list* pArgs)
{
    if ((nFlags & FORMAT_MESSAGE_FROM_STRING) != 0) {
        return pszSource == nullptr ? std::wstring() : csFormatInserts(pszSource, pArgs);
    }
    return (nFlags & FORMAT_MESSAGE_FROM_SYSTEM) != 0 ? csSystemMessage(static_cast<int>(nMessageId))
                                                      : std::wstring();
}

std::string csSystemText(int nErrno)
{
    std::string csBuffer(256, '\0'); // the C library may return a static text instead of filling it
    return ::strerror_r(nErrno, csBuffer.data(), csBuffer.size());
}

std::wstring csSystemMessage(int nErrno)
{
    return csFromUTF8(csSystemText(nErrno));
}

std::wstring csEscapePercent(std::wstring_view csText)
{
    return csReplaceAll<wchar_t>(std::wstring(csText), L"%", L"%%");
}
