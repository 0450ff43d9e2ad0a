#include "velmoctl/LineEditor.h"

#include "support/Conversion.h"
#include "velmoctl/Terminal.h"
#include "velmoctl/Waiting.h"

#include <algorithm>
#include <bit>
#include <iostream>
#include <iterator>
#include <unistd.h>

namespace {
constexpr std::size_t s_nMaxLine = 65536;
constexpr char s_cEscape = '\033';

constexpr char cControl(char c)
{
    return static_cast<char>(c & 0x1F);
}

/// Bytes that a terminal sends for a key.
struct STKey
{
    const char* pszBytes;
    CEditLine::EKey eKey;
};
constexpr STKey s_tKeys[] = {
    {"\033[D", CEditLine::EKey::LEFT},
    {"\033OD", CEditLine::EKey::LEFT},
    {"\x02", CEditLine::EKey::LEFT},
    {"\033[C", CEditLine::EKey::RIGHT},
    {"\033OC", CEditLine::EKey::RIGHT},
    {"\x06", CEditLine::EKey::RIGHT},
    {"\033[H", CEditLine::EKey::HOME},
    {"\033OH", CEditLine::EKey::HOME},
    {"\033[1~", CEditLine::EKey::HOME},
    {"\x01", CEditLine::EKey::HOME},
    {"\033[F", CEditLine::EKey::END},
    {"\033OF", CEditLine::EKey::END},
    {"\033[4~", CEditLine::EKey::END},
    {"\x05", CEditLine::EKey::END},
    {"\033[A", CEditLine::EKey::UP},
    {"\033OA", CEditLine::EKey::UP},
    {"\x10", CEditLine::EKey::UP},
    {"\033[B", CEditLine::EKey::DOWN},
    {"\033OB", CEditLine::EKey::DOWN},
    {"\x0E", CEditLine::EKey::DOWN},
    {"\x7F", CEditLine::EKey::BACKSPACE},
    {"\b", CEditLine::EKey::BACKSPACE},
    {"\033[3~", CEditLine::EKey::DELETE},
    {"\x0B", CEditLine::EKey::KILL_TO_END},
    {"\x15", CEditLine::EKey::KILL_TO_START},
    {"\x17", CEditLine::EKey::KILL_WORD},
};

/// The next byte of the terminal; none when there is none in time, or at the end.
std::optional<char> cNext(Milliseconds clTime)
{
    char c = 0;
    if (!bWaitFor(STDIN_FILENO, POLLIN, CDeadline(clTime)) || ::read(STDIN_FILENO, &c, 1) != 1) {
        return std::nullopt;
    }
    return c;
}

/// Whether an escape sequence that began with these bytes goes on.
bool bGoesOn(const std::string& csKey)
{
    if (csKey.size() < 3) {
        return csKey.size() < 2 || csKey[1] == '[' || csKey[1] == 'O';
    }
    return csKey[1] == '[' && (csKey.back() < '@' || csKey.back() > '~') && csKey.size() < 16;
}

/// All the bytes of one key: a character, a control character or an escape sequence; empty at the end of the
/// input.
std::string csReadKey()
{
    constexpr Milliseconds clLong(1'000'000), clTogether(100);
    std::optional<char> c;
    while (!(c = cNext(clLong)).has_value()) {
        if (bWaitFor(STDIN_FILENO, POLLIN, CDeadline(Milliseconds::zero()))) {
            return ""; // readable, but there is nothing: the end
        }
    }
    std::string csKey(1, *c);
    const int nBytes = std::countl_one(static_cast<unsigned char>(*c)); // of a UTF-8 character; 0: one
    while ((*c == s_cEscape ? bGoesOn(csKey) : static_cast<int>(csKey.size()) < nBytes)) {
        const std::optional<char> cMore = cNext(clTogether);
        if (!cMore.has_value()) {
            break;
        }
        csKey += *cMore;
    }
    return csKey;
}

/// Shows the part of the line around the cursor that has room behind the prompt.
void Draw(const std::string& csPrompt, const CEditLine& clLine)
{
    const std::size_t nRoom =
        std::max<std::size_t>(stTerminalSize().nColumns, nColumns(csPrompt) + 10) - nColumns(csPrompt) - 1;
    const std::wstring& csText = clLine.csText();
    std::size_t nFirst = 0;
    while (nColumns(csToUTF8(csText.substr(nFirst, clLine.nCursor() - nFirst))) > nRoom) {
        ++nFirst;
    }
    std::size_t nCount = csText.size() - nFirst;
    while (nColumns(csToUTF8(csText.substr(nFirst, nCount))) > nRoom) {
        --nCount;
    }
    const std::size_t nBehind =
        nColumns(csPrompt) + nColumns(csToUTF8(csText.substr(nFirst, clLine.nCursor() - nFirst)));
    std::cout << "\r" << csPrompt << csShown(csToUTF8(csText.substr(nFirst, nCount))) << "\033[K\r\033["
              << nBehind << "C" << std::flush;
}

/// A key that changes the line; other control keys do nothing.
void Apply(const std::string& csKey, const std::vector<std::string>& tCompletions, CEditLine* pclLine)
{
    const auto* const pst = std::find_if(std::begin(s_tKeys), std::end(s_tKeys),
                                         [&](const STKey& st) { return csKey == st.pszBytes; });
    if (pst != std::end(s_tKeys)) {
        pclLine->Key(pst->eKey);
    } else if (csKey == "\t") {
        pclLine->Complete(tCompletions);
    } else if (static_cast<unsigned char>(csKey[0]) >= ' ') {
        for (const wchar_t c : csFromUTF8(csKey)) {
            pclLine->Insert(c);
        }
    }
}
} // namespace

std::optional<std::string> CLineEditor::csRead(const std::string& csPrompt)
{
    if (bTerminal(STDIN_FILENO) && bTerminal(STDOUT_FILENO)) {
        return _csEdit(csPrompt);
    }
    std::string csLine;
    return bReadLine(&csLine, s_nMaxLine) ? std::optional<std::string>(csLine) : std::nullopt;
}

std::optional<std::string> CLineEditor::_csEdit(const std::string& csPrompt)
{
    const CRawTerminal clRaw(false);
    CEditLine clLine(m_tHistory);
    std::string csKey;
    for (Draw(csPrompt, clLine); csKey = csReadKey(), csKey != "\r" && csKey != "\n";
         Draw(csPrompt, clLine)) {
        const bool bEnd = csKey.empty() || (csKey[0] == cControl('D') && clLine.csText().empty());
        if (bEnd || csKey[0] == cControl('C')) {
            std::cout << "\n" << std::flush;
            return bEnd ? std::nullopt : std::optional<std::string>("");
        }
        Apply(csKey[0] == cControl('D') ? "\033[3~" : csKey, m_tCompletions, &clLine);
    }
    std::cout << "\n" << std::flush;
    const std::wstring& csText = clLine.csText();
    if (!csText.empty() && (m_tHistory.empty() || m_tHistory.back() != csText)) {
        m_tHistory.push_back(csText);
    }
    return csToUTF8(csText);
}
