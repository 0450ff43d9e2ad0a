// Texts: the code pages, and the message formatter.

#include "support/Conversion.h"
#include "support/FormatMessage.h"
#include "Target.h"

#include <cstdint>
#include <utility>

namespace {
void CodePages(std::string_view csBytes)
{
    const std::wstring csAnsi = csWide(csBytes, CP_1252);
    Require(csAnsi.size() == csBytes.size() && csNarrow(csAnsi, CP_1252) == csBytes);
    Require(csWide(csBytes, CP_SYSTEM) == csAnsi);
    const std::wstring csText = csFromUTF8(csBytes);
    Require(csText.size() <= csBytes.size() && csFromUTF8(csToUTF8(csText)) == csText);
    const std::string csUnits = csToUTF16(csText);
    Require(csFromUTF16(csUnits.data(), csUnits.size() / 2) == csText);
    Require(csToUTF16(csFromUTF16(csBytes.data(), csBytes.size() / 2)).size() == csBytes.size() / 2 * 2);
    for (std::size_t n = 0; n <= csBytes.size() && n < 8; ++n) {
        Require(nCutUTF8(csBytes, n) <= n);
    }
    (void)csNarrow(csText, CP_1252);
}

std::wstring csFormat(const wchar_t* pszFormat, ...)
{
    va_list pArgs;
    va_start(pArgs, pszFormat);
    std::wstring cs = csFormatInserts(pszFormat, &pArgs);
    va_end(pArgs);
    return cs;
}

/// A text stands behind every number that an insert can have: it may be read as an integer and, since it ends
/// with zero bytes, as a narrow text, too.
template <std::size_t... n>
void Formatter(const std::wstring& csText, std::index_sequence<n...>)
{
    (void)csFormat(csText.c_str(), (static_cast<void>(n), L"text")...);
    (void)csFormatInserts(csText.c_str(), nullptr);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes)
{
    const std::string_view csBytes = csInput(pBytes, nBytes);
    CodePages(csBytes);
    Formatter(csFromUTF8(csBytes).c_str(), std::make_index_sequence<99>());
    return 0;
}
