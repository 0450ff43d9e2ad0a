#include "manager/LineBuffer.h"

bool CLineBuffer::bAppend(std::wstring_view csBlock)
{
    if (csBlock.empty()) {
        return false;
    }

    // CR LF may lie across two blocks. The CR has then been kept as text, unless the line was cut before it.
    if (m_bEndsInCR && csBlock.front() == L'\n') {
        if (!m_bCut) {
            m_csText.pop_back();
        }
        return true;
    }

    const std::size_t nEnd = csBlock.find(L"\r\n");
    _Keep(csBlock.substr(0, nEnd));
    m_bEndsInCR = csBlock.back() == L'\r';
    return nEnd != csBlock.npos;
}

void CLineBuffer::_Keep(std::wstring_view csText)
{
    const std::size_t nRoom = s_nMaxLine - m_csText.size();
    m_bCut = m_bCut || csText.size() > nRoom;
    m_csText += csText.substr(0, nRoom);
}

void CLineBuffer::Clear()
{
    std::wstring().swap(m_csText); // clear() would keep the memory
    m_bCut = false;
    m_bEndsInCR = false;
}
