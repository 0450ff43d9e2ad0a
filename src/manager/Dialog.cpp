#include "manager/Dialog.h"

#include "manager/SetupManager.h"
#include "support/accesdllres.h"
#include "support/Conversion.h"
#include "support/Stopping.h"
#include "support/SystemCall.h"
#include "support/WinApi.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <set>
#include <sys/socket.h>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <wchar.h>

namespace {
/// Bytes of one receive. Tools see where a block ends (bGetCommand says how), so the size is fixed.
constexpr std::size_t s_nBlock = 1024;

/// The conversations that exist, by socket: s_bEndAll must reach those whose threads wait in recv.
struct STRegister
{
    std::mutex clLock;
    std::set<int> tSockets;
};
STRegister& stConversations()
{
    static STRegister s_stRegister;
    return s_stRegister;
}
} // namespace

CDialog::CDialog(CDescripteur clSocket) : m_clSocket(std::move(clSocket))
{
    m_clGreeted.Init(0, 1);
    STRegister& stRegister = stConversations();
    const std::lock_guard<std::mutex> clGuard(stRegister.clLock);
    stRegister.tSockets.insert(m_clSocket.nFd());
}

CDialog::~CDialog()
{
    // Returns at once: the thread drops its pointer to this object only after it has called Stopped.
    m_clThread.Stop(1);

    STRegister& stRegister = stConversations();
    const std::lock_guard<std::mutex> clGuard(stRegister.clLock);
    // A child that is being created may hold a copy of the socket: the close alone would end the connection
    // only when that copy is gone, too.
    ::shutdown(m_clSocket.nFd(), SHUT_RDWR);
    stRegister.tSockets.erase(m_clSocket.nFd());
    m_clSocket.Close(); // under the lock: s_bEndAll must not meet a number that is already somebody else's
}

void CDialog::xStart()
{
    // The thread may outlive the caller's pointer, so it gets one of its own.
    m_pclForThread = shared_from_this();
    try {
        std::ignore = m_clThread.xbStart(_WaitForCommandeThreadRoutine, this, &g_stMyModule,
                                         USER_ERROR_THREAD, /*bWaitStart=*/0, /*bSuspended=*/0);
    } catch (...) {
        m_pclForThread.reset(); // or the object would own itself for ever
        throw;
    }

    _SayHello();
}

int CDialog::s_nCount()
{
    STRegister& stRegister = stConversations();
    const std::lock_guard<std::mutex> clGuard(stRegister.clLock);
    return static_cast<int>(stRegister.tSockets.size());
}

bool CDialog::s_bEndAll(int nMs)
{
    {
        STRegister& stRegister = stConversations();
        const std::lock_guard<std::mutex> clGuard(stRegister.clLock);
        for (const int nSocket : stRegister.tSockets) {
            ::shutdown(nSocket, SHUT_RD); // ends the wait for a command; a reply can still go out
        }
    }

    for (; nMs > 0 && s_nCount() != 0; --nMs) {
        ::usleep(1000); // sleeps a little longer: nMs is no exact limit
    }
    return s_nCount() == 0;
}

void _WaitForCommandeThreadRoutine(CZTThread* pclThread)
{
    // Released last: the thread object that is used here is a member of the conversation.
    const std::shared_ptr<CDialog> pclDialog =
        std::move(static_cast<CDialog*>(pclThread->pGetParameter())->m_pclForThread);

    pclThread->Started();
    try {
        pclDialog->_WaitForCommande();
    } catch (...) {
        // Whatever it was (most likely out of memory, or the stop) costs this conversation only. Caught here,
        // before the conversation is released: its destructor waits for Stopped.
    }
    pclThread->Stopped();
}

/// Must not throw: its caller would not know whether the thread runs.
void CDialog::_SayHello()
{
    // The same in every version, whatever the version of this build: clients rely on it.
    _Send("HELLO FROM SERVEUR SETUP 24.0.6.0\r\n");
    m_clGreeted.__Post(0);
}

void CDialog::_WaitForCommande()
{
    while (!m_clThread.bMustStop()) {
        // Declared in the loop: the keyword may be as long as a whole line, and its memory must not stay in
        // use while the tool is silent.
        CTString csKeyword;
        if (!bGetCommand(&csKeyword)) {
            return;
        }

        // A tool that does not wait for the greeting may send its command before the accept thread has sent
        // the greeting, which must come before every reply. What Wait takes is put back for the next command.
        m_clGreeted.Wait();
        m_clGreeted.__Post(0);

        // A command that was still unread when the stop came is not begun any more.
        if (CStopping::bAsked() || !_bExecute(csKeyword)) {
            return;
        }
        ClearCommand();
    }
}

bool CDialog::bGetCommand(CTString* pcsKeyword)
{
    ClearCommand();

    std::array<char, s_nBlock> tBlock;
    bool bWhole = false;
    while (!bWhole) {
        const ssize_t nReceived =
            nRetry([&] { return ::recv(m_clSocket.nFd(), tBlock.data(), tBlock.size(), 0); });
        if (nReceived <= 0) {
            return false;
        }

        // Each block is converted by itself: a UTF-8 character that lies across two blocks is lost, as
        // tools have always seen.
        const std::string_view csBlock(tBlock.data(), static_cast<std::size_t>(nReceived));
        bWhole = m_clCommand.bAppend(csWide(csBlock, m_eCodePage));
    }

    m_nNextField = 0;
    pcsKeyword->clear();
    GetString(pcsKeyword);
    return true;
}

