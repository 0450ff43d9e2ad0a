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
#include <tuple>
#include <unistd.h>
#include <utility>

static_assert(std::endian::native == std::endian::little, "units are copied from the file unchanged");

namespace {
/// Writes all of the bytes at a position; false with errno (ENOSPC where the kernel accepts none without an
/// error).
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

/// Appends what a file of nSize bytes holds from a position on; false with errno.
bool bReadTail(int nFd, off_t nPosition, off_t nSize, std::string* pcsBytes)
{
    const std::size_t nBefore = pcsBytes->size();
    std::size_t nLeft = nSize > nPosition ? static_cast<std::size_t>(nSize - nPosition) : 0;
    pcsBytes->resize(nBefore + nLeft);

    for (char* p = pcsBytes->data() + nBefore; nLeft > 0;) {
        const ssize_t nRead = nRetry([&] { return ::pread(nFd, p, nLeft, nPosition); });
        if (nRead <= 0) {
            errno = nRead == 0 ? EIO : errno; // 0: somebody has made the file shorter meanwhile
            return false;
        }

        p += nRead;
        nPosition += nRead;
        nLeft -= static_cast<std::size_t>(nRead);
    }
    return true;
}

/// Replaces what a file of nSize bytes holds from nStart to its end. The part beyond the old end is written
/// first and cut off again when that fails: only this part needs space, so a full file system leaves the file
/// unchanged.
bool bWriteToEnd(int nFd, off_t nStart, off_t nSize, std::string_view csBytes)
{
    const CNoFileSizeSignal clNoSignal; // at a limit on file sizes the write must fail, not end the process
    const std::size_t nInside =
        std::min(csBytes.size(), static_cast<std::size_t>(std::max<off_t>(nSize - nStart, 0)));

    if (!bWriteAt(nFd, csBytes.substr(nInside), nStart + static_cast<off_t>(nInside))) {
        const int nErrno = errno; // the failed write is what is reported
        std::ignore = nRetry([&] { return ::ftruncate(nFd, nSize); });
        errno = nErrno;
        return false;
    }

    const off_t nNewSize = nStart + static_cast<off_t>(csBytes.size());
    return bWriteAt(nFd, csBytes.substr(0, nInside), nStart) &&
           (nNewSize >= nSize || nRetry([&] { return ::ftruncate(nFd, nNewSize); }) == 0);
}

/// Entries looked at on the way to the file, the file itself included: ends a circle of links. The kernel
/// itself follows 40 links.
constexpr int s_nMaxLooks = 40;

/// Target of a symbolic link that was opened with O_PATH; empty with errno when it cannot be read.
std::string csLinkText(int nLink)
{
    std::string csText(PATH_MAX, '\0');
    const ssize_t nLength = ::readlinkat(nLink, "", csText.data(), csText.size());
    csText.resize(static_cast<std::size_t>(std::max<ssize_t>(nLength, 0)));
    return csText;
}

bool bOwnedByRoot(int nFd)
{
    STFileStatus st{};
    return ::fstat(nFd, &st) == 0 && st.st_uid == 0;
}

/// A name in an open folder; without an open folder, a path.
struct STFolderEntry
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

/// Replaces the entry, which is the open link nLink, by the link's target. False with errno; EPERM when root
/// does not own both the link and the folder that holds the target.
bool bFollow(int nLink, STFolderEntry* pstEntry)
{
    const std::string csTarget = csLinkText(nLink);
    if (csTarget.empty()) {
        return false;
    }

    // A relative target begins in the folder that holds the link.
    const std::string csFrom = pstEntry->csName.substr(0, pstEntry->csName.rfind('/') + 1);
    const std::string csWhole = csTarget.front() == '/' ? csTarget : csFrom + csTarget;
    const std::size_t nName = csWhole.rfind('/') + 1;

    CDescripteur clFolder = pstEntry->clOpenPath(nName == 0 ? "." : csWhole.substr(0, nName), O_DIRECTORY);
    if (!clFolder.bOpen()) {
        return false;
    }

    // In a folder of somebody else the target could be replaced at any time.
    if (!bOwnedByRoot(nLink) || !bOwnedByRoot(clFolder.nFd())) {
        errno = EPERM;
        return false;
    }
    *pstEntry = {std::move(clFolder), csWhole.substr(nName)};
    return true;
}

/// Opens the file at a path for writing, and follows only links that root owns: otherwise a server's user
/// could put a link in the place of the server's settings, and root would write to the link's target. Owners
/// and kinds are those of opened descriptors, never of names, which may change between two calls.
CDescripteur clOpenToWrite(const std::string& csPath, int nFlags, STFileStatus* pst)
{
    STFolderEntry stEntry{CDescripteur(), csPath};
    for (int n = 0; n < s_nMaxLooks; ++n) {
        const CDescripteur clFound = stEntry.clOpenPath(stEntry.csName, O_NOFOLLOW);
        STFileStatus st{};
        if (!clFound.bOpen() || ::fstat(clFound.nFd(), &st) != 0 || !S_ISLNK(st.st_mode)) {
            // No link: a file, or nothing, which O_CREAT may make one. O_NOFOLLOW refuses a link that
            // somebody has put there since the look.
            return clOpenRegularAt(stEntry.nFolder(), stEntry.csName, nFlags | O_NOFOLLOW, pst);
        }
        if (!bFollow(clFound.nFd(), &stEntry)) {
            return CDescripteur();
        }
    }
    errno = ELOOP;
    return CDescripteur();
}
} // namespace

