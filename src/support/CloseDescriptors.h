#pragma once

/// Closes every descriptor from nFirst to nLast. Async-signal-safe; needs 2 KiB of stack.
///
/// Where close_range is missing (an older kernel, a filter) the numbers come from /proc/self/fd. Without
/// that, too, each number below nLimit is tried: 0.2 s for a limit of 10^6.
void CloseDescriptors(unsigned int nFirst, unsigned int nLast, unsigned int nLimit) noexcept;
