#pragma once

#include "manager/LineBuffer.h"
#include "manager/ReplyCodes.h"
#include "support/Conversion.h"
#include "support/Descripteur.h"
#include "support/XYString.h"
#include "support/ZTSem.h"
#include "support/ZTThread.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// Files received in a conversation: their names and, in the same order, the temporary files that hold their
/// content.
struct CInstallInfo
{
    std::vector<std::wstring> tNames;
    std::vector<std::wstring> tTemporaryFiles;
};

/// One conversation with one tool: it greets, then reads a command line, runs the command and writes one
/// reply line, again and again until "QUIT" or the end of the connection.
///
/// An accept thread makes the object and calls xStart; the conversation runs on a thread of its own, which
/// may already be reading during the greeting. Both threads own the object through a std::shared_ptr, so that
/// neither it nor its socket goes away while the other thread still uses it. The accept thread calls the
/// constructor, xStart and _SayHello, the main thread the static operations, the conversation's thread all
/// the others. Text on the wire is Windows-1252 until "MODE_UTF8", UTF-8 from then on.
class CDialog : public std::enable_shared_from_this<CDialog>
{
public:
    /// Takes a connected socket. Throws std::bad_alloc; the socket is closed then.
    explicit CDialog(CDescripteur clSocket);
    CDialog(const CDialog&) = delete;
    CDialog& operator=(const CDialog&) = delete;
    ~CDialog();

    /// Starts the conversation's thread, then greets. Throws CXError or std::bad_alloc when the thread cannot
    /// be started; nothing is thrown once it runs. The object must already be owned by a std::shared_ptr.
    void xStart();

    /// Ends the conversations that wait for a command and gives those that run one nMs milliseconds to reply.
    /// True when none is left. For the end of the process only.
    static bool s_bEndAll(int nMs);
    /// Number of conversations that exist.
    static int s_nCount();

    /// Reads one command line and sets its keyword. Drops what exceeds CLineBuffer's limit. False when the
    /// connection is closed or fails.
    bool bGetCommand(CTString* pcsKeyword);
    /// Forgets the command line and returns its memory.
    void ClearCommand();
    /// Copies the next argument of the command line; leaves the text unchanged when there is none.
    void GetString(CTString* pcsOut);
    /// Next argument as a decimal number (leading whitespace and a sign accepted, cut to 32 bits); 0 when
    /// there is none.
    unsigned int dwGetUInt32();

    // Answer and ACK throw std::system_error (ECANCELED), and send nothing, when the stop no longer allows
    // the calling thread to go on (CStopping::bMayGoOn).

    /// Sends the text and "\r\n".
    void Answer(const std::wstring& csText);
    /// Sends "ERROR\t<code>\t<text>\r\n", for every code, 0 included.
    void ACK(eError eCode, const std::wstring& csText);
    /// Sends "OK\r\n" for code 0, else "ERROR\t<code>\r\n". When nSystemError is not 0, the C library's text
    /// directly follows the code, without a tab. That text is the current errno's, whatever the value of
    /// nSystemError: clients rely on both.
    void ACK(eError eCode, unsigned int nSystemError);

    /// Receives a file of nSize bytes from the connection into a temporary file, which the caller deletes.
    /// Bytes that arrive together with the last ones are written, too. Throws CXError or std::bad_alloc; the
    /// temporary file is deleted then. No command uses it.
    void xGetFile(const std::wstring& csName, unsigned int nSize, CInstallInfo* pclInfo);

    /// Greets, and lets the first command pass.
    void _SayHello();
    /// The conversation. Its first command waits until the greeting has been sent.
    void _WaitForCommande();

private:
    friend void _WaitForCommandeThreadRoutine(CZTThread* pclThread);

    /// Runs the command of a keyword (ASCII letters in any case). Like the commands below, it returns false
    /// when the conversation is to end.
    bool _bExecute(const std::wstring& csKeyword);
    /// Runs a command that concerns one server: one of CRemoteVelmoManager's.
    template <auto pfnCommand>
    bool _bOnServer();
    bool _bQuit();
    bool _bInfo();
    bool _bModeUTF8();
    /// Copies the line's next field; false, with the text unchanged, when there is none.
    bool _bNextField(std::wstring* pcsField);
    void _Send(std::string_view csBytes);
    std::string _csToWire(const std::wstring& csText) const;

    CDescripteur m_clSocket;
    CLineBuffer m_clCommand;
    ECodePage m_eCodePage = CP_1252;         ///< of the text on the wire
    int m_nNextField = 0;                    ///< the keyword is field 0
    CZTSemNoInit m_clGreeted;                ///< posted with the greeting; whoever waits posts again
    std::shared_ptr<CDialog> m_pclForThread; ///< from xStart until the conversation's thread takes it
    CZTThread m_clThread;
};

/// Thread routine of a conversation; the thread's parameter is the CDialog.
void _WaitForCommandeThreadRoutine(CZTThread* pclThread);
