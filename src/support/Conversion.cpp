#include "support/Conversion.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace {
constexpr wchar_t s_cReplacement = L'\xFFFD';

/// Windows-1252, bytes 0x80 to 0x9F; any other byte is the character of the same number.
constexpr std::array<wchar_t, 32> s_t1252 = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                             0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                             0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                             0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

constexpr unsigned char nByte(char c)
{
    return static_cast<unsigned char>(c);
}

constexpr bool bSurrogate(char32_t nChar)
{
    return nChar >= 0xD800 && nChar <= 0xDFFF;
}

wchar_t cFrom1252(char c)
{
    const unsigned char n = nByte(c);
    return n >= 0x80 && n <= 0x9F ? s_t1252[n - 0x80u] : static_cast<wchar_t>(n);
}

/// Returns "?" for a character that the code page lacks.
char cTo1252(wchar_t c)
{
    const auto n = static_cast<char32_t>(c); // wchar_t is signed on some machines and unsigned on others
    if (n < 0x80 || (n >= 0xA0 && n <= 0xFF)) {
        return static_cast<char>(c);
    }
    const auto it = std::ranges::find(s_t1252, c);
    return it == s_t1252.end() ? '?' : static_cast<char>(0x80 + (it - s_t1252.begin()));
}

/// What a byte promises as the first of a character: the number of continuation bytes (0: no lead byte) and
/// the range of the first of them. That range excludes overlong forms, surrogates and values above U+10FFFF.
struct STLead
{
    unsigned int nContinuations;
    unsigned char nLow;
    unsigned char nHigh;
};

/// The table of well-formed UTF-8, by lead byte.
constexpr STLead stLead(unsigned char n)
{
    struct STRow
    {
        unsigned char nFirst;
        unsigned char nLast;
        STLead stLead;
    };
    constexpr STRow tRows[] = {
        {0xC2, 0xDF, {1, 0x80, 0xBF}}, {0xE0, 0xE0, {2, 0xA0, 0xBF}}, {0xE1, 0xEC, {2, 0x80, 0xBF}},
        {0xED, 0xED, {2, 0x80, 0x9F}}, {0xEE, 0xEF, {2, 0x80, 0xBF}}, {0xF0, 0xF0, {3, 0x90, 0xBF}},
        {0xF1, 0xF3, {3, 0x80, 0xBF}}, {0xF4, 0xF4, {3, 0x80, 0x8F}},
    };
    for (const STRow& stRow : tRows) {
        if (n >= stRow.nFirst && n <= stRow.nLast) {
            return stRow.stLead;
        }
    }
    return {0, 0, 0};
}

/// Decodes the character at nPos and advances past it. An ill-formed one gives U+FFFD and leaves nPos at the
/// first byte that does not fit, which is then decoded as the start of the next character; a wrong first byte
/// alone is passed over.
wchar_t cDecodeUTF8(std::string_view csBytes, std::size_t& nPos)
{
    const unsigned char nFirst = nByte(csBytes[nPos++]);
    if (nFirst < 0x80) {
        return static_cast<wchar_t>(nFirst);
    }
    const STLead st = stLead(nFirst);
    if (st.nContinuations == 0) {
        return s_cReplacement;
    }

    // The lead byte carries five, four or three bits of the character, each continuation byte six.
    char32_t nChar = nFirst & (0x3Fu >> st.nContinuations);
    unsigned char nLow = st.nLow;
    unsigned char nHigh = st.nHigh;
    for (unsigned int n = 0; n < st.nContinuations; ++n) {
        if (nPos >= csBytes.size() || nByte(csBytes[nPos]) < nLow || nByte(csBytes[nPos]) > nHigh) {
            return s_cReplacement;
        }
        nChar = (nChar << 6) | (nByte(csBytes[nPos++]) & 0x3Fu);
        nLow = 0x80; // only the first continuation byte has a narrower range
        nHigh = 0xBF;
    }
    return static_cast<wchar_t>(nChar);
}

/// The character's number; that of U+FFFD for a surrogate or a value above U+10FFFF.
char32_t nValidChar(wchar_t c)
{
    const auto nChar = static_cast<char32_t>(c);
    return nChar > 0x10FFFF || bSurrogate(nChar) ? static_cast<char32_t>(s_cReplacement) : nChar;
}

