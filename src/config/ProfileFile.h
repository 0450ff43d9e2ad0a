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

/// One line of a profile file. A caller that reads several lines uses one object for all of them, so that the
/// memory of csJoined is allocated once.
template <class TUnit>
struct STProfileLine
{
    /// With its LF, if it has one. Lies in the file's buffer or in csJoined; the next read makes it invalid.
    std::basic_string_view<TUnit> csText;
    std::basic_string<TUnit> csJoined; ///< the whole line when the buffer holds only a part of it
};

/// One open profile file, read line by line from its start and changed in at most one place. Only regular
/// files are opened: a directory (EISDIR), a FIFO or a device (EINVAL) is refused without waiting for it, and
/// so is a file of more than g_nMaxProfileFile bytes (EFBIG).
///
/// An object serves one thread for one call of the store; its destructor closes the file. An operation that
/// returns false leaves the reason in errno.
class CProfileFile
{
public:
    CProfileFile();

    bool bOpenToRead(const std::string& csPath);
    /// Opens the file to read and change it, and creates it (empty, mode 0666 less the umask) when it does
    /// not exist. A symbolic link is followed only when root owns both the link and the folder that holds the
    /// link's target (EPERM otherwise); a file with more than one name is refused (EMLINK).
    bool bOpenToUpdate(const std::string& csPath);

    /// Whether the file begins with the byte order mark FF FE, which is then skipped. Called once, before the
    /// first line is read.
    bool bFichierUnicode();

    /// Reads up to and including the next LF, or to the end of the file, and keeps the line's first
    /// g_nMaxProfileLine bytes. Returns the number of bytes consumed, -1 when nothing was left; a line that
    /// was read has at least one unit. An odd last byte of a UTF-16 file is never consumed. A failed read,
    /// and a file that grows beyond g_nMaxProfileFile, look like the end of the file; see bReadFailed.
    template <class TUnit>
    ssize_t STRG_nGetLine(STProfileLine<TUnit>* pstLine);

    /// Calls Action(line) for one line after the other until Action returns false. Faster than a loop over
    /// STRG_nGetLine, since the place of the next line stays in a register; nPosition is therefore valid
    /// again only after the call.
    template <class TUnit, class TAction>
    void ForEachLine(TAction Action);

    /// Byte position in the file of the line that the next read returns.
    off_t nPosition() const noexcept { return m_nBufferPosition + static_cast<off_t>(m_nBegin); }
    /// Whether the lines ended because of a failure and not at the end of the file; sets errno then.
    bool bReadFailed() const noexcept;

    /// Replaces the bytes [nStart, nEnd) of the file by others and moves what follows, at the cost of one
    /// read and one write of that tail. False with errno (EFBIG for a result beyond g_nMaxProfileFile). A
    /// file that must grow does so first, so that a full file system leaves it unchanged. Throws
    /// std::bad_alloc, the file unchanged, when there is no memory for the tail.
    bool bReplace(off_t nStart, off_t nEnd, std::string_view csBytes);
    /// Closes the file. False with errno for a failed write that the kernel reports only then.
    bool bClose();

private:
    /// 16 KiB, on the heap: worker threads have 64 KiB of stack. Of the wider units, so that the buffer is
    /// aligned for them; bytes may be read from any array.
    using CBuffer = std::array<CUnicodeUnit, 8192>;

    bool _bKeep(CDescripteur clFile, int nRefusal);
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
    // Aligned: in a UTF-16 file everything is consumed in pairs of bytes, the byte order mark included.
    return {reinterpret_cast<const TUnit*>(_pBytes(m_nBegin)), (m_nEnd - m_nBegin) / sizeof(TUnit)};
}

/// Consumes the part of the line that is in the buffer. True: up to and including the LF. False: the buffer
/// has no LF, and all its whole units were consumed.
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

        // What is left in the buffer is the beginning of a line that goes on in the file, or the last line.
        bOn = bOn && STRG_nGetLine(&stJoined) >= 0 && Action(stJoined.csText);
    }
}
