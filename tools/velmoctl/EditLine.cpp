#include "support/Conversion.h"
#include "velmoctl/LineEditor.h"

#include <algorithm>

void CEditLine::Insert(wchar_t c)
{
    constexpr std::size_t nMax = 4096;
    if (m_csText.size() < nMax) {
        m_csText.insert(m_nCursor++, 1, c);
    }
}

void CEditLine::Key(EKey eKey)
{
    const std::size_t nEnd = m_csText.size();
    switch (eKey) {
    case EKey::LEFT:
        m_nCursor -= m_nCursor > 0 ? 1 : 0;
        break;
    case EKey::RIGHT:
        m_nCursor += m_nCursor < nEnd ? 1 : 0;
        break;
    case EKey::HOME:
        m_nCursor = 0;
        break;
    case EKey::END:
        m_nCursor = nEnd;
        break;
    case EKey::UP:
        _Show(m_nLine > 0 ? m_nLine - 1 : 0);
        break;
    case EKey::DOWN:
        _Show(std::min(m_nLine + 1, m_tHistory.size()));
        break;
    case EKey::BACKSPACE:
        _Erase(m_nCursor > 0 ? m_nCursor - 1 : 0, m_nCursor);
        break;
    case EKey::DELETE:
        _Erase(m_nCursor, std::min(m_nCursor + 1, nEnd));
        break;
    case EKey::KILL_TO_END:
        _Erase(m_nCursor, nEnd);
        break;
    case EKey::KILL_TO_START:
        _Erase(0, m_nCursor);
        break;
    case EKey::KILL_WORD: {
        const std::size_t nLast = m_csText.substr(0, m_nCursor).find_last_not_of(L' ');
        const std::size_t nBlank = nLast == m_csText.npos ? nLast : m_csText.find_last_of(L' ', nLast);
        _Erase(nBlank == m_csText.npos ? 0 : nBlank + 1, m_nCursor);
        break;
    }
    }
}

void CEditLine::Complete(const std::vector<std::string>& tCandidates)
{
    const std::wstring csStart = m_csText.substr(0, m_nCursor);
    std::optional<std::wstring> csCommon;
    std::size_t nMatches = 0;
    for (const std::string& csCandidate : tCandidates) {
        const std::wstring cs = csFromUTF8(csCandidate);
        if (!cs.starts_with(csStart)) {
            continue;
        }
        csCommon = csCommon.value_or(cs);
        const auto itDiffers = std::mismatch(csCommon->begin(), csCommon->end(), cs.begin(), cs.end()).first;
        csCommon->erase(itDiffers, csCommon->end());
        ++nMatches;
    }
    for (const wchar_t c : csCommon.value_or(csStart).substr(csStart.size()) + (nMatches == 1 ? L" " : L"")) {
        Insert(c);
    }
}

void CEditLine::_Show(std::size_t nLine)
{
    if (m_nLine == m_tHistory.size()) {
        m_csNew = m_csText;
    }
    m_nLine = nLine;
    m_csText = nLine < m_tHistory.size() ? m_tHistory[nLine] : m_csNew;
    m_nCursor = m_csText.size();
}

void CEditLine::_Erase(std::size_t nFrom, std::size_t nTo)
{
    m_csText.erase(nFrom, nTo - nFrom);
    m_nCursor = nFrom;
}
