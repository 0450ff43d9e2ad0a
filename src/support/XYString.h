#pragma once

#include <cstdarg>
#include <string>
#include <string_view>
#include <type_traits>

/// Text of one character width. Inside the manager text is wide; narrow text is bytes that come from outside
/// or go there (see Conversion.h).
template <class TCar>
using CXYString = std::basic_string<TCar>;

/// Replaces every occurrence of csFrom (not empty) by csTo. Replacements are not searched again.
template <class TCar>
CXYString<TCar> csReplaceAll(CXYString<TCar> csText,
                             std::type_identity_t<std::basic_string_view<TCar>> csFrom,
                             std::type_identity_t<std::basic_string_view<TCar>> csTo)
{
    for (std::size_t n = csText.find(csFrom); n != csText.npos; n = csText.find(csFrom, n + csTo.size())) {
        csText.replace(n, csFrom.size(), csTo);
    }
    return csText;
}

/// The manager's wide text, with printf-style formatting.
class CTString : public CXYString<wchar_t>
{
public:
    using CXYString<wchar_t>::basic_string;
    CTString() = default;
    CTString(CXYString<wchar_t> csText) : CXYString<wchar_t>(std::move(csText)) {}

    /// Replaces the text by the formatted one; the conversions are those of the C library's wide printf
    /// ("%ls" for a wide string, "%s" for an ASCII one). When the C library refuses the format or an
    /// argument, or the text would be too long, the text is empty.
    void Format(const wchar_t* pszFormat, ...);
    void FormatV(const wchar_t* pszFormat, va_list pArgs);
};
