#include "support/SelectSet.h"

#include <algorithm>
#include <cstddef>

namespace {
// The bits are set by hand: the C library's checked FD_SET aborts the program at descriptor 1024, however
// large the set is.
constexpr std::size_t s_nBits = 8 * sizeof(fd_mask); ///< of one word of the set

std::size_t nWord(int nFd)
{
    return static_cast<std::size_t>(nFd) / s_nBits;
}

fd_mask nMask(int nFd)
{
    return static_cast<fd_mask>(1UL << (static_cast<std::size_t>(nFd) % s_nBits));
}
} // namespace

void CSelectSet::Add(int nFd)
{
    if (nFd < 0) {
        return;
    }
    m_nHighest = std::max(m_nHighest, nFd);
    m_tAsked.resize(std::max(m_tAsked.size(), nWord(nFd) + 1));
    m_tAsked[nWord(nFd)] |= nMask(nFd);
}

int CSelectSet::nSelect(timeval* pstTimeout)
{
    m_tReady = m_tAsked;
    const int nReady =
        ::select(m_nHighest + 1, reinterpret_cast<fd_set*>(m_tReady.data()), nullptr, nullptr, pstTimeout);
    if (nReady <= 0) {
        m_tReady.clear(); // select leaves a set unchanged when it fails
    }
    return nReady;
}

bool CSelectSet::bReadable(int nFd) const
{
    return nFd >= 0 && nWord(nFd) < m_tReady.size() && (m_tReady[nWord(nFd)] & nMask(nFd)) != 0;
}
