#include "support/FormatMessage.h"

#include "support/Conversion.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace {
constexpr std::size_t s_nMaxNumber = 99; ///< of an insert: its number has one or two digits
/// Limit of widths and precisions: a wrong format must not cost memory.
constexpr int s_nMaxWidth = 1000;

/// The type with which an argument is taken from the list.
enum class EArg
{
    NONE,
    INT32,
    INT64,
    WIDE,
    NARROW,
};

/// What an insert says of its argument.
struct STInsert
{
    std::size_t nNumber = 0;
    EArg eArg = EArg::WIDE;
    char cConversion = 's'; ///< a printf conversion of integers, 's' or 'c'
    bool bShort = false;    ///< prefix "h"; of integers: 16 bits
    bool bWideChar = true;  ///< of 'c'
    std::string csFlags;    ///< each of "-+ #0" at most once
    int nWidth = 0;         ///< characters; 0: none
    int nPrecision = -1;    ///< -1: none
};

/// An argument; its EArg says which member counts.
union UArg {
    std::int32_t n32;
    std::int64_t n64;
    const void* p;
};

constexpr bool bDigit(wchar_t c)
{
    return c >= L'0' && c <= L'9';
}

/// Reads the text between the exclamation marks of an insert.
class CTypeReader
{
public:
    explicit CTypeReader(std::wstring_view csType) : m_csType(csType) {}

    bool bRead(STInsert* pstInsert)
    {
        // Each flag is kept once: a row of them must not make the C library's format longer and longer.
        while (!m_csType.empty() && std::wstring_view(L"-+ #0").find(m_csType[0]) != m_csType.npos) {
            if (pstInsert->csFlags.find(static_cast<char>(m_csType[0])) == std::string::npos) {
                pstInsert->csFlags += static_cast<char>(m_csType[0]);
            }
            m_csType.remove_prefix(1);
        }

        pstInsert->nWidth = _nNumber();
        if (_bTake(L".")) {
            pstInsert->nPrecision = _nNumber();
        }
        return _bReadConversion(pstInsert);
    }

private:
    /// Advances past a word, if it is next.
    bool _bTake(std::wstring_view csWord)
    {
        if (!m_csType.starts_with(csWord)) {
            return false;
        }
        m_csType.remove_prefix(csWord.size());
        return true;
    }
    /// Takes a number; 0 when there is none. Capped at once, so that no row of digits overflows.
    int _nNumber()
    {
        int nValue = 0;
        for (; !m_csType.empty() && bDigit(m_csType[0]); m_csType.remove_prefix(1)) {
            nValue = std::min(nValue * 10 + static_cast<int>(m_csType[0] - L'0'), s_nMaxWidth);
        }
        return nValue;
    }
    /// Takes the prefix and the conversion, which must end the type.
    bool _bReadConversion(STInsert* pstInsert)
    {
        // "I32", "l" and "w" matter for strings and characters only, which they make wide: an integer has 32
        // bits with or without them.
        const bool b64 = _bTake(L"I64") || _bTake(L"ll");
        const bool bWidePrefix = !b64 && (_bTake(L"I32") || _bTake(L"l") || _bTake(L"w"));
        pstInsert->bShort = !b64 && !bWidePrefix && _bTake(L"h");
        if (m_csType.size() != 1) {
            return false;
        }

        const wchar_t c = m_csType[0];
        if (std::wstring_view(L"diuxXo").find(c) != std::wstring_view::npos) {
            pstInsert->eArg = b64 ? EArg::INT64 : EArg::INT32;
            pstInsert->cConversion = static_cast<char>(c);
            return true;
        }

        if (b64 || std::wstring_view(L"sScC").find(c) == std::wstring_view::npos) {
            return false;
        }

        // A prefix decides whether the characters are wide; without one the case of the letter does.
        _SetTextType(c, bWidePrefix || (!pstInsert->bShort && (c == L's' || c == L'c')), pstInsert);
        return true;
    }
    /// Makes the insert a string or, for "c" and "C", a character, which an argument list passes as an int.
    static void _SetTextType(wchar_t c, bool bWide, STInsert* pstInsert)
    {
        const bool bChar = c == L'c' || c == L'C';
        pstInsert->cConversion = bChar ? 'c' : 's';
        pstInsert->bWideChar = bWide;
        pstInsert->eArg = bChar ? EArg::INT32 : bWide ? EArg::WIDE : EArg::NARROW;
    }

    std::wstring_view m_csType;
};

