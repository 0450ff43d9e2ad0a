#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

/// Owns one file descriptor; -1 is none. Closing keeps errno, so that an early return still reports the cause
/// of the failure.
class CDescripteur
{
public:
    explicit CDescripteur(int nFd = -1) noexcept : m_nFd(nFd) {}
    CDescripteur(CDescripteur&& clOther) noexcept : m_nFd(clOther.nRelease()) {}
    CDescripteur& operator=(CDescripteur&& clOther) noexcept
    {
        const int nFd = clOther.nRelease(); // first, so that a move to itself keeps the descriptor
        Close();
        m_nFd = nFd;
        return *this;
    }
    CDescripteur(const CDescripteur&) = delete;
    CDescripteur& operator=(const CDescripteur&) = delete;
    ~CDescripteur() { Close(); }

    int nFd() const noexcept { return m_nFd; }
    bool bOpen() const noexcept { return m_nFd >= 0; }
    /// Gives the descriptor away; the caller closes it.
    int nRelease() noexcept { return std::exchange(m_nFd, -1); }
    /// Does nothing when there is none. An error of close() is ignored: the number is free all the same.
    void Close() noexcept
    {
        if (!bOpen()) {
            return;
        }
        const int nErrno = errno;
        ::close(nRelease());
        errno = nErrno;
    }

private:
    int m_nFd;
};
