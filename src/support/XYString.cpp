#include "support/XYString.h"

#include <cerrno>
#include <cwchar>

namespace {
/// Longest text that Format makes, in characters: far above any message. Limits the cost of a wrong width.
constexpr std::size_t s_nMaxFormatted = std::size_t{1} << 24;
} // namespace

void CTString::Format(const wchar_t* pszFormat, ...)
{
    va_list pArgs;
    va_start(pArgs, pszFormat);
    FormatV(pszFormat, pArgs);
    va_end(pArgs);
}

void CTString::FormatV(const wchar_t* pszFormat, va_list pArgs)
{
    // The result goes to a new string first, since an argument may point into this one. vswprintf does not
    // say how much room it needs, hence the tries. Nor does it set errno for lack of room: without errno = 0
    // an old EILSEQ would end the tries.
    std::wstring csResult;
    for (std::size_t nSize = 256; nSize <= s_nMaxFormatted; nSize *= 4) {
        csResult.resize(nSize);
        va_list pTry;
        va_copy(pTry, pArgs);
        errno = 0;
        const int nWritten = std::vswprintf(csResult.data(), nSize, pszFormat, pTry);
        const int nErrno = errno;
        va_end(pTry);

        if (nWritten >= 0) {
            csResult.resize(static_cast<std::size_t>(nWritten));
            assign(csResult);
            return;
        }
        if (nErrno == EILSEQ) { // an argument cannot be converted: more room does not help
            break;
        }
    }

    clear();
}
