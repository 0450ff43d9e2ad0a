#pragma once

#include <cstddef>
#include <cstdint>

/// The ELF note with an executable's version entries, laid out as in the file: sizes of owner and content,
/// type, owner padded to a multiple of 4, content. The content is a sequence of "key=value" texts, each ended
/// by a NUL byte; CFileVersion reads it. The structure must stay an aggregate: the compiler puts no other
/// kind into read-only memory.
template <std::size_t nSize>
struct STVersionNote
{
    std::uint32_t dwOwnerSize;
    std::uint32_t dwContentSize;
    std::uint32_t dwType;
    char szOwner[8];
    alignas(4) char szContent[nSize];
};

/// Makes the note of these entries; szEntries holds the NUL of the last one as its terminator.
template <std::size_t nSize>
consteval STVersionNote<nSize> stVersionNote(const char (&szEntries)[nSize])
{
    STVersionNote<nSize> st{sizeof "Velmo", nSize, 1, "Velmo", {}};
    for (std::size_t n = 0; n < nSize; ++n) {
        st.szContent[n] = szEntries[n];
    }
    return st;
}
