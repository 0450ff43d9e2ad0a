// The forms of a service's name: substitutions, systemd's escapes, and which names can be installed.

#include "service/ServiceName.h"

#include "service/InitScript.h"
#include "service/ServiceManagerUnix.h"
#include "support/Conversion.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace {
constexpr std::size_t s_nMaxFileName = 255; ///< bytes
constexpr std::wstring_view s_csSuffix = L".service";
constexpr std::wstring_view s_csPidSuffix = L".pid";
/// Characters that a unit's file name holds unescaped. The backslash is one of them: a file name that
/// somebody else has escaped is asked about unchanged.
constexpr std::string_view s_csUnitCharacters =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ:-_.\\@";

struct STSubstitution
{
    wchar_t cFrom;
    const wchar_t* pszTo;
};
constexpr std::array<STSubstitution, 2> s_tUnitRules{{{L' ', L"_"}, {L'\t', L"__"}}};
constexpr std::array<STSubstitution, 4> s_tScriptRules{
    {{L' ', L"_"}, {L'\t', L"__"}, {L'/', L"-"}, {L'.', L"-"}}};

/// Applies every rule in one pass: what one rule inserts, another does not substitute again.
template <std::size_t nCount>
std::wstring csSubstitute(const std::wstring& csName, const std::array<STSubstitution, nCount>& tRules)
{
    std::wstring csResult;
    csResult.reserve(csName.size());
    for (const wchar_t c : csName) {
        const auto pRule = std::ranges::find(tRules, c, &STSubstitution::cFrom);
        if (pRule != tRules.end()) {
            csResult += pRule->pszTo;
        } else {
            csResult += c;
        }
    }
    return csResult;
}

/// Control characters of ASCII and of Latin-1.
bool bControl(wchar_t c)
{
    return c < L' ' || (c >= 0x7F && c <= 0x9F);
}

bool bOneOf(wchar_t c, std::wstring_view csSet)
{
    return csSet.find(c) != std::wstring_view::npos;
}

/// Whether systemd takes the character in a unit's text: neither a surrogate nor a noncharacter.
bool bCharacter(wchar_t c)
{
    const auto n = static_cast<char32_t>(c);
    return n <= 0x10FFFF && (n < 0xD800 || n > 0xDFFF) && (n < 0xFDD0 || n > 0xFDEF) &&
           (n & 0xFFFE) != 0xFFFE;
}

/// Whether systemctl takes the name for a whole unit name and adds no ".service": it may be another unit's.
bool bHasUnitType(std::wstring_view csUnit)
{
    static constexpr std::wstring_view s_tTypes[] = {L".service",   L".socket", L".device", L".mount",
                                                     L".automount", L".swap",   L".target", L".path",
                                                     L".timer",     L".slice",  L".scope"};
    return std::ranges::any_of(s_tTypes,
                               [csUnit](std::wstring_view csType) { return csUnit.ends_with(csType); });
}

std::size_t nBytes(std::wstring_view csText)
{
    return csToUTF8(std::wstring(csText)).size();
}

std::wstring csHex(char c)
{
    std::array<char, 8> tHex{};
    std::snprintf(tHex.data(), tHex.size(), "\\x%02x",
                  static_cast<unsigned int>(static_cast<unsigned char>(c)));
    return {tHex.begin(), tHex.begin() + 4}; // "\xNN", without the terminator
}

/// A unit's name as its file's name holds it. A name whose only "@" is its last character would be a
/// template's, so that "@" is escaped.
std::wstring csEscaped(const std::wstring& csUnit)
{
    const std::string csBytes = csToUTF8(csUnit);
    std::wstring csResult;
    for (std::size_t n = 0; n < csBytes.size(); ++n) {
        const bool bTemplate = csBytes[n] == '@' && n + 1 == csBytes.size() && csBytes.find('@') == n;
        const bool bPlain = !bTemplate && s_csUnitCharacters.find(csBytes[n]) != std::string_view::npos;
        csResult += bPlain ? std::wstring(1, static_cast<wchar_t>(csBytes[n])) : csHex(csBytes[n]);
    }
    return csResult;
}

/// Value of a "\xNN" at the start of the text; -1 when there is none.
int nEscapedByte(std::string_view cs)
{
    if (cs.size() < 4 || cs[0] != '\\' || cs[1] != 'x') {
        return -1;
    }
    const std::string csDigits(cs.substr(2, 2));
    if (csDigits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return -1;
    }
    return static_cast<int>(std::strtol(csDigits.c_str(), nullptr, 16));
}

std::wstring csUnescaped(std::string_view csListed)
{
    std::string csBytes;
    csBytes.reserve(csListed.size());
    for (std::size_t n = 0; n < csListed.size();) {
        const int nByte = nEscapedByte(csListed.substr(n));
        csBytes += nByte >= 0 ? static_cast<char>(nByte) : csListed[n];
        n += nByte >= 0 ? 4 : 1;
    }
    return csFromUTF8(csBytes);
}