/// Reads an insert whose number begins at nPos and advances past it. Returns false when its type is unknown
/// or does not end; the position is then just after the number.
bool bReadInsert(std::wstring_view csFormat, std::size_t& nPos, STInsert* pstInsert)
{
    pstInsert->nNumber = static_cast<std::size_t>(csFormat[nPos++] - L'0');
    if (nPos < csFormat.size() && bDigit(csFormat[nPos])) {
        pstInsert->nNumber = pstInsert->nNumber * 10 + static_cast<std::size_t>(csFormat[nPos++] - L'0');
    }
    if (nPos >= csFormat.size() || csFormat[nPos] != L'!') {
        return true; // "%1" alone is a wide string
    }

    const std::size_t nEnd = csFormat.find(L'!', nPos + 1);
    if (nEnd == csFormat.npos || !CTypeReader(csFormat.substr(nPos + 1, nEnd - nPos - 1)).bRead(pstInsert)) {
        return false;
    }

    nPos = nEnd + 1;
    return true;
}

/// Pads a string or a character to the width. (The C library pads integers, see csInteger.)
std::wstring csPadded(std::wstring csText, const STInsert& stInsert)
{
    const auto nWidth = static_cast<std::size_t>(stInsert.nWidth);
    if (csText.size() < nWidth) {
        const bool bLeft = stInsert.csFlags.find('-') != std::string::npos;
        csText.insert(bLeft ? csText.size() : 0, nWidth - csText.size(), L' ');
    }
    return csText;
}

/// A string argument as wide text. With a precision no character after it is read: the string need not have a
/// terminator then.
std::wstring csStringArg(const void* pText, const STInsert& stInsert)
{
    const auto nMax = stInsert.nPrecision < 0 ? SIZE_MAX : static_cast<std::size_t>(stInsert.nPrecision);
    if (pText == nullptr) {
        return std::wstring(L"(null)").substr(0, nMax);
    }

    if (stInsert.eArg == EArg::WIDE) {
        const auto* psz = static_cast<const wchar_t*>(pText);
        return {psz, nMax == SIZE_MAX ? std::wcslen(psz) : ::wcsnlen(psz, nMax)};
    }
    const auto* psz = static_cast<const char*>(pText);
    const std::size_t nLength = nMax == SIZE_MAX ? std::char_traits<char>::length(psz) : ::strnlen(psz, nMax);
    return csWide({psz, nLength}, CP_SYSTEM);
}

/// The value of an integer argument: of the shorter types only the low bits count.
std::int64_t nIntegerArg(const UArg& uArg, const STInsert& stInsert)
{
    const bool bSigned = stInsert.cConversion == 'd' || stInsert.cConversion == 'i';
    if (stInsert.eArg == EArg::INT64) {
        return uArg.n64;
    }
    if (stInsert.bShort) {
        return bSigned ? std::int64_t{static_cast<std::int16_t>(uArg.n32)}
                       : std::int64_t{static_cast<std::uint16_t>(uArg.n32)};
    }
    return bSigned ? std::int64_t{uArg.n32} : std::int64_t{static_cast<std::uint32_t>(uArg.n32)};
}

/// Formats an integer by the C library, since inserts have its flags, width and precision (-1: none, as for
/// the C library). "ll" serves all sizes: the value has 64 bits by now. Width and precision are limited, so
/// the buffer has room for them and for sign, prefix and digits.
std::wstring csInteger(const UArg& uArg, const STInsert& stInsert)
{
    const std::string csFormat = "%" + stInsert.csFlags + "*.*ll" + stInsert.cConversion;
    std::string csText(static_cast<std::size_t>(s_nMaxWidth) + 64, '\0');
    const int nLength =
        std::snprintf(csText.data(), csText.size(), csFormat.c_str(), stInsert.nWidth, stInsert.nPrecision,
                      static_cast<long long>(nIntegerArg(uArg, stInsert)));
    csText.resize(static_cast<std::size_t>(std::max(nLength, 0)));
    return csFromUTF8(csText);
}

/// The text of an argument.
std::wstring csArgument(const UArg& uArg, const STInsert& stInsert)
{
    if (stInsert.cConversion == 's') {
        return csPadded(csStringArg(uArg.p, stInsert), stInsert);
    }

    if (stInsert.cConversion == 'c') {
        const char cNarrow = static_cast<char>(uArg.n32);
        const std::wstring csCharacter = stInsert.bWideChar ? std::wstring(1, static_cast<wchar_t>(uArg.n32))
                                                            : csWide({&cNarrow, 1}, CP_SYSTEM);
        return csPadded(csCharacter, stInsert);
    }

    return csInteger(uArg, stInsert);
}

