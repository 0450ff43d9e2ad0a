// Texts: the code pages, and the message formatter.

#include "support/Conversion.h"
#include "support/FormatMessage.h"
#include "Target.h"

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

/// Every insert that reads an argument is to be refused or to find one: nothing but integers is passed, so
/// that no type that takes a text may stand in the format.
std::wstring csFormat(const wchar_t* pszFormat, ...)
{
    va_list pArgs;
    va_start(pArgs, pszFormat);
    std::wstring cs = csFormatInserts(pszFormat, &pArgs);
    va_end(pArgs);
    return cs;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes)
{
    const std::string_view csBytes = csInput(pBytes, nBytes);
    CodePages(csBytes);
    const std::wstring csText = csFromUTF8(csBytes).c_str();
    (void)csFormatInserts(csText.c_str(), nullptr);
    // Up to 9 inserts with texts as their arguments: read as a number they are one, too.
    const wchar_t szText[] = L"text";
    if (csText.find_first_of(L"ShcC") == std::wstring::npos) {
        const auto n10 = csText.find_first_of(L"0123456789");
        bool bTwoDigits = false; // numbers above 9 would read further than what is passed
        for (std::size_t n = n10; n != std::wstring::npos && n + 1 < csText.size(); ++n) {
            bTwoDigits =
                bTwoDigits || (csText[n] == L'%' && n + 2 < csText.size() && csText[n + 1] >= L'1' &&
                               csText[n + 1] <= L'9' && csText[n + 2] >= L'0' && csText[n + 2] <= L'9');
        }
        for (std::size_t n = 0; n + 2 < csText.size(); ++n) {
            bTwoDigits = bTwoDigits || (csText[n] == L'%' && csText[n + 2] >= L'0' && csText[n + 2] <= L'9');
        }
        if (!bTwoDigits) {
            (void)csFormat(csText.c_str(), szText, szText, szText, szText, szText, szText, szText, szText,
                           szText);
        }
    }
    return 0;
}
