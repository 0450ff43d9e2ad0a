#pragma once

/// Replaces the allocation functions of the program: by one file of it only, which the sanitizers' builds
/// leave out, since they have functions of their own.

#include <algorithm>
#include <cstdlib>
#include <new>

/// Allocations that this thread still gets; below 0: all.
inline thread_local int g_nAllocationsLeft = -1;

// Visible, so that the C++ library's own code, where texts allocate, takes them, too.
[[gnu::visibility("default")]] void* operator new(std::size_t nBytes)
{
    void* const p = g_nAllocationsLeft == 0 ? nullptr : std::malloc(std::max<std::size_t>(nBytes, 1));
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    g_nAllocationsLeft -= g_nAllocationsLeft > 0 ? 1 : 0;
    return p;
}
[[gnu::visibility("default")]] void operator delete(void* p) noexcept
{
    std::free(p);
}
[[gnu::visibility("default")]] void operator delete(void* p, std::size_t) noexcept
{
    std::free(p);
}