/// The file name that a unit's name escapes to, without ".service"; empty for a name that systemctl would not
/// read as one whole name: as a pattern, as a path, as several words, as an option, as a unit of another
/// type.
std::wstring csFileName(const std::wstring& csUnit)
{
    const bool bForbidden =
        std::ranges::any_of(csUnit, [](wchar_t c) { return bControl(c) || bOneOf(c, L"*?[\"/ "); });
    if (csUnit.empty() || bForbidden || csUnit.front() == L'-' || bHasUnitType(csUnit)) {
        return {};
    }

    std::wstring csAsked = csEscaped(csUnit);
    return csAsked.size() + s_csSuffix.size() > s_nMaxFileName ? std::wstring() : csAsked;
}

/// The name of a unit that systemctl lists: decoded, when escaping the result gives the listed file name
/// again. Somebody else's unit may have a file name that no name escapes to. That file name is then the
/// unit's name: decoded, it could be the name of another unit, too.
std::wstring csUnitListed(const std::wstring& csListed)
{
    const std::wstring csUnit = csUnescaped(csToUTF8(csListed));
    return csFileName(csUnit) == csListed ? csUnit : csListed;
}

/// The form in which systemctl is asked about a unit; empty unless a listing would turn it back into this
/// name. A caller's backslash may look like an escape: "R\x26D" is not the service "R&D", and names nothing.
std::wstring csAskedForm(const std::wstring& csUnit)
{
    std::wstring csAsked = csFileName(csUnit);
    return csUnitListed(csAsked) == csUnit ? csAsked : std::wstring();
}

/// Whether a program that gets the name as its arguments would take a word of it for an option.
bool bHasOptionWord(const std::wstring& csText)
{
    return csText.starts_with(L'-') || csText.find(L" -") != std::wstring::npos;
}
} // namespace

CServiceName CServiceName::s_clSaid(const wchar_t* pszName)
{
    if (pszName == nullptr) {
        return {};
    }
    const std::wstring csText(pszName);
    return {csText, csAskedForm(csSubstitute(csText, s_tUnitRules)), false};
}

CServiceName CServiceName::s_clListed(std::string_view csListed)
{
    const std::wstring csVerbatim = csFromUTF8(csListed);
    if (!CServiceManager::bSystemd()) {
        return {csVerbatim, {}, true};
    }
    return {csUnitListed(csVerbatim), csVerbatim, true};
}

std::wstring CServiceName::csRegistry() const
{
    if (m_bListed) {
        return m_csText;
    }
    return CServiceManager::bSystemd() ? csSubstitute(m_csText, s_tUnitRules) : csScript();
}

std::wstring CServiceName::csScript() const
{
    return csSubstitute(m_csText, s_tScriptRules);
}

CServiceName CServiceName::clLookedUp() const
{
    std::wstring csWords = csRegistry();
    std::ranges::replace_if(
        csWords, [](wchar_t c) { return bOneOf(c, L";|"); }, L' ');
    csWords.erase(csWords.find_last_not_of(L' ') + 1);
    csWords.erase(0, std::min(csWords.find_first_not_of(L' '), csWords.size()));
    return {csWords, csAskedForm(csWords), true};
}

std::wstring CServiceName::csRegisteredAs(const wchar_t* pszDisplayName) const
{
    const CServiceName clDisplayed = s_clSaid(pszDisplayName);
    return clDisplayed.bInstallable() && clDisplayed == *this ? clDisplayed.m_csText : m_csText;
}

std::wstring CServiceName::csShownAs(const wchar_t* pszDisplayName) const
{
    const std::wstring csShown = pszDisplayName != nullptr ? pszDisplayName : m_csText;
    return std::ranges::any_of(csShown, bControl) ? m_csText : csShown;
}

bool CServiceName::bInstallable() const
{
    const bool bSystemd = CServiceManager::bSystemd();

    // In a unit's text the first four have a meaning; a name with ";" or "|" could not be looked up. A
    // script's name is judged by bInertName below.
    const std::wstring_view csForbidden = bSystemd ? L"\\%$';|" : L"";
    const bool bGoodCharacters = std::ranges::all_of(m_csText, [csForbidden](wchar_t c) {
        return bCharacter(c) && !bControl(c) && !bOneOf(c, csForbidden);
    });
    if (m_csText.empty() || !bGoodCharacters) {
        return false;
    }

    // Refuse what the server, which gets the name as an argument, or systemctl would read as something else.
    if (m_csText.front() == L' ' || m_csText.back() == L' ' || bHasOptionWord(m_csText) ||
        bHasUnitType(m_csText)) {
        return false;
    }

    // The PID file has the registry form as its name; the unit file's length is checked with csAsked.
    if (nBytes(csRegistry()) + s_csPidSuffix.size() > s_nMaxFileName) {
        return false;
    }
    return bSystemd ? !m_csAsked.empty() : bInertName(csRegistry());
}
