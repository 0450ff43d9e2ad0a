#include "support/FileVersion.h"

#include "support/Conversion.h"
#include "support/SystemCall.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <unistd.h>

namespace {
// Limits on what is read of a file, since any user may choose the file: bytes of a segment with notes, which
// has a few hundred, and number of segments.
constexpr std::size_t s_nMaxNotes = 65536;
constexpr unsigned int s_nMaxSegments = 1024;
constexpr std::string_view s_csOwner("Velmo\0", 6);
constexpr std::uint32_t s_dwType = 1;

/// Reads exactly nSize bytes at an offset; false when the file does not have them.
bool bReadAt(int nFd, std::uint64_t qwOffset, void* pBuffer, std::size_t nSize)
{
    auto* pBytes = static_cast<char*>(pBuffer);
    if (qwOffset > static_cast<std::uint64_t>(INT64_MAX) - nSize) {
        return false;
    }

    while (nSize > 0) {
        const ssize_t nRead =
            nRetry([&] { return ::pread(nFd, pBytes, nSize, static_cast<off_t>(qwOffset)); });
        if (nRead <= 0) {
            return false;
        }
        pBytes += nRead;
        qwOffset += static_cast<std::uint64_t>(nRead);
        nSize -= static_cast<std::size_t>(nRead);
    }
    return true;
}

/// The header of a 64-bit little-endian ELF file whose program headers have the usual size. Their offset is
/// limited so that the sums with it cannot overflow.
std::optional<Elf64_Ehdr> stReadHeader(int nFd)
{
    Elf64_Ehdr st{};
    const bool bUsable = bReadAt(nFd, 0, &st, sizeof st) && std::memcmp(st.e_ident, ELFMAG, SELFMAG) == 0 &&
                         st.e_ident[EI_CLASS] == ELFCLASS64 && st.e_ident[EI_DATA] == ELFDATA2LSB &&
                         st.e_phentsize == sizeof(Elf64_Phdr) && st.e_phoff <= INT64_MAX / 2;
    return bUsable ? std::optional(st) : std::nullopt;
}

/// The next multiple of nAlign.
std::size_t nAligned(std::size_t nOffset, std::size_t nAlign)
{
    return (nOffset + nAlign - 1) / nAlign * nAlign;
}

/// Content of the version note among the notes of a segment. A note is a header with the sizes of owner and
/// content and the type, then the owner, then the content; content and next note begin at aligned offsets.
std::optional<std::string_view> csFindNote(std::string_view csNotes, std::size_t nAlign)
{
    Elf64_Nhdr st{};
    for (std::size_t nPos = 0; nPos < csNotes.size() && csNotes.size() - nPos >= sizeof st;) {
        std::memcpy(&st, csNotes.data() + nPos, sizeof st);
        const std::size_t nOwner = nPos + sizeof st; // sizes are 32 bits: no sum overflows
        const std::size_t nContent = nAligned(nOwner + st.n_namesz, nAlign);
        if (nContent + st.n_descsz > csNotes.size()) {
            return std::nullopt;
        }

        if (csNotes.substr(nOwner, st.n_namesz) == s_csOwner && st.n_type == s_dwType) {
            return csNotes.substr(nContent, st.n_descsz);
        }
        nPos = nAligned(nContent + st.n_descsz, nAlign);
    }
    return std::nullopt;
}

/// Content of the file's version note; none when the file has no such note or cannot be read.
std::optional<std::string> csReadNote(int nFd)
{
    const std::optional<Elf64_Ehdr> stHeader = stReadHeader(nFd);
    const unsigned int nSegments = stHeader ? std::min<unsigned int>(stHeader->e_phnum, s_nMaxSegments) : 0;

    for (unsigned int n = 0; n < nSegments; ++n) {
        Elf64_Phdr st{};
        if (!bReadAt(nFd, stHeader->e_phoff + n * sizeof st, &st, sizeof st)) {
            return std::nullopt;
        }

        if (st.p_type != PT_NOTE || st.p_filesz > s_nMaxNotes) {
            continue;
        }

        std::string csNotes(static_cast<std::size_t>(st.p_filesz), '\0');
        if (!bReadAt(nFd, st.p_offset, csNotes.data(), csNotes.size())) {
            continue;
        }

        // Notes are aligned to 8 or 4 bytes; where a segment says something else, 4 is what is usual.
        if (const auto csContent = csFindNote(csNotes, st.p_align == 8 ? 8 : 4)) {
            return std::string(*csContent);
        }
    }
    return std::nullopt;
}

/// Entries of a note's content: "key=value" texts, each ended by a NUL. Of several with one key the first
/// counts; a text without "=" is passed over.
std::map<std::wstring, std::wstring> tParseEntries(std::string_view csContent)
{
    std::map<std::wstring, std::wstring> tEntries;
    for (std::size_t nEnd = csContent.find('\0'); nEnd != csContent.npos; nEnd = csContent.find('\0')) {
        const std::string_view csEntry = csContent.substr(0, nEnd);
        const std::size_t nEqual = csEntry.find('=');
        if (nEqual != csEntry.npos) {
            tEntries.emplace(csFromUTF8(csEntry.substr(0, nEqual)), csFromUTF8(csEntry.substr(nEqual + 1)));
        }
        csContent.remove_prefix(nEnd + 1);
    }
    return tEntries;
}
} // namespace

bool CFileVersion::bLoad(const std::wstring& csPath)
{
    m_tEntries.clear();

    // The kernel would take the text before a NUL for the whole path.
    if (csPath.find(L'\0') != std::wstring::npos) {
        return false;
    }
    const CDescripteur clFile = clOpenRegular(csToUTF8(csPath), O_RDONLY);
    const auto csContent = clFile.bOpen() ? csReadNote(clFile.nFd()) : std::nullopt;
    if (!csContent) {
        return false;
    }

    m_tEntries = tParseEntries(*csContent);
    return true;
}

bool CFileVersion::bGetStringValue(const std::wstring& csEntry, std::wstring* pcsValue) const
{
    const auto it = m_tEntries.find(csEntry.substr(csEntry.rfind(L'\\') + 1));
    if (it == m_tEntries.end()) {
        return false;
    }
    *pcsValue = it->second;
    return true;
}
