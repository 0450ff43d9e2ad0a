#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Code pages that the manager's boundaries speak. CP_SYSTEM, the "system code page", is Windows-1252 on
/// every machine: neither the locale nor installed conversion modules take part in any conversion of this
/// file.
enum ECodePage : unsigned int
{
    CP_SYSTEM = 0,
    CP_1252 = 1252,
    CP_UTF8 = 65001,
};

/// Bytes of a code page to wide text. Never fails: an undefined byte of Windows-1252 becomes the control
/// character of the same number, each ill-formed UTF-8 sequence one U+FFFD. NULs are converted like any other
/// character.
std::wstring csWide(std::string_view csBytes, ECodePage eCodePage);

/// Wide text to bytes of a code page. Never fails: a character that the code page lacks becomes "?" in
/// Windows-1252, a surrogate or a value above U+10FFFF becomes U+FFFD in UTF-8.
std::string csNarrow(std::wstring_view csText, ECodePage eCodePage);

inline std::wstring csFromUTF8(std::string_view csBytes)
{
    return csWide(csBytes, CP_UTF8);
}
inline std::string csToUTF8(std::wstring_view csText)
{
    return csNarrow(csText, CP_UTF8);
}

/// UTF-16 little-endian units (nUnits of them, unaligned) to wide text; an unpaired surrogate becomes U+FFFD.
std::wstring csFromUTF16(const void* pUnits, std::size_t nUnits);
/// Wide text to UTF-16 little-endian bytes, without a mark; what is no character becomes U+FFFD.
std::string csToUTF16(std::wstring_view csText);

/// Length of the longest prefix of UTF-8 text, at most nMax bytes, that does not end inside a character.
std::size_t nCutUTF8(std::string_view csBytes, std::size_t nMax) noexcept;
