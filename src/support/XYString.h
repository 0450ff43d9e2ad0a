#pragma once

#include <cstdarg>
#include <string>
#include <string_view>
#include <type_traits>

/// Text of one character width. Inside the manager text is wide; narrow text is bytes on their way to or from
/// the system (see Conversion.h).
template <class TCar>
using CXYString = std::basic_string<TCar>;

/// The text with every occurrence of csFrom (not empty) replaced; what is put in is not looked through again.
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

    /// Replaces the text by the formatted one; the directives are those of the C library's wide printf ("%ls"
    /// for a wide string, "%s" for an ASCII one). A format that cannot be carried out leaves the text empty.
    void Format(const wchar_t* pszFormat, ...);
    void FormatV(const wchar_t* pszFormat, va_list pArgs);
};