/// The text that "%" and this character mean.
std::wstring csEscape(wchar_t c)
{
    static constexpr std::pair<wchar_t, const wchar_t*> s_tEscapes[] = {
        {L'n', L"\r\n"}, {L'r', L"\r"}, {L't', L"\t"}, {L'b', L" "}};
    for (const auto& [cEscape, pszText] : s_tEscapes) {
        if (c == cEscape) {
            return pszText;
        }
    }
    return {c}; // "%%", "%." and "%!" mean the character
}

/// Plain text, and the insert that follows it; the last piece has none.
struct STPiece
{
    std::wstring csText;
    std::optional<STInsert> stInsert;
};

/// Fills a format in three steps: reads it into pieces, takes the arguments from their list, joins the text.
/// The list can only be walked from its beginning and only with each argument's type, so every insert must
/// have been read before the first argument is taken.
class CFormatter
{
public:
    CFormatter(std::wstring_view csFormat, va_list* pArgs)
    {
        _Read(csFormat, pArgs != nullptr);
        if (pArgs != nullptr) {
            _Fetch(pArgs);
        }
    }

    std::wstring csResult() const
    {
        std::wstring csResult;
        for (const STPiece& stPiece : m_tPieces) {
            csResult += stPiece.csText;
            if (stPiece.stInsert) {
                csResult += csArgument(m_tArgs[stPiece.stInsert->nNumber], *stPiece.stInsert);
            }
        }
        return csResult;
    }

private:
    /// Reads the format into pieces. Without bInserts every insert remains text.
    void _Read(std::wstring_view csFormat, bool bInserts)
    {
        m_tPieces.emplace_back();
        for (std::size_t nPos = 0; nPos < csFormat.size();) {
            const std::size_t nPercent = std::min(csFormat.find(L'%', nPos), csFormat.size());
            m_tPieces.back().csText += csFormat.substr(nPos, nPercent - nPos);
            nPos = nPercent + 1;

            // "%0" ends the text; a "%" at its end is dropped.
            if (nPos >= csFormat.size() || csFormat[nPos] == L'0') {
                return;
            }
            if (!bDigit(csFormat[nPos])) {
                m_tPieces.back().csText += csEscape(csFormat[nPos++]);
                continue;
            }

            STInsert stInsert;
            if (bReadInsert(csFormat, nPos, &stInsert) && bInserts && _bNoteType(stInsert)) {
                m_tPieces.back().stInsert = std::move(stInsert);
                m_tPieces.emplace_back();
            } else {
                m_tPieces.back().csText += csFormat.substr(nPercent, nPos - nPercent);
            }
        }
    }

    /// Notes the type of the first insert with a number, which decides how the argument is taken. False when
    /// a later insert with this number has another type.
    bool _bNoteType(const STInsert& stInsert)
    {
        EArg& eArg = m_tTypes[stInsert.nNumber];
        if (eArg == EArg::NONE) {
            eArg = stInsert.eArg;
            m_nHighest = std::max(m_nHighest, stInsert.nNumber);
        }
        return eArg == stInsert.eArg;
    }

    /// Takes the arguments up to the highest number that an insert has.
    void _Fetch(va_list* pArgs)
    {
        va_list pCopy;
        va_copy(pCopy, *pArgs); // NOLINT(clang-analyzer-valist.Uninitialized): the caller started it

        for (std::size_t n = 1; n <= m_nHighest; ++n) {
            switch (m_tTypes[n]) {
            case EArg::INT32:
                m_tArgs[n].n32 = va_arg(pCopy, std::int32_t);
                break;
            case EArg::INT64:
                m_tArgs[n].n64 = va_arg(pCopy, std::int64_t);
                break;
            default: // a text, or NONE: an argument that no insert uses is passed over as a pointer
                m_tArgs[n].p = va_arg(pCopy, const void*);
            }
        }

        va_end(pCopy);
    }

    std::vector<STPiece> m_tPieces;
    std::size_t m_nHighest = 0;
    std::array<EArg, s_nMaxNumber + 1> m_tTypes{};
    std::array<UArg, s_nMaxNumber + 1> m_tArgs{};
};
} // namespace

std::wstring csFormatInserts(const wchar_t* pszFormat, va_list* pArgs)
{
    return CFormatter(pszFormat, pArgs).csResult();
}
