#include "support/StrCompare.h"

#include <cwchar>
#include <string_view>

namespace {
/// U+00C0 to U+00FF without accents and in lower case. Letters without a plain form (ae, eth, o with stroke,
/// thorn, sharp s) are in lower case only; the signs of multiplication and division are unchanged.
constexpr wchar_t s_szLatin[] = L"aaaaaa\xE6"
                                L"ceeeeiiii\xF0"
                                L"nooooo\xD7\xF8uuuuy\xFE\xDF"
                                L"aaaaaa\xE6"
                                L"ceeeeiiii\xF0"
                                L"nooooo\xF7\xF8uuuuy\xFEy";
static_assert(std::size(s_szLatin) == 64 + 1);

/// A letter without case and accent. By table, not by locale, so that the result is the same on every
/// machine.
wchar_t cFolded(wchar_t c)
{
    if (c >= L'A' && c <= L'Z') {
        return c - L'A' + L'a';
    }
    if (c >= 0xC0 && c <= 0xFF) {
        return s_szLatin[c - 0xC0];
    }
    switch (c) {
    case 0x0152: // OE
        return 0x0153;
    case 0x0160: // S and Z with caron, Y with diaeresis
    case 0x0161:
        return L's';
    case 0x017D:
    case 0x017E:
        return L'z';
    case 0x0178:
        return L'y';
    default:
        return c;
    }
}

bool bDigit(wchar_t c)
{
    return c >= L'0' && c <= L'9';
}

/// Takes a run of digits off the front; returns it without its leading zeros.
std::wstring_view csTakeDigits(const wchar_t*& psz)
{
    while (*psz == L'0') {
        ++psz;
    }
    const wchar_t* const pszStart = psz;
    while (bDigit(*psz)) {
        ++psz;
    }
    return {pszStart, static_cast<std::size_t>(psz - pszStart)};
}

/// Compares numbers without leading zeros: the longer one is larger; at equal length the order of the texts
/// is that of the numbers.
int nCompareNumbers(std::wstring_view cs1, std::wstring_view cs2)
{
    if (cs1.size() != cs2.size()) {
        return cs1.size() < cs2.size() ? -1 : 1;
    }
    return cs1.compare(cs2);
}
} // namespace

int STR_nCompareRespecteNumeriqueW(const wchar_t* psz1, const wchar_t* psz2)
{
    psz1 = psz1 != nullptr ? psz1 : L"";
    psz2 = psz2 != nullptr ? psz2 : L"";

    while (*psz1 != L'\0' || *psz2 != L'\0') {
        if (bDigit(*psz1) && bDigit(*psz2)) {
            const int nOrder = nCompareNumbers(csTakeDigits(psz1), csTakeDigits(psz2));
            if (nOrder != 0) {
                return nOrder;
            }
        } else if (*psz1 != *psz2) {
            return *psz1 < *psz2 ? -1 : 1;
        } else {
            ++psz1;
            ++psz2;
        }
    }

    return 0;
}

int STR_nNCompare(const wchar_t* psz1, const wchar_t* psz2, std::size_t nLength)
{
    psz1 = psz1 != nullptr ? psz1 : L"";
    psz2 = psz2 != nullptr ? psz2 : L"";

    // The terminator stays itself and is below every character, so the shorter text comes first.
    for (; nLength > 0; --nLength, ++psz1, ++psz2) {
        const wchar_t c1 = cFolded(*psz1);
        const wchar_t c2 = cFolded(*psz2);
        if (c1 != c2) {
            return c1 < c2 ? -1 : 1;
        }
        if (c1 == L'\0') {
            break;
        }
    }

    return 0;
}
