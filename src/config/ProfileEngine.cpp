#include "config/ProfileEngine.h"

#include <algorithm>
#include <cctype>
#include <cwctype>
#include <iterator>
#include <type_traits>

namespace {
int nFold(CAnsiUnit c)
{
    return std::tolower(static_cast<unsigned char>(c));
}

wint_t nFold(CUnicodeUnit c)
{
    return std::towlower(c);
}

/// A printable ASCII character other than the space: no locale counts one as whitespace, so most units are
/// judged without a call of the C library.
template <class TUnit>
bool bPrintableASCII(TUnit c)
{
    return c > TUnit{' '} && c < TUnit{0x7F};
}

bool bWhitespace(CAnsiUnit c)
{
    return !bPrintableASCII(c) && std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool bWhitespace(CUnicodeUnit c)
{
    return !bPrintableASCII(c) && std::iswspace(c) != 0;
}

/// Whether two units are the same but for their case, in the current locale. Two ASCII characters that differ
/// in more than the bit between "A" and "a" are different in every locale: this decides nearly every
/// comparison without a call of the C library.
template <class TUnit>
bool bSameButForCase(TUnit c1, TUnit c2)
{
    constexpr int nCaseBit = 'A' ^ 'a';
    const auto n1 = static_cast<std::make_unsigned_t<TUnit>>(c1);
    const auto n2 = static_cast<std::make_unsigned_t<TUnit>>(c2);
    if (n1 == n2) {
        return true;
    }

    const bool bASCII = (n1 | n2) < 0x80;
    const bool bMoreThanCase = ((n1 ^ n2) & ~nCaseBit) != 0;
    return !(bASCII && bMoreThanCase) && nFold(c1) == nFold(c2);
}

template <class TUnit>
bool bSpaceOrTab(TUnit c)
{
    return c == TUnit{' '} || c == TUnit{'\t'};
}

template <class TUnit>
bool bCROrLF(TUnit c)
{
    return c == TUnit{'\r'} || c == TUnit{'\n'};
}

template <class TUnit>
bool bBeginsWith(CUnitsView<TUnit> csLine, TUnit c)
{
    return !csLine.empty() && csLine.front() == c;
}

template <class TUnit>
bool bBeginsWithName(CUnitsView<TUnit> csLine, CUnitsView<TUnit> csName)
{
    return csLine.size() >= csName.size() &&
           std::ranges::equal(csName, csLine.substr(0, csName.size()), bSameButForCase<TUnit>);
}

/// Whether the line starts with "[", the section's name and "]".
template <class TUnit>
bool bIsHeaderOf(CUnitsView<TUnit> csLine, CUnitsView<TUnit> csSection)
{
    return bBeginsWith(csLine, TUnit{'['}) && bBeginsWithName(csLine.substr(1), csSection) &&
           bBeginsWith(csLine.substr(csSection.size() + 1), TUnit{']'});
}

/// Whether the line starts with the key's name, directly followed by "=", a space or a tab.
template <class TUnit>
bool bIsKeyLineOf(CUnitsView<TUnit> csLine, CUnitsView<TUnit> csKey)
{
    if (!bBeginsWithName(csLine, csKey) || csLine.size() == csKey.size()) {
        return false;
    }
    const TUnit c = csLine[csKey.size()];
    return c == TUnit{'='} || bSpaceOrTab(c);
}

/// The line without its leading whitespace, as the reader sees it. Not yet cut at a NUL, for which every line
/// would have to be searched: functions that look further than a given name call csUpToNUL first.
template <class TUnit>
CUnitsView<TUnit> csReaderText(CUnitsView<TUnit> csLine)
{
    const auto it = std::ranges::find_if_not(csLine, [](TUnit c) { return bWhitespace(c); });
    return csLine.substr(static_cast<std::size_t>(it - csLine.begin()));
}

/// The text up to its first NUL, where it ends for the reader.
template <class TUnit>
CUnitsView<TUnit> csUpToNUL(CUnitsView<TUnit> csText)
{
    return csText.substr(0, csText.find(TUnit{}));
}

/// Name in a section's header line, as the reader understands it; none for other lines.
template <class TUnit>
std::optional<CUnitsView<TUnit>> csHeaderName(CUnitsView<TUnit> csText)
{
    if (!bBeginsWith(csText, TUnit{'['})) {
        return std::nullopt;
    }
    const std::size_t nEnd = csUpToNUL(csText).find(TUnit{']'});
    return nEnd == csText.npos ? std::nullopt : std::optional(csText.substr(1, nEnd - 1));
}

/// Value of a key line: from the first character after "=" and the spaces and tabs that follow it, to the
/// line's CR or LF. None without a "=" from nAfterName on.
template <class TUnit>
std::optional<CUnits<TUnit>> csValueOf(CUnitsView<TUnit> csText, std::size_t nAfterName)
{
    csText = csUpToNUL(csText);
    const std::size_t nEqual = csText.find(TUnit{'='}, nAfterName);
    if (nEqual == csText.npos) {
        return std::nullopt;
    }

    // A CR ends the text wherever it stands: when it comes before the "=", the value is empty.
    const auto itEnd = std::ranges::find_if(csText, bCROrLF<TUnit>);
    const auto nEnd = static_cast<std::size_t>(itEnd - csText.begin());
    const std::size_t nBegin = std::min(nEqual + 1, nEnd);
    const CUnitsView<TUnit> csValue = csText.substr(nBegin, nEnd - nBegin);
    const auto itValue = std::ranges::find_if_not(csValue, bSpaceOrTab<TUnit>);
    return CUnits<TUnit>(itValue, csValue.end());
}

/// Adds a name to a list, which is none until its first name.
template <class TUnit>
void AppendListed(std::optional<CUnits<TUnit>>* pcsList, CUnitsView<TUnit> csName)
{
    constexpr TUnit tCRLF[] = {TUnit{'\r'}, TUnit{'\n'}};
    if (!pcsList->has_value()) {
        pcsList->emplace();
    }
    (*pcsList)->append(csName).append(tCRLF, std::size(tCRLF));
}

/// Name before "=", without trailing spaces and tabs; none for a line without "=".
template <class TUnit>
std::optional<CUnitsView<TUnit>> csKeyName(CUnitsView<TUnit> csText)
{
    std::size_t nEnd = csUpToNUL(csText).find(TUnit{'='});
    if (nEnd == csText.npos) {
        return std::nullopt;
    }
    while (nEnd > 0 && bSpaceOrTab(csText[nEnd - 1])) {
        --nEnd;
    }
    return csText.substr(0, nEnd);
}

/// Names of all sections. A section that the file has twice is listed twice.
template <class TUnit>
std::optional<CUnits<TUnit>> csListSections(CProfileFile& clFile)
{
    std::optional<CUnits<TUnit>> csList;
    clFile.ForEachLine<TUnit>([&](CUnitsView<TUnit> csLine) {
        if (const auto csName = csHeaderName(csReaderText(csLine))) {
            AppendListed(&csList, *csName);
        }
        return true;
    });
    return csList;
}

/// Whether a line's first unit alone shows that the line is neither a header nor the key's line, as it does
/// for most lines.
template <class TUnit>
bool bRuledOutByFirstUnit(CUnitsView<TUnit> csLine, CUnitsView<TUnit> csKey)
{
    const TUnit c = csLine.front(); // a line that was read has at least one unit
    return bPrintableASCII(c) && c != TUnit{'['} && !csKey.empty() && !bSameButForCase(c, csKey.front());
}

/// Searches a section from the line after its header. Returns the value of the key, or without a key the
/// names of all keys.
template <class TUnit>
std::optional<CUnits<TUnit>> csSearchKey(CProfileFile& clFile, std::optional<CUnitsView<TUnit>> csKey)
{
    std::optional<CUnits<TUnit>> csFound;
    clFile.ForEachLine<TUnit>([&](CUnitsView<TUnit> csLine) { // returns whether the search goes on
        if (csKey.has_value() && bRuledOutByFirstUnit(csLine, *csKey)) {
            return true;
        }

        const CUnitsView<TUnit> csText = csReaderText(csLine);
        if (csHeaderName(csText).has_value()) {
            return false;
        }
        if (bBeginsWith(csText, TUnit{':'})) { // a comment
            return true;
        }

        if (!csKey.has_value()) {
            if (const auto csName = csKeyName(csText)) {
                AppendListed(&csFound, *csName);
            }
            return true;
        }

        // The first line with the key's name and a "=" counts; one without a "=" is passed over.
        if (bIsKeyLineOf(csText, *csKey)) {
            csFound = csValueOf(csText, csKey->size());
        }
        return !csFound.has_value();
    });
    return csFound;
}

/// A part of the file, [nStart, nEnd) in bytes.
struct STSpan
{
    off_t nStart;
    off_t nEnd;
};

/// Finds the section's header and leaves the reading position after it. When there is none, the position is
/// the end of the file.
template <class TUnit>
std::optional<STSpan> stFindHeader(CProfileFile& clFile, CUnitsView<TUnit> csSection)
{
    off_t nStart = clFile.nPosition();
    for (STProfileLine<TUnit> stLine; clFile.STRG_nGetLine(&stLine) >= 0; nStart = clFile.nPosition()) {
        if (bIsHeaderOf(stLine.csText, csSection)) {
            return STSpan{nStart, clFile.nPosition()};
        }
    }
    return std::nullopt;
}

/// Position of the next line that begins with "[", or of the end of the file.
template <class TUnit>
off_t nFindSectionEnd(CProfileFile& clFile)
{
    off_t nStart = clFile.nPosition();
    for (STProfileLine<TUnit> stLine; clFile.STRG_nGetLine(&stLine) >= 0; nStart = clFile.nPosition()) {
        if (stLine.csText.front() == TUnit{'['}) { // a line that was read has at least one unit
            break;
        }
    }
    return nStart; // not clFile's position, which is already after that line
}

/// The key's line; when there is none, the empty part where the line belongs, before the line that ends the
/// section.
template <class TUnit>
STSpan stFindKeyLine(CProfileFile& clFile, CUnitsView<TUnit> csKey)
{
    off_t nStart = clFile.nPosition();
    for (STProfileLine<TUnit> stLine; clFile.STRG_nGetLine(&stLine) >= 0; nStart = clFile.nPosition()) {
        if (bIsKeyLineOf(stLine.csText, csKey)) {
            return {nStart, clFile.nPosition()};
        }
        // An empty line ends the section for the writer: a new key goes before it, not to the next header.
        if (bCROrLF(stLine.csText.front()) || stLine.csText.front() == TUnit{'['}) {
            break;
        }
    }
    return {nStart, nStart};
}

// Lines that the writer makes end with LF alone, whatever the other lines of the file end with.

template <class TUnit>
CUnits<TUnit> csHeaderLine(CUnitsView<TUnit> csSection)
{
    return CUnits<TUnit>(1, TUnit{'['}).append(csSection) + TUnit{']'} + TUnit{'\n'};
}

template <class TUnit>
CUnits<TUnit> csKeyLine(CUnitsView<TUnit> csKey, CUnitsView<TUnit> csValue)
{
    constexpr TUnit tEqual[] = {TUnit{' '}, TUnit{'='}, TUnit{' '}};
    return CUnits<TUnit>(csKey).append(tEqual, std::size(tEqual)).append(csValue) + TUnit{'\n'};
}

/// Replaces a part of the file by a text. An empty text in the place of an empty part, which is a deletion of
/// something that is not there, writes nothing.
template <class TUnit>
bool __bWriteKey(CProfileFile& clFile, STSpan stSpan, CUnitsView<TUnit> csText)
{
    return (csText.empty() && stSpan.nStart == stSpan.nEnd) ||
           clFile.bReplace(stSpan.nStart, stSpan.nEnd,
                           {reinterpret_cast<const char*>(csText.data()), csText.size() * sizeof(TUnit)});
}
} // namespace

template <class TUnit>
std::optional<CUnits<TUnit>> __GetPrivateProfileStringInterne(CProfileFile& clFile,
                                                              CUnitsView<TUnit> csSection,
                                                              std::optional<CUnitsView<TUnit>> csKey)
{
    if (csSection.empty()) {
        return csListSections<TUnit>(clFile);
    }

    // Of several sections of one name only the first is searched.
    for (STProfileLine<TUnit> stLine; clFile.STRG_nGetLine(&stLine) >= 0;) {
        if (bIsHeaderOf(csReaderText(stLine.csText), csSection)) {
            return csSearchKey(clFile, csKey);
        }
    }
    return std::nullopt;
}

template <class TUnit>
bool __WritePrivateProfileString(CProfileFile& clFile, CUnitsView<TUnit> csSection,
                                 std::optional<CUnitsView<TUnit>> csKey,
                                 std::optional<CUnitsView<TUnit>> csValue)
{
    // First the place of the change: the header's or the key's line, or the end of the file.
    const std::optional<STSpan> stHeader = stFindHeader(clFile, csSection);
    STSpan stSpan = {clFile.nPosition(), clFile.nPosition()};
    CUnits<TUnit> csText;
    if (!stHeader.has_value()) {
        csText = csHeaderLine(csSection);
    } else if (csKey.has_value()) {
        stSpan = stFindKeyLine(clFile, *csKey);
    } else {
        stSpan = {stHeader->nStart, nFindSectionEnd<TUnit>(clFile)};
    }

    // A failed read looks like the end of the file: the section or key would be written a second time.
    if (clFile.bReadFailed()) {
        return false;
    }

    // Then what stands there afterwards. A deletion writes nothing, not even the header prepared above.
    if (csKey.has_value() && csValue.has_value()) {
        csText += csKeyLine(*csKey, *csValue);
    } else {
        csText.clear();
    }
    return __bWriteKey<TUnit>(clFile, stSpan, csText);
}

template std::optional<std::string> __GetPrivateProfileStringInterne(CProfileFile&, std::string_view,
                                                                     std::optional<std::string_view>);
template std::optional<std::u16string> __GetPrivateProfileStringInterne(CProfileFile&, std::u16string_view,
                                                                        std::optional<std::u16string_view>);
template bool __WritePrivateProfileString(CProfileFile&, std::string_view, std::optional<std::string_view>,
                                          std::optional<std::string_view>);
template bool __WritePrivateProfileString(CProfileFile&, std::u16string_view,
                                          std::optional<std::u16string_view>,
                                          std::optional<std::u16string_view>);
