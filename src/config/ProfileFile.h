#pragma once

#include "support/Descripteur.h"

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>

/// Units of the two encodings of a profile file: bytes of the system code page, or 16-bit little-endian units
/// behind the mark FF FE.
using CAnsiUnit = char;
using CUnicodeUnit = char16_t;

/// Bytes of a profile file, beyond which it is refused, and of one of its lines, beyond which the line is
/// read without being kept. Settings need far less: values end at 1,024 characters.
inline constexpr off_t g_nMaxProfileFile = 16 << 20;
inline constexpr std::size_t g_nMaxProfileLine = 64 << 10;

/// One open profile file, read line by line from its start and changed in at most one place. Only regular
/// files of at most g_nMaxProfileFile bytes are opened (EFBIG): a directory, a FIFO or a device in the file's
/// place is refused, and never waited for.
///
/// One thread, one call of the store; the destructor closes. Failures leave errno set.
class CProfileFile
{
public:
    CProfileFile();

    /// Both end with the reader behind the mark, if there is one. For an update the file must be writable and
    /// is created (mode 0666 less the umask, empty) when it does not exist. For that a symbolic link is
    /// followed only when root owns it and the folder that holds its target (EPERM otherwise), and a file
    /// with more than one name is refused (EMLINK).
    bool bOpenToRead(const std::string& csPath);
    bool bOpenToUpdate(const std::string& csPath);

    /// Whether the file begins with FF FE, behind which the reader then is. Comes before the first line.
    bool bFichierUnicode();

    /// Reads up to and including the next LF, or to the end of the file, and keeps the first
    /// g_nMaxProfileLine bytes of it. Returns the number of bytes consumed, -1 when there was nothing left.
    /// What does not fill a whole unit at the end of the file is never consumed. A failed read looks like the
    /// end of the file, and so does a file that grew beyond g_nMaxProfileFile meanwhile; see bReadFailed.
    template <class TUnit>
    ssize_t STRG_nGetLine(std::basic_string<TUnit>* pcsLine);

    /// Byte position in the file of the line that the next read returns.
    off_t nPosition() const noexcept { return m_nPosition; }
    /// True when the file could not be read to where the lines seemed to end; sets errno then.
    bool bReadFailed() const noexcept;

    /// Puts the bytes in the place of [nStart, nEnd) and moves what follows, at the cost of one read and one
    /// write of that tail. A file that must grow does so first, so that on a full file system it stays as it
    /// was. Throws std::bad_alloc, the file unchanged, when there is no memory for the tail.
    bool bReplace(off_t nStart, off_t nEnd, std::string_view csBytes);
    /// Closes and reports what the system only tells then.
    bool bClose();

private:
    using CBuffer = std::array<char, 16384>; // on the heap: the callers' stacks are small

    bool _bTake(CDescripteur clFile);
    bool _bOpenToWrite(const std::string& csPath, int nFlags);
    bool _bFill();
    template <class TUnit>
    bool _bTakeUntilLF(std::basic_string<TUnit>* pcsLine);

    CDescripteur m_clFile;
    std::unique_ptr<CBuffer> m_pBuffer;
    std::size_t m_nBegin = 0; // [m_nBegin, m_nEnd): bytes read from the file and not yet consumed
    std::size_t m_nEnd = 0;
    off_t m_nPosition = 0;
    int m_nReadError = 0;
};
