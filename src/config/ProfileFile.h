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

/// One line of a profile file. The object is used for one line after the other, so that its memory is too.
template <class TUnit>
struct STProfileLine
{
    /// With its LF, if it has one. Lies in the file's buffer or in csJoined; the next read makes it invalid.
    std::basic_string_view<TUnit> csText;
    std::basic_string<TUnit> csJoined; ///< the line, put together, when the buffer does not hold all of it
};

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
    ssize_t STRG_nGetLine(STProfileLine<TUnit>* pstLine);

    /// Calls Action(line) for one line after the other until it returns false. Faster than reading them one
    /// by one, as where the next line begins stays in a register; nPosition is right again afterwards.
    template <class TUnit, class TAction>
    void ForEachLine(TAction Action);

    /// Byte position in the file of the line that the next read returns.
    off_t nPosition() const noexcept { return m_nBufferPosition + static_cast<off_t>(m_nBegin); }
    /// Whether the lines ended because of a failure and not at the end of the file; sets errno then.
    bool bReadFailed() const noexcept;

    /// Replaces [nStart, nEnd) by the bytes and moves what follows, at the cost of one read and one write of
    /// that tail. A file that must grow does so first, so that a full file system leaves it unchanged. Throws
    /// std::bad_alloc, the file unchanged, when there is no memory for the tail.
    bool bReplace(off_t nStart, off_t nEnd, std::string_view csBytes);
    /// Closes the file. False with errno for a failed write that the kernel reports only then.
    bool bClose();

private:
    /// On the heap: worker threads have 64 KiB of stack. Of the wider units, so that it may be read as both.
    using CBuffer = std::array<CUnicodeUnit, 8192>;

    bool _bTake(CDescripteur clFile, int nErrno);
    bool _bOpenToWrite(const std::string& csPath, int nFlags);
    bool _bFill();
    /// Byte n of the buffer.
    char* _pBytes(std::size_t n) const { return reinterpret_cast<char*>(m_pBuffer->data()) + n; }
    /// The whole units that the buffer holds.
    template <class TUnit>
    std::basic_string_view<TUnit> _csHeld() const;
    template <class TUnit>
    bool _bTakeUntilLF(std::basic_string_view<TUnit>* pcsTaken);
    template <class TUnit>
    void _Join(STProfileLine<TUnit>* pstLine);

    CDescripteur m_clFile;
    std::unique_ptr<CBuffer> m_pBuffer;
    /// [m_nBegin, m_nEnd) of the buffer in bytes: read from the file, not consumed yet.
    std::size_t m_nBegin = 0;
    std::size_t m_nEnd = 0;
    off_t m_nBufferPosition = 0; ///< in the file, of the buffer's first byte
    int m_nReadError = 0;        ///< errno of the first failure to read; 0: none
};

template <class TUnit>
std::basic_string_view<TUnit> CProfileFile::_csHeld() const
{
    // Aligned: in a file of the wider units, all that is consumed before, the byte order mark too, is even.
    return {reinterpret_cast<const TUnit*>(_pBytes(m_nBegin)), (m_nEnd - m_nBegin) / sizeof(TUnit)};
}

/// Consumes what the buffer holds of the line: up to its LF, or, with false, all whole units.
template <class TUnit>
bool CProfileFile::_bTakeUntilLF(std::basic_string_view<TUnit>* pcsTaken)
{
    const std::basic_string_view<TUnit> csHeld = _csHeld<TUnit>();
    const std::size_t nLF = csHeld.find(TUnit{'\n'});
    *pcsTaken = csHeld.substr(0, nLF == csHeld.npos ? nLF : nLF + 1);

    m_nBegin += pcsTaken->size() * sizeof(TUnit);
    return nLF != csHeld.npos;
}

template <class TUnit>
ssize_t CProfileFile::STRG_nGetLine(STProfileLine<TUnit>* pstLine)
{
    const off_t nStart = nPosition();
    if (!_bTakeUntilLF(&pstLine->csText)) {
        _Join(pstLine);
    }
    return nPosition() == nStart ? -1 : static_cast<ssize_t>(nPosition() - nStart);
}

template <class TUnit, class TAction>
void CProfileFile::ForEachLine(TAction Action)
{
    STProfileLine<TUnit> stJoined;
    for (bool bOn = true; bOn;) {
        const std::basic_string_view<TUnit> csHeld = _csHeld<TUnit>();
        std::size_t nBegin = 0;
        for (std::size_t nLF = 0; bOn && (nLF = csHeld.find(TUnit{'\n'}, nBegin)) != csHeld.npos;) {
            bOn = Action(csHeld.substr(nBegin, nLF + 1 - nBegin));
            nBegin = nLF + 1;
        }
        m_nBegin += nBegin * sizeof(TUnit);

        // What is left is a line that goes on after the buffer, or the last one.
        bOn = bOn && STRG_nGetLine(&stJoined) >= 0 && Action(stJoined.csText);
    }
}
