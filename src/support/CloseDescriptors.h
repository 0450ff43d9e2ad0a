#pragma once

/// Closes every descriptor from nFirst to nLast. Async-signal-safe; needs 2 KiB of stack.
///
/// Without close_range (an older kernel, a filter) the numbers come from /proc/self/fd. Where that cannot be
/// read either, each number below nLimit is tried, which takes 0.2 s for a limit of 10^6.
void CloseDescriptors(unsigned int nFirst, unsigned int nLast, unsigned int nLimit) noexcept;