CProfileFile::CProfileFile() : m_pBuffer(pMakeForOverwrite<CBuffer>()) {}

/// Keeps the file for this object. False with errno when it is not open, or when nRefusal, an error number,
/// gives a reason to refuse it (0: none).
bool CProfileFile::_bKeep(CDescripteur clFile, int nRefusal)
{
    if (nRefusal != 0) {
        errno = nRefusal;
        return false;
    }
    m_clFile = std::move(clFile);
    return m_clFile.bOpen();
}

bool CProfileFile::bOpenToRead(const std::string& csPath)
{
    STFileStatus st{}; // stays empty, which is no reason to refuse, when the open fails
    CDescripteur clFile = clOpenRegular(csPath, O_RDONLY, &st);
    return _bKeep(std::move(clFile), st.st_size > g_nMaxProfileFile ? EFBIG : 0);
}

bool CProfileFile::_bOpenToWrite(const std::string& csPath, int nFlags)
{
    // A file with a second name may be a hard link to somebody else's file, which a write would change.
    STFileStatus st{};
    CDescripteur clFile = clOpenToWrite(csPath, nFlags, &st);
    return _bKeep(std::move(clFile), st.st_size > g_nMaxProfileFile ? EFBIG : st.st_nlink > 1 ? EMLINK : 0);
}

bool CProfileFile::bOpenToUpdate(const std::string& csPath)
{
    // In two steps: with O_CREAT the kernel (fs.protected_regular) refuses even root a file that another user
    // has made in a shared directory.
    return _bOpenToWrite(csPath, O_RDWR) || (errno == ENOENT && _bOpenToWrite(csPath, O_RDWR | O_CREAT));
}

bool CProfileFile::bFichierUnicode()
{
    constexpr std::string_view csBOM = "\xFF\xFE";
    while (m_nEnd < csBOM.size() && _bFill()) { // the bytes after the mark stay in the buffer
    }

    const bool bUnicode = std::string_view(_pBytes(0), m_nEnd).starts_with(csBOM);
    m_nBegin = bUnicode ? csBOM.size() : 0;
    return bUnicode;
}

bool CProfileFile::bReadFailed() const noexcept
{
    if (m_nReadError == 0) {
        return false;
    }
    errno = m_nReadError;
    return true;
}

/// Moves the bytes that are not consumed yet to the front of the buffer and reads more after them. False at
/// the end of the file, and on a failure, which m_nReadError keeps.
bool CProfileFile::_bFill()
{
    std::memmove(_pBytes(0), _pBytes(m_nBegin), m_nEnd - m_nBegin);
    m_nEnd -= m_nBegin;
    m_nBufferPosition += static_cast<off_t>(std::exchange(m_nBegin, 0));

    const off_t nFilePosition = m_nBufferPosition + static_cast<off_t>(m_nEnd);
    if (nFilePosition > g_nMaxProfileFile) { // the file has grown since it was opened
        m_nReadError = EFBIG;
        return false;
    }

    const ssize_t nRead = nRetry(
        [&] { return ::pread(m_clFile.nFd(), _pBytes(m_nEnd), sizeof(CBuffer) - m_nEnd, nFilePosition); });
    if (nRead < 0) {
        m_nReadError = errno;
    }
    m_nEnd += static_cast<std::size_t>(std::max<ssize_t>(nRead, 0));
    return nRead > 0;
}

/// Completes a line whose LF is not in the buffer. All of the line is consumed, but only its first
/// g_nMaxProfileLine bytes are kept.
template <class TUnit>
void CProfileFile::_Join(STProfileLine<TUnit>* pstLine)
{
    std::basic_string<TUnit>& csLine = pstLine->csJoined;
    csLine = pstLine->csText;
    for (bool bEnded = false; !bEnded && _bFill();) {
        std::basic_string_view<TUnit> csMore;
        bEnded = _bTakeUntilLF(&csMore);
        csLine += csMore.substr(0, g_nMaxProfileLine / sizeof(TUnit) -
                                       csLine.size()); // csLine is never longer than that
    }
    pstLine->csText = csLine;
}

template void CProfileFile::_Join(STProfileLine<CAnsiUnit>* pstLine);
template void CProfileFile::_Join(STProfileLine<CUnicodeUnit>* pstLine);

bool CProfileFile::bReplace(off_t nStart, off_t nEnd, std::string_view csBytes)
{
    STFileStatus stFile{};
    if (::fstat(m_clFile.nFd(), &stFile) != 0) {
        return false;
    }

    const off_t nNewSize = stFile.st_size - (nEnd - nStart) + static_cast<off_t>(csBytes.size());
    if (std::max(stFile.st_size, nNewSize) > g_nMaxProfileFile) { // no reader would open the file any more
        errno = EFBIG;
        return false;
    }

    std::string csNew(csBytes);
    return bReadTail(m_clFile.nFd(), nEnd, stFile.st_size, &csNew) &&
           bWriteToEnd(m_clFile.nFd(), nStart, stFile.st_size, csNew);
}

bool CProfileFile::bClose()
{
    // On Linux an interrupted close has closed the descriptor all the same.
    return ::close(m_clFile.nRelease()) == 0 || errno == EINTR;
}
