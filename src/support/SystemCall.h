#pragma once

#include "support/Descripteur.h"

#include <cerrno>
#include <dirent.h>
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>

// System calls that are made in the same way everywhere.

/// Repeats a call as long as a signal interrupts it, and returns the last result. Not for waits that a signal
/// is meant to end.
template <class TCall>
auto nRetry(TCall Call)
{
    auto nResult = Call();
    while (nResult < 0 && errno == EINTR) {
        nResult = Call();
    }
    return nResult;
}

/// What stat says of a file. The function of that name hides the structure's, so each use would need
/// "struct" before it.
using STFileStatus = struct stat;

/// Both ends of a pipe, close-on-exec.
struct STPipe
{
    CDescripteur clRead;
    CDescripteur clWrite;
};
/// Opens a pipe; false with errno when there are no descriptors left.
bool bOpenPipe(STPipe* pstPipe);

/// Writes all of the bytes. False with errno when that fails (EIO where the kernel takes none without an
/// error).
bool bWriteAll(int nFd, std::string_view csBytes);

/// Opens a regular file close-on-exec. Anything else is refused, a directory with EISDIR, a FIFO or a device
/// with EINVAL; the call never waits for one. With O_CREAT a new file has mode 0666 less the umask. Fills
/// *pst (unless null) with what fstat says of the opened file. On failure: no descriptor, errno set, *pst
/// unchanged.
CDescripteur clOpenRegular(const std::string& csPath, int nFlags, STFileStatus* pst = nullptr);
/// The same for a path that begins in an open folder (or AT_FDCWD).
CDescripteur clOpenRegularAt(int nFolder, const std::string& csPath, int nFlags, STFileStatus* pst = nullptr);

/// Closes a directory for its owner, CDirectory.
struct STCloseDirectory
{
    void operator()(DIR* pDirectory) const noexcept { ::closedir(pDirectory); }
};
/// An open directory, or none.
using CDirectory = std::unique_ptr<DIR, STCloseDirectory>;
