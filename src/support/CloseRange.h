#pragma once

#include <asm/unistd.h>
#include <unistd.h>

#ifndef __NR_close_range
#define __NR_close_range 436 // on every supported architecture; headers of older kernels lack it
#endif

/// For nCloseRange: the caller first gets a descriptor table of its own, without the descriptors to be
/// closed.
constexpr unsigned int s_nCloseRangeUnshare = 1u << 1;
/// For nCloseRange: instead of being closed, the descriptors become close-on-exec.
constexpr unsigned int s_nCloseRangeCloexec = 1u << 2;

/// Closes the descriptors from nFirst to nLast by a plain system call: the C library has had a function for
/// it since 2.34 only. Returns 0, or -1 with errno (ENOSYS: a kernel before 5.9; EPERM: a filter).
/// Async-signal-safe.
inline int nCloseRange(unsigned int nFirst, unsigned int nLast, unsigned int nFlags) noexcept
{
    return static_cast<int>(::syscall(__NR_close_range, nFirst, nLast, nFlags));
}
