#pragma once

#include "manager/LineBuffer.h"
#include "manager/ReplyCodes.h"
#include "support/Descripteur.h"
#include "support/XYString.h"
#include "support/ZTSem.h"
#include "support/ZTThread.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// Files received with a conversation: names, and the temporary files they were put in.
struct CInstallInfo
{
    std::vector<std::wstring> tNames;
    std::vector<std::wstring> tTemporaryFiles;
};

/// One conversation with one tool: greets (meanwhile its thread may already be reading), reads a command
/// line, runs the command, writes one reply line, until "QUIT" or the end of the connection.
///
/// Made by an accept thread, which calls xStart; runs on a thread of its own. Each of the two holds it by a
/// std::shared_ptr, so that neither the object nor its socket is gone while the other still uses it.
/// Everything but xStart and _SayHello belongs to the conversation's thread. Text on the wire is Windows-1252
/// until "MODE_UTF8", UTF-8 from then on.
class CDialog : public std::enable_shared_from_this<CDialog>
{
public:
    /// Of a connected socket. Throws std::bad_alloc; the socket is closed then.
    explicit CDialog(CDescripteur clSocket);
    CDialog(const CDialog&) = delete;
    CDialog& operator=(const CDialog&) = delete;
    ~CDialog();

    /// Starts the conversation's thread, then greets. Throws (CXError, or std::bad_alloc) only when the
    /// thread has not been started. The object must be held by a std::shared_ptr already.
    void xStart();

    /// Ends the conversations that wait for a command and gives those that run one nMs milliseconds to reply.
    /// True when none is left. For the end of the process only.
    static bool s_bEndAll(int nMs);
    /// Conversations that exist.
    static int s_nCount();

    /// Reads one command line, of which what exceeds CLineBuffer's limit is dropped; false when the
    /// connection is closed or fails.
    bool bGetCommand(CTString* pcsKeyword);
    void ClearCommand();
    /// Next argument of the command line; left unchanged when there is none.
    void GetString(CTString* pcsOut);
    /// Next argument as a decimal number (blanks and a sign accepted, cut to 32 bits); 0 when there is none.
    unsigned int dwGetUInt32();

    /// The three below throw, and send nothing, once the stop has ended what a conversation may finish.

    /// Sends the text and "\r\n".
    void Answer(const std::wstring& csText);
    /// Sends "ERROR\t<code>\t<text>\r\n", for every code, 0 included.
    void ACK(eError eCode, const std::wstring& csText);
    /// Sends "OK\r\n" for code 0; otherwise "ERROR\t<code>\r\n", with the C library's text for the current
    /// errno directly behind the code when nSystemError is not 0. The text is errno's, whatever nSystemError
    /// says.
    void ACK(eError eCode, unsigned int nSystemError);

    /// Receives a file of nSize bytes from the connection into a temporary file. No command uses it.
    void xGetFile(const std::wstring& csName, unsigned int nSize, CInstallInfo* pclInfo);

    void _SayHello();
    /// The conversation. Its first command waits until the greeting is out.
    void _WaitForCommande();

private:
    friend void _WaitForCommandeThreadRoutine(CZTThread* pclThread);

    /// Runs the command of a keyword (ASCII letters in any case). Like the commands below, false when the
    /// conversation is to end.
    bool _bExecute(const std::wstring& csKeyword);
    /// A command on one server, which is CRemoteVelmoManager's.
    template <auto pfnCommand>
    bool _bOnServer();
    bool _bQuit();
    bool _bInfo();
    bool _bModeUTF8();
    bool _bNextField(std::wstring* pcsField);
    void _Send(std::string_view csBytes);
    std::string _csToWire(const std::wstring& csText) const;

    CDescripteur m_clSocket;
    CLineBuffer m_clCommand;
    bool m_bUTF8 = false;
    int m_nNextArgument = 0;
    CZTSemNoInit m_clGreeted;                ///< posted once the greeting is out
    std::shared_ptr<CDialog> m_pclForThread; ///< from xStart until the conversation's thread takes it
    CZTThread m_clThread;
};

/// Thread routine of a conversation; the thread's parameter is the CDialog.
void _WaitForCommandeThreadRoutine(CZTThread* pclThread);
