#include "config/ProfileFile.h"

#include "support/ForOverwrite.h"
#include "support/SignalMask.h"
#include "support/SystemCall.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

static_assert(std::endian::native == std::endian::little, "units are copied from the file as they are");

namespace {
/// Writes all of the bytes at a position; ENOSPC where the system just takes none.
bool bWriteAt(int nFd, std::string_view csBytes, off_t nPosition)
{
    while (!csBytes.empty()) {
        const ssize_t nWritten =
            nRetry([&] { return ::pwrite(nFd, csBytes.data(), csBytes.size(), nPosition); });
        if (nWritten <= 0) {
            errno = nWritten == 0 ? ENOSPC : errno;
            return false;
        }
        csBytes.remove_prefix(static_cast<std::size_t>(nWritten));
        nPosition += nWritten;
    }
    return true;
}

/// Appends all that the file holds from a position on.
bool bReadTail(int nFd, off_t nPosition, off_t nSize, std::string* pcsBytes)
{
    const std::size_t nBefore = pcsBytes->size();
    std::size_t nLeft = nSize > nPosition ? static_cast<std::size_t>(nSize - nPosition) : 0;
    pcsBytes->resize(nBefore + nLeft);
    for (char* p = pcsBytes->data() + nBefore; nLeft > 0;) {
        const ssize_t nRead = nRetry([&] { return ::pread(nFd, p, nLeft, nPosition); });
        if (nRead <= 0) {
            errno = nRead == 0 ? EIO : errno; // the file became shorter under our hands
            return false;
        }
        p += nRead;
        nPosition += nRead;
        nLeft -= static_cast<std::size_t>(nRead);
    }
    return true;
}

/// Makes the file hold the bytes from nStart to its end. The part that lies behind the old end is written
/// first and taken back on failure; overwriting the rest needs no new space.
bool bWriteToEnd(int nFd, off_t nStart, off_t nSize, std::string_view csBytes)
{
    const CNoFileSizeSignal clNoSignal;
    const std::size_t nInside =
        std::min(csBytes.size(), static_cast<std::size_t>(std::max<off_t>(nSize - nStart, 0)));
    if (!bWriteAt(nFd, csBytes.substr(nInside), nStart + static_cast<off_t>(nInside))) {
        const int nErrno = errno;
        (void)nRetry([&] { return ::ftruncate(nFd, nSize); }); // the failed write is what is reported
        errno = nErrno;
        return false;
    }
    const off_t nNewSize = nStart + static_cast<off_t>(csBytes.size());
    return bWriteAt(nFd, csBytes.substr(0, nInside), nStart) &&
           (nNewSize >= nSize || nRetry([&] { return ::ftruncate(nFd, nNewSize); }) == 0);
}
constexpr int s_nMaxLinks = 40; ///< followed one after the other, as by the kernel

/// Text of the link that a descriptor stands for; empty (errno set) when it cannot be read.
std::string csLinkText(int nLink)
{
    std::string csText(PATH_MAX, '\0');
    const ssize_t nLength = ::readlinkat(nLink, "", csText.data(), csText.size());
    csText.resize(static_cast<std::size_t>(std::max<ssize_t>(nLength, 0)));
    return csText;
}

bool bOwnedByRoot(int nFd)
{
    struct stat st
    {};
    return ::fstat(nFd, &st) == 0 && st.st_uid == 0;
}

/// A name in an open folder; without one, a path.
struct STPlace
{
    CDescripteur clFolder;
    std::string csName;