void CDialog::ClearCommand()
{
    m_clCommand.Clear();
}

bool CDialog::_bNextField(std::wstring* pcsField)
{
    const std::wstring& csLine = m_clCommand.csText();

    // Counted from the line's beginning each time: a command takes only a few fields.
    std::size_t nStart = 0;
    for (int nField = m_nNextField++; nField > 0; --nField) {
        nStart = csLine.find(L'\t', nStart);
        if (nStart == std::wstring::npos) {
            return false;
        }
        ++nStart;
    }

    *pcsField = csLine.substr(nStart, csLine.find(L'\t', nStart) - nStart);
    return true;
}

void CDialog::GetString(CTString* pcsOut)
{
    std::ignore = _bNextField(pcsOut); // none: unchanged
}

unsigned int CDialog::dwGetUInt32()
{
    std::wstring csField;
    std::ignore = _bNextField(&csField); // none: empty, which reads as 0
    return static_cast<unsigned int>(wcstol(csField.c_str(), nullptr, 10));
}

std::string CDialog::_csToWire(const std::wstring& csText) const
{
    return csNarrow(csText, m_eCodePage);
}

/// A single call, which waits as long as the tool does not read. After a short write (a signal has
/// interrupted the wait) the rest is not sent: clients have always seen this. A failure is ignored, as the
/// next receive notices a tool that is gone.
void CDialog::_Send(std::string_view csBytes)
{
    std::ignore = ::send(m_clSocket.nFd(), csBytes.data(), csBytes.size(), MSG_NOSIGNAL);
}

void CDialog::Answer(const std::wstring& csText)
{
    // When the time for answers is over, no tool runs any more, so what the command has found out may be
    // wrong: no reply is better.
    CStopping::xCheck();

    // Two calls: clients have always seen the newline sent by itself.
    _Send(_csToWire(csText));
    _Send("\r\n");
}

void CDialog::ACK(eError eCode, const std::wstring& csText)
{
    CStopping::xCheck();
    _Send("ERROR\t" + std::to_string(eCode) + "\t" + _csToWire(csText) + "\r\n");
}

void CDialog::ACK(eError eCode, unsigned int nSystemError)
{
    const int nErrno = errno; // xCheck does not promise to keep it
    CStopping::xCheck();

    if (eCode == ERREUR_AUCUNE) {
        _Send("OK\r\n");
        return;
    }
    _Send("ERROR\t" + std::to_string(eCode) + (nSystemError != 0 ? csSystemText(nErrno) : "") + "\r\n");
}

bool CDialog::_bExecute(const std::wstring& csKeyword)
{
    struct STCommand
    {
        std::wstring_view csKeyword;
        bool (CDialog::*pfnAction)();
    };
    using CRemote = CRemoteVelmoManager;
    // There is no "STOP": CRemoteVelmoManager has the command, the protocol does not.
    static constexpr STCommand s_tCommands[] = {
        {L"START", &CDialog::_bOnServer<&CRemote::Start>},
        {L"STATUS", &CDialog::_bOnServer<&CRemote::GetStatus>},
        {L"UNINSTALL", &CDialog::_bOnServer<&CRemote::UnInstall>},
        {L"QUIT", &CDialog::_bQuit},
        {L"INFO", &CDialog::_bInfo},
        {L"CLUSTERINFO", &CDialog::_bOnServer<&CRemote::ClusterInfo>},
        {L"MODE_UTF8", &CDialog::_bModeUTF8},
    };

    // A command that has begun before the stop may still be answered.
    const CStopRight clRight(CStopRight::ANSWER);

    // The process stays in the C locale, where wcscasecmp folds ASCII letters only. It stops at a NUL, so
    // lengths are compared first: "START", a NUL and more is no keyword.
    for (const STCommand& st : s_tCommands) {
        if (csKeyword.size() == st.csKeyword.size() &&
            wcscasecmp(csKeyword.c_str(), st.csKeyword.data()) == 0) {
            return (this->*st.pfnAction)();
        }
    }

    ACK(ERREUR_COMMANDE_INCONNUE, 0u);
    return true;
}

template <auto pfnCommand>
bool CDialog::_bOnServer()
{
    (gpclSetupManager->clGetRemote().*pfnCommand)(*this);
    return true;
}

bool CDialog::_bQuit()
{
    return false;
}

bool CDialog::_bInfo()
{
    CTString csReply(L"YES\t" + gpclSetupManager->csGetHostInfo());
    // Throws when the services cannot be listed. The conversation then ends without a reply: an empty list
    // would look like a machine without servers.
    gpclSetupManager->AddServeurList(&csReply);
    Answer(csReply);
    return true;
}

bool CDialog::_bModeUTF8()
{
    m_eCodePage = CP_UTF8;
    ACK(ERREUR_AUCUNE, 0u);
    return true;
}
