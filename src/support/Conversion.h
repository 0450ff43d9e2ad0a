#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Code pages of text that enters or leaves the manager. CP_SYSTEM, the "system code page", is Windows-1252
/// on every machine: no conversion of this file depends on the locale or on installed conversion modules.
enum ECodePage : unsigned int
{
    CP_SYSTEM = 0,
    CP_1252 = 1252,
    CP_UTF8 = 65001,
};

/// Converts bytes of a code page to wide text. Never fails: a byte that Windows-1252 leaves undefined becomes
/// the control character of the same number, each ill-formed UTF-8 sequence becomes one U+FFFD. A NUL is a
/// character like any other.
std::wstring csWide(std::string_view csBytes, ECodePage eCodePage);

/// Converts wide text to bytes of a code page. Never fails: a character that Windows-1252 lacks becomes "?";
/// in UTF-8 a surrogate or a value above U+10FFFF becomes U+FFFD.
std::string csNarrow(std::wstring_view csText, ECodePage eCodePage);

inline std::wstring csFromUTF8(std::string_view csBytes)
{
    return csWide(csBytes, CP_UTF8);
}
inline std::string csToUTF8(std::wstring_view csText)
{
    return csNarrow(csText, CP_UTF8);
}

/// Converts nUnits UTF-16 little-endian units, which need not be aligned, to wide text; an unpaired surrogate
/// becomes U+FFFD.
std::wstring csFromUTF16(const void* pUnits, std::size_t nUnits);
/// Converts wide text to UTF-16 little-endian bytes without a byte order mark; a surrogate or a value above
/// U+10FFFF becomes U+FFFD.
std::string csToUTF16(std::wstring_view csText);

/// Length in bytes of the longest prefix of UTF-8 text that has at most nMax bytes and does not end inside a
/// character.
std::size_t nCutUTF8(std::string_view csBytes, std::size_t nMax) noexcept;