    int nFolder() const { return clFolder.bOpen() ? clFolder.nFd() : AT_FDCWD; }
    CDescripteur clOpenPath(const std::string& cs, int nFlags) const
    {
        return CDescripteur(
            nRetry([&] { return ::openat(nFolder(), cs.c_str(), O_PATH | O_CLOEXEC | nFlags); }));
    }
};

/// Moves to the target of the link that an open descriptor is. False (EPERM) when root does not own the link
/// and the folder that holds its target.
bool bFollow(int nLink, STPlace* pstPlace)
{
    const std::string csTarget = csLinkText(nLink);
    if (csTarget.empty()) {
        return false;
    }
    // A relative target begins in the folder that holds the link.
    const std::string csFrom = pstPlace->csName.substr(0, pstPlace->csName.rfind('/') + 1);
    const std::string csWhole = csTarget.front() == '/' ? csTarget : csFrom + csTarget;
    const std::size_t nName = csWhole.rfind('/') + 1;

    CDescripteur clFolder = pstPlace->clOpenPath(nName == 0 ? "." : csWhole.substr(0, nName), O_DIRECTORY);
    if (!clFolder.bOpen()) {
        return false;
    }
    if (!bOwnedByRoot(nLink) || !bOwnedByRoot(clFolder.nFd())) {
        errno = EPERM;
        return false;
    }
    *pstPlace = {std::move(clFolder), csWhole.substr(nName)};
    return true;
}

/// Opens the file at a path for writing, and through such links only as root made: a server's user may put a
/// link beside its settings, and root would write to its target. All is judged on what was opened, so that a
/// name that changes meanwhile does not matter.
CDescripteur clOpenToWrite(const std::string& csPath, int nFlags)
{
    STPlace stPlace{CDescripteur(), csPath};
    for (int n = 0; n < s_nMaxLinks; ++n) {
        const CDescripteur clFound = stPlace.clOpenPath(stPlace.csName, O_NOFOLLOW);
        struct stat st
        {};
        if (!clFound.bOpen() || ::fstat(clFound.nFd(), &st) != 0 || !S_ISLNK(st.st_mode)) {
            return clOpenRegularAt(stPlace.nFolder(), stPlace.csName, nFlags | O_NOFOLLOW);
        }
        if (!bFollow(clFound.nFd(), &stPlace)) {
            return CDescripteur();
        }
    }
    errno = ELOOP;
    return CDescripteur();
}

/// A file with a second name may be another user's file: what is written here would be written there.
bool bHasOneName(int nFd)
{
    struct stat st
    {};
    if (::fstat(nFd, &st) != 0) {
        return false;
    }
    errno = st.st_nlink > 1 ? EMLINK : errno;
    return st.st_nlink <= 1;
}
} // namespace

CProfileFile::CProfileFile() : m_pBuffer(pMakeForOverwrite<CBuffer>()) {}

bool CProfileFile::_bTake(CDescripteur clFile)
{
    m_clFile = std::move(clFile);
    struct stat st
    {};
    if (!m_clFile.bOpen() || ::fstat(m_clFile.nFd(), &st) != 0) {
        return false;
    }
    if (st.st_size > g_nMaxProfileFile) {
        m_clFile.Close();
        errno = EFBIG;
    }
    return m_clFile.bOpen();
}

bool CProfileFile::bOpenToRead(const std::string& csPath)
{
    return _bTake(clOpenRegular(csPath, O_RDONLY));
}

bool CProfileFile::_bOpenToWrite(const std::string& csPath, int nFlags)
{
    if (!_bTake(clOpenToWrite(csPath, nFlags)) || bHasOneName(m_clFile.nFd())) {
        return m_clFile.bOpen();
    }
    m_clFile.Close(); // keeps errno
    return false;
}

bool CProfileFile::bOpenToUpdate(const std::string& csPath)
{
    // Two steps: with O_CREAT the system refuses root an existing file of another user in a shared directory.
    return _bOpenToWrite(csPath, O_RDWR) || (errno == ENOENT && _bOpenToWrite(csPath, O_RDWR | O_CREAT));
}

bool CProfileFile::bFichierUnicode()
{
    constexpr std::string_view csMark = "\xFF\xFE";
    while (m_nEnd < csMark.size() && _bFill()) { // the lines come out of the same read
    }
    const bool bUnicode = std::string_view(m_pBuffer->data(), m_nEnd).starts_with(csMark);
    if (bUnicode) {
        m_nBegin = csMark.size();
        m_nPosition = static_cast<off_t>(csMark.size());
    }
    return bUnicode;
}

bool CProfileFile::bReadFailed() const noexcept
{
    errno = m_nReadError != 0 ? m_nReadError : errno;
    return m_nReadError != 0;
}

