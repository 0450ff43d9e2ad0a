#pragma once

#include "support/Descripteur.h"

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>

/// Units of the two encodings of a profile file: bytes of the system code page, or 16-bit little-endian units
/// after the byte order mark FF FE.
using CAnsiUnit = char;
using CUnicodeUnit = char16_t;

/// Most bytes of a profile file, beyond which the file is refused, and of one of its lines, beyond which the
/// rest of the line is read but not kept. Settings need far less: values end at 1,024 characters.
inline constexpr off_t g_nMaxProfileFile = 16 << 20;
inline constexpr std::size_t g_nMaxProfileLine = 64 << 10;

/// One open profile file, read line by line from its start and changed in at most one place. Only regular
/// files are opened: a directory, a FIFO or a device in the file's place is refused and never waited for. So
/// is a file of more than g_nMaxProfileFile bytes (EFBIG).
///
/// An object serves one thread for one call of the store; its destructor closes the file. Failures leave
/// errno set.
class CProfileFile
{
public:
    CProfileFile();

    bool bOpenToRead(const std::string& csPath);
    /// Opens the file to read and change it, and creates it (empty, mode 0666 less the umask) when it does
    /// not exist. A symbolic link is followed only when root owns both it and the folder that holds its
    /// target (EPERM otherwise); a file with more than one name is refused (EMLINK).
    bool bOpenToUpdate(const std::string& csPath);

    /// Whether the file begins with the byte order mark FF FE, which is then skipped. Called once, before the
    /// first line is read.
    bool bFichierUnicode();

    /// Reads up to and including the next LF, or to the end of the file, and keeps the first
    /// g_nMaxProfileLine bytes of that. Returns the number of bytes consumed, -1 when nothing was left. An
    /// odd last byte of a UTF-16 file is never consumed. A failed read, and a file that grows beyond
    /// g_nMaxProfileFile, look like the end of the file; see bReadFailed.
    template <class TUnit>
    ssize_t STRG_nGetLine(std::basic_string<TUnit>* pcsLine);

    /// Byte position in the file of the line that the next read returns.
    off_t nPosition() const noexcept { return m_nPosition; }
    /// Whether the lines ended because of a failure and not at the end of the file; sets errno then.
    bool bReadFailed() const noexcept;

    /// Replaces [nStart, nEnd) by the bytes and moves what follows, at the cost of one read and one write of
    /// that tail. A file that must grow does so first, so that a full file system leaves it unchanged. Throws
    /// std::bad_alloc, the file unchanged, when there is no memory for the tail.
    bool bReplace(off_t nStart, off_t nEnd, std::string_view csBytes);
    /// Closes the file. False with errno for a failed write that the kernel reports only then.
    bool bClose();

private:
    using CBuffer = std::array<char, 16384>; ///< on the heap: worker threads have 64 KiB of stack

    /// Makes the file this object's, unless it is too large.
    bool _bTake(CDescripteur clFile);
    bool _bOpenToWrite(const std::string& csPath, int nFlags);
    bool _bFill();
    template <class TUnit>
    bool _bTakeUntilLF(std::basic_string<TUnit>* pcsLine);

    CDescripteur m_clFile;
    std::unique_ptr<CBuffer> m_pBuffer;
    /// [m_nBegin, m_nEnd) of the buffer: bytes read from the file, not consumed yet.
    std::size_t m_nBegin = 0;
    std::size_t m_nEnd = 0;
    off_t m_nPosition = 0; ///< in the file, of m_nBegin
    int m_nReadError = 0;  ///< errno of the first failure to read; 0: none
};
