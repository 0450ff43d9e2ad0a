#include "support/DescriptorLimit.h"

#include <sys/resource.h>
#include <unistd.h>

// Children that still share the daemon's memory read the old limit. It is written once, before any thread
// runs, and the sanitizers do not instrument the functions that the children call (see ChildStart.cpp).

namespace {
rlimit s_stOriginal{};
bool s_bRaised = false;
} // namespace

void RaiseDescriptorLimit()
{
    rlimit stNow{};
    if (s_bRaised || ::getrlimit(RLIMIT_NOFILE, &stNow) != 0) {
        return;
    }

    const rlimit stRaised{stNow.rlim_max, stNow.rlim_max};
    s_stOriginal = stNow;
    s_bRaised = ::setrlimit(RLIMIT_NOFILE, &stRaised) == 0;
}

__attribute__((no_sanitize("thread", "address", "undefined"))) int nOriginalDescriptorLimit() noexcept
{
    // An int holds the limit: the kernel allows none above its sysctl fs.nr_open, which is at most INT_MAX.
    return s_bRaised ? static_cast<int>(s_stOriginal.rlim_cur) : ::getdtablesize();
}

__attribute__((no_sanitize("thread", "address", "undefined"))) void RestoreDescriptorLimit() noexcept
{
    if (s_bRaised) {
        ::setrlimit(RLIMIT_NOFILE, &s_stOriginal); // lowering a limit is always allowed
    }
}
