#include "support/SystemCall.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

bool bOpenPipe(STPipe* pstPipe)
{
    int tFd[2];
    if (::pipe2(tFd, O_CLOEXEC) != 0) {
        return false;
    }
    pstPipe->clRead = CDescripteur(tFd[0]);
    pstPipe->clWrite = CDescripteur(tFd[1]);
    return true;
}

bool bWriteAll(int nFd, std::string_view csBytes)
{
    while (!csBytes.empty()) {
        const ssize_t nWritten = nRetry([&] { return ::write(nFd, csBytes.data(), csBytes.size()); });
        if (nWritten <= 0) { // 0: the next try would take none either, and so on for ever
            errno = nWritten == 0 ? EIO : errno;
            return false;
        }
        csBytes.remove_prefix(static_cast<std::size_t>(nWritten));
    }
    return true;
}

namespace {
/// Without O_NONBLOCK the open of a FIFO would wait for its other end, and without O_NOCTTY a terminal could
/// become the daemon's controlling one. Neither changes anything for regular files.
constexpr int s_nOpenFlags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
constexpr mode_t s_nFileMode = 0666; ///< of a new file, less the umask

/// Returns the file if it is regular, else none with errno. Judges the open file, not its name, which may
/// mean another file by now.
CDescripteur clIfRegular(CDescripteur clFile, STFileStatus* pst)
{
    STFileStatus st{};
    if (!clFile.bOpen() || ::fstat(clFile.nFd(), &st) != 0) {
        return CDescripteur();
    }
    if (!S_ISREG(st.st_mode)) {
        errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
        return CDescripteur();
    }
    if (pst != nullptr) {
        *pst = st;
    }
    return clFile;
}
} // namespace

CDescripteur clOpenRegular(const std::string& csPath, int nFlags, STFileStatus* pst)
{
    return clOpenRegularAt(AT_FDCWD, csPath, nFlags, pst);
}

CDescripteur clOpenRegularAt(int nFolder, const std::string& csPath, int nFlags, STFileStatus* pst)
{
    const auto fnOpen = [&] { return ::openat(nFolder, csPath.c_str(), nFlags | s_nOpenFlags, s_nFileMode); };
    return clIfRegular(CDescripteur(nRetry(fnOpen)), pst);
}
