#include "service/ServiceName.h"

#include "support/Conversion.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {
constexpr std::size_t s_nMaxUnitName = 255; ///< bytes, ".service" included
constexpr std::string_view s_csSuffix = ".service";
constexpr std::string_view s_csUnitCharacters =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ:-_.\\@";

struct STSubstitution
{
    wchar_t cFrom;
    const wchar_t* pszTo;
};

/// Every rule in one pass: what one puts in is not what another looks for.
template <std::size_t nCount>
std::wstring csSubstitute(const std::wstring& csName, const std::array<STSubstitution, nCount>& tRules)
{
    std::wstring csResult;
    csResult.reserve(csName.size());
    for (const wchar_t c : csName) {
        const auto pRule =
            std::find_if(tRules.begin(), tRules.end(), [c](const auto& st) { return st.cFrom == c; });
        if (pRule != tRules.end()) {
            csResult += pRule->pszTo;
        } else {
            csResult += c;
        }
    }
    return csResult;
}

bool bForbiddenInUnit(wchar_t c)
{
    return c < L' ' || (c >= 0x7F && c <= 0x9F) ||
           std::wstring_view(L"*?[\"/").find(c) != std::wstring_view::npos;
}

/// The tool takes such a name for a whole one, of a unit that may be another than the name's own.
bool bHasUnitType(std::wstring_view csUnit)
{
    static constexpr std::wstring_view s_tTypes[] = {L".service",   L".socket", L".device", L".mount",
                                                     L".automount", L".swap",   L".target", L".path",
                                                     L".timer",     L".slice",  L".scope"};
    return std::any_of(std::begin(s_tTypes), std::end(s_tTypes),
                       [csUnit](std::wstring_view csType) { return csUnit.ends_with(csType); });
}

/// Words are what ";" and "|" separate: in a lookup these are blanks.
bool bHasOptionWord(const std::wstring& csUnit)
{
    bool bWordStart = true;
    for (const wchar_t c : csUnit) {
        if (bWordStart && c == L'-') {
            return true;
        }
        bWordStart = c == L';' || c == L'|';
    }
    return false;
}

/// Value of a "\xNN" at the start of the text; -1 when there is none.
int nEscapedByte(std::string_view cs)
{
    if (cs.size() < 4 || cs[0] != '\\' || cs[1] != 'x') {
        return -1;
    }
    const std::string csHex(cs.substr(2, 2));
    if (csHex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return -1;
    }
    return static_cast<int>(std::strtol(csHex.c_str(), nullptr, 16));
}
} // namespace

std::wstring csScriptName(const std::wstring& csName)
{
    static constexpr std::array<STSubstitution, 4> s_tRules{
        {{L' ', L"_"}, {L'\t', L"__"}, {L'/', L"-"}, {L'.', L"-"}}};
    return csSubstitute(csName, s_tRules);
}

bool bUnitName(const std::wstring& csName, std::wstring* pcsUnit)
{
    static constexpr std::array<STSubstitution, 2> s_tRules{{{L' ', L"_"}, {L'\t', L"__"}}};
    std::wstring csUnit = csSubstitute(csName, s_tRules);
    if (std::any_of(csUnit.begin(), csUnit.end(), bForbiddenInUnit) || bHasOptionWord(csUnit) ||
        bHasUnitType(csUnit) || csToUTF8(csUnit).size() + s_csSuffix.size() > s_nMaxUnitName) {
        return false;
    }
    *pcsUnit = std::move(csUnit);
    return true;
}

bool bWritableInUnit(const std::wstring& csUnit)
{
    return csUnit.find_first_of(L"\\%$'") == std::wstring::npos;
}

std::wstring csUnitFileName(const std::wstring& csUnit)
{
    std::wstring csFile;
    for (const char c : csToUTF8(csUnit)) {
        if (s_csUnitCharacters.find(c) != std::string_view::npos) {
            csFile += static_cast<wchar_t>(c);
            continue;
        }
        std::array<char, 8> tEscape{};
        std::snprintf(tEscape.data(), tEscape.size(), "\\x%02x",
                      static_cast<unsigned int>(static_cast<unsigned char>(c)));
        csFile.append(tEscape.begin(), tEscape.begin() + 4);
    }
    return csFile;
}

std::wstring csUnitFromListing(std::string_view csListed)
{
    std::string csBytes;
    csBytes.reserve(csListed.size());
    for (std::size_t n = 0; n < csListed.size();) {
        const int nByte = nEscapedByte(csListed.substr(n));
        if (nByte >= 0x80) {
            csBytes += static_cast<char>(nByte);
            n += 4;
        } else {
            csBytes += csListed[n++];
        }
    }
    return csFromUTF8(csBytes);
}