/// Moves what is left to the front of the buffer and reads on behind it; false at the end of the file.
bool CProfileFile::_bFill()
{
    std::memmove(m_pBuffer->data(), m_pBuffer->data() + m_nBegin, m_nEnd - m_nBegin);
    m_nEnd -= std::exchange(m_nBegin, 0);
    const off_t nFilePosition = m_nPosition + static_cast<off_t>(m_nEnd);
    if (nFilePosition > g_nMaxProfileFile) { // it grew meanwhile
        m_nReadError = EFBIG;
        return false;
    }
    const ssize_t nRead = nRetry([&] {
        return ::pread(m_clFile.nFd(), m_pBuffer->data() + m_nEnd, m_pBuffer->size() - m_nEnd, nFilePosition);
    });
    if (nRead < 0) {
        m_nReadError = errno;
    }
    m_nEnd += static_cast<std::size_t>(std::max<ssize_t>(nRead, 0));
    return nRead > 0;
}

/// Consumes what the buffer holds of the line; true when it holds the line's LF.
template <class TUnit>
bool CProfileFile::_bTakeUntilLF(std::basic_string<TUnit>* pcsLine)
{
    const char* pBegin = m_pBuffer->data() + m_nBegin;
    const std::size_t nUnits = (m_nEnd - m_nBegin) / sizeof(TUnit);
    std::size_t nLF = nUnits;
    if constexpr (sizeof(TUnit) == 1) {
        const void* pLF = std::memchr(pBegin, '\n', nUnits);
        nLF = pLF == nullptr ? nUnits : static_cast<std::size_t>(static_cast<const char*>(pLF) - pBegin);
    } else {
        for (nLF = 0; nLF < nUnits && !(pBegin[2 * nLF] == '\n' && pBegin[2 * nLF + 1] == '\0'); ++nLF) {
        }
    }
    const std::size_t nTaken = std::min(nLF + 1, nUnits);

    const std::size_t nBefore = pcsLine->size();
    const std::size_t nKept = std::min(nTaken, g_nMaxProfileLine / sizeof(TUnit) - nBefore);
    pcsLine->resize(nBefore + nKept); // the buffer's bytes need not be aligned
    std::memcpy(pcsLine->data() + nBefore, pBegin, nKept * sizeof(TUnit));

    m_nBegin += nTaken * sizeof(TUnit);
    m_nPosition += static_cast<off_t>(nTaken * sizeof(TUnit));
    return nLF < nUnits;
}

template <class TUnit>
ssize_t CProfileFile::STRG_nGetLine(std::basic_string<TUnit>* pcsLine)
{
    const off_t nStart = m_nPosition;
    pcsLine->clear();
    while (!_bTakeUntilLF(pcsLine) && _bFill()) {
    }
    return m_nPosition == nStart ? -1 : static_cast<ssize_t>(m_nPosition - nStart);
}

template ssize_t CProfileFile::STRG_nGetLine(std::basic_string<CAnsiUnit>* pcsLine);
template ssize_t CProfileFile::STRG_nGetLine(std::basic_string<CUnicodeUnit>* pcsLine);

bool CProfileFile::bReplace(off_t nStart, off_t nEnd, std::string_view csBytes)
{
    struct stat stFile
    {};
    if (::fstat(m_clFile.nFd(), &stFile) != 0) {
        return false;
    }
    const off_t nNewSize = stFile.st_size - (nEnd - nStart) + static_cast<off_t>(csBytes.size());
    if (std::max(stFile.st_size, nNewSize) > g_nMaxProfileFile) { // nobody would read it any more
        errno = EFBIG;
        return false;
    }
    std::string csNew(csBytes);
    return bReadTail(m_clFile.nFd(), nEnd, stFile.st_size, &csNew) &&
           bWriteToEnd(m_clFile.nFd(), nStart, stFile.st_size, csNew);
}

bool CProfileFile::bClose()
{
    // An interrupted close has closed all the same.
    return ::close(m_clFile.nRelease()) == 0 || errno == EINTR;
}