void AppendUTF8(std::string& csBytes, wchar_t c)
{
    const char32_t nChar = nValidChar(c);
    if (nChar < 0x80) {
        csBytes += static_cast<char>(nChar);
        return;
    }

    // The high bits of the lead byte give the length; each byte after it carries six bits of the character.
    const unsigned int nContinuations = nChar < 0x800 ? 1 : nChar < 0x10000 ? 2 : 3;
    constexpr char32_t tMarks[] = {0, 0xC0, 0xE0, 0xF0};
    csBytes += static_cast<char>(tMarks[nContinuations] | (nChar >> (6 * nContinuations)));
    for (unsigned int n = nContinuations; n-- > 0;) {
        csBytes += static_cast<char>(0x80 | ((nChar >> (6 * n)) & 0x3F));
    }
}

/// Whether all characters are ASCII: these are the same bytes in both code pages.
bool bASCII(std::wstring_view csText)
{
    return std::ranges::all_of(csText, [](wchar_t c) { return static_cast<char32_t>(c) < 0x80; });
}

/// Appends a UTF-16 unit, the low byte first.
void AppendUnit(std::string& csBytes, char32_t nUnit)
{
    csBytes += static_cast<char>(nUnit & 0xFF);
    csBytes += static_cast<char>((nUnit >> 8) & 0xFF);
}
} // namespace

std::wstring csWide(std::string_view csBytes, ECodePage eCodePage)
{
    std::wstring csText;
    csText.reserve(csBytes.size());

    if (eCodePage == CP_UTF8) {
        for (std::size_t nPos = 0; nPos < csBytes.size();) {
            csText += cDecodeUTF8(csBytes, nPos);
        }
        return csText;
    }

    std::ranges::transform(csBytes, std::back_inserter(csText), cFrom1252);
    return csText;
}

std::string csNarrow(std::wstring_view csText, ECodePage eCodePage)
{
    if (bASCII(csText)) {
        return {csText.begin(), csText.end()};
    }

    std::string csBytes;
    csBytes.reserve(csText.size());
    if (eCodePage == CP_UTF8) {
        for (const wchar_t c : csText) {
            AppendUTF8(csBytes, c);
        }
        return csBytes;
    }

    std::ranges::transform(csText, std::back_inserter(csBytes), cTo1252);
    return csBytes;
}

std::wstring csFromUTF16(const void* pUnits, std::size_t nUnits)
{
    const auto* pBytes = static_cast<const unsigned char*>(pUnits);
    const auto nUnit = [pBytes](std::size_t n) {
        return static_cast<char32_t>(pBytes[2 * n]) | static_cast<char32_t>(pBytes[2 * n + 1]) << 8;
    };

    std::wstring csText;
    csText.reserve(nUnits);
    for (std::size_t n = 0; n < nUnits; ++n) {
        char32_t nChar = nUnit(n);
        if (bSurrogate(nChar)) { // a high one and a low one carry ten bits each of one character
            const bool bPair = nChar < 0xDC00 && n + 1 < nUnits && (nUnit(n + 1) & 0xFC00) == 0xDC00;
            nChar = bPair ? 0x10000 + ((nChar & 0x3FF) << 10) + (nUnit(++n) & 0x3FF)
                          : static_cast<char32_t>(s_cReplacement);
        }
        csText += static_cast<wchar_t>(nChar);
    }

    return csText;
}

std::string csToUTF16(std::wstring_view csText)
{
    std::string csBytes;
    csBytes.reserve(2 * csText.size());

    for (const wchar_t c : csText) {
        char32_t nChar = nValidChar(c);
        if (nChar >= 0x10000) {
            AppendUnit(csBytes, 0xD800 + ((nChar - 0x10000) >> 10));
            nChar = 0xDC00 + (nChar & 0x3FF);
        }
        AppendUnit(csBytes, nChar);
    }

    return csBytes;
}

std::size_t nCutUTF8(std::string_view csBytes, std::size_t nMax) noexcept
{
    if (csBytes.size() <= nMax) {
        return csBytes.size();
    }

    // Go back over the continuation bytes of the character at the cut. A character has at most three; a
    // longer row is no character, and is cut at nMax.
    std::size_t nCut = nMax;
    for (int n = 0; n < 3 && nCut > 0 && (nByte(csBytes[nCut]) & 0xC0) == 0x80; ++n) {
        --nCut;
    }
    return (nByte(csBytes[nCut]) & 0xC0) == 0x80 ? nMax : nCut;
}
