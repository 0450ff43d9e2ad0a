// Checks a DXConf.ini: follows the file as the reader and as the writer of settings do, and reports where
// they disagree.

#include "velmoctl/Lint.h"

#include "support/Conversion.h"
#include "velmoctl/Commands.h"
#include "velmoctl/Json.h"
#include "velmoctl/Terminal.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>

namespace {
constexpr std::string_view s_csMarkUTF16 = "\xFF\xFE", s_csMarkBigEndian = "\xFE\xFF",
                           s_csMarkUTF8 = "\xEF\xBB\xBF";
constexpr std::wstring_view s_csSpace = L" \t\n\v\f\r"; // what the reader skips in front of a line

std::string csQuoted(std::wstring_view cs)
{
    return "\"" + csToUTF8(cs) + "\"";
}

/// Whether a text in a single-byte file was probably written as UTF-8.
bool bLooksLikeUTF8(std::wstring_view csLine)
{
    const std::string csBytes = csNarrow(csLine, CP_1252);
    const bool bBeyondASCII =
        std::ranges::any_of(csBytes, [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
    return bBeyondASCII && csFromUTF8(csBytes).find(L'\xFFFD') == std::wstring::npos;
}

/// The place after the line that begins at nStart: after its newline, or at the end of the text.
std::size_t nNextLine(std::wstring_view csText, std::size_t nStart)
{
    return std::min(csText.find(L'\n', nStart), csText.size() - 1) + 1;
}

/// Goes through a file line by line and follows both the reader and the writer of settings, whose rules
/// differ: see docs/settings.md.
class CLinter
{
public:
    explicit CLinter(bool bSingleByte) : m_bSingleByte(bSingleByte) {}

    /// Checks the next line, newline included.
    void Line(std::wstring_view csLine)
    {
        ++m_nLine;
        std::wstring_view csText = csLine.substr(0, csLine.find(L'\0')); // as the programs' C strings end
        if (csText.size() < csLine.size()) {
            Find("what follows the NUL character is not read");
        }

        csText.remove_prefix(std::min(csText.find_first_not_of(s_csSpace), csText.size()));
        const bool bIndented = csText.data() != csLine.data();
        if (csText.starts_with(L'[')) {
            _Bracket(csText, bIndented);
        } else if (!csText.empty() && csText[0] != L':' && csText[0] != L';' && csText[0] != L'#') {
            _KeyLine(csText, bIndented);
        }

        // To the writer an empty line ends the section; whitespace in the line is enough to prevent that.
        if (csLine.starts_with(L'\n') || csLine.starts_with(L'\r')) {
            m_nWriterEnd = m_nWriterEnd == 0 ? m_nLine : m_nWriterEnd;
        }

        if (!csLine.ends_with(L'\n')) {
            Find("the last line has no newline: what is added later will continue it");
        }
    }
    /// Counts a line without checking it.
    void SkipLine() { ++m_nLine; }
    /// Adds a finding about the line read last; before the first one, about that.
    void Find(std::string csText) { m_tFindings.push_back({std::max(m_nLine, 1u), std::move(csText)}); }
    std::vector<STFinding> tTake() { return std::move(m_tFindings); }

private:
    /// A line that begins with "[", after whitespace when bIndented: the reader accepts the whitespace, the
    /// writer looks for "[" in the first column only.
    void _Bracket(std::wstring_view csText, bool bIndented)
    {
        const std::size_t nEnd = csText.find(L']');
        if (nEnd == csText.npos) {
            Find("a line that begins with \"[\" but has no \"]\" is no section header, but a change of a "
                 "later key does not get past it");
            m_nWriterEnd = bIndented ? m_nWriterEnd : m_nLine;
            return;
        }

        m_csSection = csText.substr(1, nEnd - 1);
        m_bSection = true;
        m_nWriterEnd = 0;

        const bool bRepeated =
            std::ranges::any_of(m_tSections, [&](const auto& cs) { return bSameName(cs, m_csSection); });
        m_bIgnored = bRepeated || !bKnownSection(m_csSection);
        m_tSections.push_back(m_csSection);

        if (!bKnownSection(m_csSection)) {
            Find("unknown section " + csQuoted(m_csSection));
        } else if (bRepeated) {
            Find("section " + csQuoted(m_csSection) + " exists already: nothing in this one is read");
        } else if (bIndented) {
            Find("the indented header " + csQuoted(m_csSection) +
                 " is read, but a change will write a second section");
        }
    }

    /// Any other line that is not a comment: it should be "key=value".
    void _KeyLine(std::wstring_view csText, bool bIndented)
    {
        const std::size_t nName = std::min(csText.find_first_of(L"= \t\r\n"), csText.size());
        const std::wstring csKey(csText.substr(0, nName));
        const std::size_t nEqual = csText.find(L'=', nName);
        if (!m_bSection) {
            Find(csQuoted(csKey) + " stands before the first section: it is never read");
        } else if (nEqual == csText.npos) {
            Find("a line without \"=\" is never read, but may be overwritten");
        } else if (!m_bIgnored) {
            _Key(csKey, csText.substr(nName, nEqual - nName), csText.substr(nEqual + 1), bIndented);
        }
    }

    /// A key of a section that is read: with the text up to its "=" and the text after that.
    void _Key(const std::wstring& csKey, std::wstring_view csBetween, std::wstring_view csRest,
              bool bIndented)
    {
        if (csBetween.find_first_not_of(L" \t") != csBetween.npos) {
            Find("the text between " + csQuoted(csKey) + " and \"=\" is ignored");
        }

        const STSetting* const pst = pstSetting(m_csSection, csKey);
        if (pst == nullptr) {
            _UnknownKey(csKey);
            return;
        }
        if (!_bNoteKey(csKey)) {
            return;
        }

        if (bIndented) {
            Find(csQuoted(csKey) +
                 " is indented: it is read, but a change will write a second line, which is never read");
        } else if (m_nWriterEnd != 0) {
            Find(csQuoted(csKey) + " is after line " + std::to_string(m_nWriterEnd) +
                 ", where the section ends for a change: a second line will be written there");
        }

        _Value(*pst, csRest);
    }

    void _UnknownKey(const std::wstring& csKey)
    {
        const wchar_t* const pszElsewhere = pszSectionOf(csKey);
        Find("unknown key " + csQuoted(csKey) + " in section " + csQuoted(m_csSection) +
             (pszElsewhere == nullptr ? "" : ": it belongs to section " + csQuoted(pszElsewhere)));
    }

    /// Notes a known key and its line. False, with a finding, when an earlier line sets the key: the name
    /// alone decides, since no two sections share a key and a repeated section is passed over.
    bool _bNoteKey(const std::wstring& csKey)
    {
        for (const auto& [csEarlier, nLine] : m_tKeys) {
            if (bSameName(csEarlier, csKey)) {
                Find(csQuoted(csKey) + " is set in line " + std::to_string(nLine) +
                     " already: only that counts");
                return false;
            }
        }
        m_tKeys.emplace_back(csKey, m_nLine);
        return true;
    }

    /// The value of a setting in the text after "=", which ends with the line's newline.
    void _Value(const STSetting& stSetting, std::wstring_view csRest)
    {
        const std::size_t nEnd = std::min(csRest.find_first_of(L"\r\n"), csRest.size());
        const std::size_t nStart = std::min(csRest.find_first_not_of(L" \t"), nEnd);
        if (nEnd < csRest.size() && csRest.find_first_not_of(L"\r\n", nEnd) != csRest.npos) {
            Find("what follows the carriage return is not read");
        }

        const std::wstring csValue(csRest.substr(nStart, nEnd - nStart));
        if (const std::string csFault = csValueFault(stSetting, csValue); !csFault.empty()) {
            Find(csToUTF8(stSetting.pszKey) + ": " + csFault);
        }

        if (m_bSingleByte && bLooksLikeUTF8(csValue)) {
            Find(csToUTF8(stSetting.pszKey) +
                 ": the value is in UTF-8, but will be read as Windows-1252: " + csQuoted(csValue));
        }
    }

    bool m_bSingleByte;
    unsigned int m_nLine = 0;
    unsigned int m_nWriterEnd = 0; ///< line where the section ends for the writer; 0: not yet
    bool m_bSection = false;       ///< a header has been read
    bool m_bIgnored = false;       ///< an unknown or repeated section, reported at its header
    std::wstring m_csSection;
    std::vector<std::wstring> m_tSections;
    std::vector<std::pair<std::wstring, unsigned int>> m_tKeys; ///< known ones, with their lines
    std::vector<STFinding> m_tFindings;
};

/// The text of a file without its byte order mark: one character for each byte or UTF-16 unit, as the
/// programs read it.
std::wstring csUnits(std::string_view csBytes, bool bUTF16)
{
    if (!bUTF16) {
        return csWide(csBytes, CP_SYSTEM);
    }
    std::wstring csText;
    for (std::size_t n = 0; n + 1 < csBytes.size(); n += 2) {
        const auto nLow = static_cast<unsigned char>(csBytes[n]);
        const auto nHigh = static_cast<unsigned char>(csBytes[n + 1]);
        csText += static_cast<wchar_t>(nLow | nHigh << 8);
    }
    return csText;
}

/// The whole file. Throws CFailure (USAGE) for what is no regular file, or too large to hold settings.
std::string csReadFile(const std::string& csPath)
{
    constexpr std::uintmax_t nMax = 4u << 20;
    std::error_code clError;
    if (!std::filesystem::is_regular_file(csPath, clError)) {
        const std::string csWhy = clError ? clError.message() : "not a regular file";
        throw CFailure(EExit::USAGE, csArgument(csPath) + ": " + csWhy);
    }

    // One byte more than the limit shows that a file is too large. A size that cannot be had is the largest
    // number, and the file is then read up to there.
    std::ifstream clFile(csPath, std::ios::binary);
    std::string csBytes(std::min(std::filesystem::file_size(csPath, clError), nMax + 1), '\0');
    clFile.read(csBytes.data(), static_cast<std::streamsize>(csBytes.size()));
    csBytes.resize(static_cast<std::size_t>(clFile.gcount()));
    if (!clFile.is_open() || clFile.bad() || csBytes.size() > nMax) {
        throw CFailure(EExit::USAGE, csArgument(csPath) + ": cannot be read, or is larger than 4 MiB");
    }

    return csBytes;
}
} // namespace

std::vector<STFinding> tLint(std::string_view csBytes)
{
    if (csBytes.starts_with(s_csMarkBigEndian)) {
        return {{1, "the file is UTF-16 in the wrong byte order (big-endian): nothing in it is read"}};
    }

    const bool bUTF16 = csBytes.starts_with(s_csMarkUTF16);
    CLinter clLinter(!bUTF16);
    const std::wstring csText = csUnits(csBytes.substr(bUTF16 ? s_csMarkUTF16.size() : 0), bUTF16);

    // With three characters in front the first line is neither header nor key to the programs: pass over it.
    std::size_t nStart = 0;
    if (csBytes.starts_with(s_csMarkUTF8)) {
        clLinter.SkipLine();
        clLinter.Find("the file begins with a UTF-8 byte order mark, which hides its first line; it is read "
                      "as Windows-1252");
        nStart = nNextLine(csText, 0);
    }

    while (nStart < csText.size()) {
        const std::size_t nEnd = nNextLine(csText, nStart);
        clLinter.Line(std::wstring_view(csText).substr(nStart, nEnd - nStart));
        nStart = nEnd;
    }

    if (bUTF16 && csBytes.size() % 2 != 0) {
        clLinter.Find("the file ends in the middle of a character");
    }

    return clLinter.tTake();
}

EExit eLint(const STCall& stCall)
{
    const std::string csFile = csArgument(stCall.tArguments[0]);
    const std::vector<STFinding> tFindings = tLint(csReadFile(stCall.tArguments[0]));
    Json clFindings = Json::array();
    for (const STFinding& st : tFindings) {
        clFindings.push_back({{"line", st.nLine}, {"text", st.csText}});
        if (!stCall.stOptions.bJson) {
            std::cout << csColoured(csShown(csFile) + ":" + std::to_string(st.nLine) + ":", EColour::BOLD)
                      << " " << csShown(st.csText) << "\n";
        }
    }

    if (stCall.stOptions.bJson) {
        std::cout << csJsonLine(clFindings);
    }

    return tFindings.empty() ? EExit::DONE : EExit::REFUSED;
}
