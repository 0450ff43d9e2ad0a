#include "support/CloseDescriptors.h"

#include "support/CloseRange.h"

#include <cstdint>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

// Children that still share the daemon's memory call this. So the system calls go without the C library's
// wrappers, and the sanitizers do not instrument the functions (see ChildStart.cpp).

namespace {
constexpr long s_nListing = 1024; ///< bytes read from the directory at once; they are on the stack

/// The kernel's directory entry, linux_dirent64, which no header has. The name, with its terminator, fills
/// the rest of the nSize bytes.
struct STKernelEntry
{
    std::uint64_t nInode;
    std::int64_t nOffset;
    unsigned short nSize;
    unsigned char nType;
    char cName; ///< the name's first character
};

/// Closes the descriptors that a block of nSize bytes of directory entries names, except the directory's own.
/// "." and ".." name none.
__attribute__((no_sanitize("thread", "address", "undefined"))) void
CloseNamed(const char* pEntries, long nSize, unsigned int nFirst, unsigned int nLast, int nDirectory) noexcept
{
    for (long nPos = 0; nPos < nSize;) {
        const auto* pstEntry = reinterpret_cast<const STKernelEntry*>(pEntries + nPos);
        nPos += pstEntry->nSize;
        const char* psz = &pstEntry->cName;
        if (*psz == '.') {
            continue;
        }

        // Read by hand: the C library's functions are not all async-signal-safe.
        unsigned int nFd = 0;
        for (; *psz != '\0'; ++psz) {
            nFd = nFd * 10 + static_cast<unsigned int>(*psz - '0');
        }
        if (nFd >= nFirst && nFd <= nLast && nFd != static_cast<unsigned int>(nDirectory)) {
            ::syscall(SYS_close, nFd);
        }
    }
}

/// Closes the descriptors that /proc lists. False when /proc does not list them, or not to the end.
__attribute__((no_sanitize("thread", "address", "undefined"))) bool bCloseListed(unsigned int nFirst,
                                                                                 unsigned int nLast) noexcept
{
    alignas(STKernelEntry) char tEntries[s_nListing];

    // Frees a number for the directory, as all may be in use: nFirst is to be closed anyway.
    ::syscall(SYS_close, nFirst);
    const long nDirectory =
        ::syscall(SYS_openat, AT_FDCWD, "/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (nDirectory < 0) {
        return false;
    }

    // A position in this directory is a descriptor's number, so closing what was read skips no other entry.
    long nSize = 0;
    while ((nSize = ::syscall(SYS_getdents64, nDirectory, tEntries, s_nListing)) > 0) {
        CloseNamed(tEntries, nSize, nFirst, nLast, static_cast<int>(nDirectory));
    }

    ::syscall(SYS_close, nDirectory);
    return nSize == 0;
}
} // namespace

__attribute__((no_sanitize("thread", "address", "undefined"))) void
CloseDescriptors(unsigned int nFirst, unsigned int nLast, unsigned int nLimit) noexcept
{
    if (nCloseRange(nFirst, nLast, 0) == 0 || bCloseListed(nFirst, nLast)) {
        return;
    }
    const unsigned int nEnd = nLast < nLimit ? nLast + 1 : nLimit;
    for (unsigned int nFd = nFirst; nFd < nEnd; ++nFd) {
        ::syscall(SYS_close, nFd);
    }
}
