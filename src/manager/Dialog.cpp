#include "manager/Dialog.h"

#include "manager/SetupManager.h"
#include "support/accesdllres.h"
#include "support/Conversion.h"
#include "support/SystemCall.h"
#include "support/WinApi.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <set>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <wchar.h>

namespace {
constexpr std::wstring_view s_csLineEnd = L"\r\n";
constexpr std::size_t s_nBlock = 1024; ///< bytes of one receive

/// The conversations that exist, by socket.
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
    STRegister& stAll = stConversations();
    const std::lock_guard<std::mutex> clGuard(stAll.clLock);
    stAll.tSockets.insert(m_clSocket.nFd());
}

CDialog::~CDialog()
{
    m_clThread.Stop(1);
    STRegister& stAll = stConversations();
    const std::lock_guard<std::mutex> clGuard(stAll.clLock);
    ::shutdown(m_clSocket.nFd(), SHUT_RDWR);
    stAll.tSockets.erase(m_clSocket.nFd());
    m_clSocket.Close(); // under the lock: s_bEndAll must not meet a number that is already somebody else's
}

void CDialog::xStart()
{
    if (!m_clThread.xbStart(_WaitForCommandeThreadRoutine, this, &g_stMyModule, USER_ERROR_THREAD, 0, 0)) {
        throw CXError();
    }
    _SayHello();
}

void CDialog::Release()
{
    if (m_nUsers.fetch_sub(1) == 1) {
        delete this;
    }
}

int CDialog::s_nCount()
{
    STRegister& stAll = stConversations();
    const std::lock_guard<std::mutex> clGuard(stAll.clLock);
    return static_cast<int>(stAll.tSockets.size());
}

bool CDialog::s_bEndAll(int nMs)
{
    {
        STRegister& stAll = stConversations();
        const std::lock_guard<std::mutex> clGuard(stAll.clLock);
        for (const int nSocket : stAll.tSockets) {
            ::shutdown(nSocket, SHUT_RD); // ends the wait for a command; a reply can still go out
        }
    }
    for (; nMs > 0 && s_nCount() != 0; --nMs) {
        ::usleep(1000);
    }
    return s_nCount() == 0;
}

void _WaitForCommandeThreadRoutine(CZTThread* pclThread)
{
    auto* pclDialog = static_cast<CDialog*>(pclThread->pGetParameter());
    pclThread->Started();
    try {
        pclDialog->_WaitForCommande();
    } catch (...) {
        // Whatever it was (no memory, most likely) costs this conversation only.
    }
    pclThread->Stopped();
    pclDialog->Release();
}

/// Must not throw: its caller would not know whether the thread runs.
void CDialog::_SayHello()
{
    __Send("HELLO FROM SERVEUR SETUP 24.0.6.0\r\n");
}

void CDialog::_WaitForCommande()
{
    CTString csKeyword;
    while (!m_clThread.bMustStop() && bGetCommand(&csKeyword) && __bExecute(csKeyword)) {
        ClearCommand();
    }
}

bool CDialog::bGetCommand(CTString* pcsKeyword)
{
    ClearCommand();
    std::array<char, s_nBlock> tBlock;
    std::size_t nEnd = std::wstring::npos;
    while (nEnd == std::wstring::npos) {
        const ssize_t nReceived =
            nRetry([&] { return ::recv(m_clSocket.nFd(), tBlock.data(), tBlock.size(), 0); });
        if (nReceived <= 0) {
            return false;
        }
        // The line end may lie across two blocks: look again at the last character of what is there already.
        const std::size_t nSearch = m_csCommand.empty() ? 0 : m_csCommand.size() - 1;
        m_csCommand +=
            csWide({tBlock.data(), static_cast<std::size_t>(nReceived)}, m_bUTF8 ? CP_UTF8 : CP_1252);
        nEnd = m_csCommand.find(s_csLineEnd, nSearch);
    }
    m_csCommand.erase(nEnd); // and all behind it: one command, one reply
    m_nNextArgument = 0;
    pcsKeyword->clear();
    GetString(pcsKeyword);
    return true;
}

void CDialog::ClearCommand()
{
    m_csCommand.clear();
}

bool CDialog::__bNextField(std::wstring* pcsField)
{
    std::size_t nStart = 0;
    for (int nField = m_nNextArgument++; nField > 0; --nField) {
        nStart = m_csCommand.find(L'\t', nStart);
        if (nStart == std::wstring::npos) {
            return false;
        }
        ++nStart;
    }
    *pcsField = m_csCommand.substr(nStart, m_csCommand.find(L'\t', nStart) - nStart);
    return true;
}

void CDialog::GetString(CTString* pcsOut)
{
    (void)__bNextField(pcsOut);
}

unsigned int CDialog::dwGetUInt32()
{
    std::wstring csField;
    (void)__bNextField(&csField);
    return static_cast<unsigned int>(wcstol(csField.c_str(), nullptr, 10));
}

std::string CDialog::__csToWire(const std::wstring& csText) const
{
    return csNarrow(csText, m_bUTF8 ? CP_UTF8 : CP_1252);
}

/// One call, which waits for a tool that does not read. One that is gone is noticed by the next receive.
void CDialog::__Send(std::string_view csBytes)
{
    (void)::send(m_clSocket.nFd(), csBytes.data(), csBytes.size(), MSG_NOSIGNAL);
}

void CDialog::Answer(const std::wstring& csText)
{
    __Send(__csToWire(csText));
    __Send("\r\n");
}

void CDialog::ACK(eError eCode, const std::wstring& csText)
{
    __Send("ERROR\t" + std::to_string(eCode) + "\t" + __csToWire(csText) + "\r\n");
}

void CDialog::ACK(eError eCode, unsigned int nSystemError)
{
    const int nErrno = errno;
    if (eCode == ERREUR_AUCUNE) {
        __Send("OK\r\n");
        return;
    }
    const std::wstring csText = nSystemError != 0 ? csSystemMessage(nErrno) : std::wstring();
    __Send("ERROR\t" + std::to_string(eCode) + __csToWire(csText) + "\r\n");
}

bool CDialog::__bExecute(const std::wstring& csKeyword)
{
    struct STCommand
    {
        const wchar_t* pszKeyword;
        bool (CDialog::*pfnAction)();
    };
    using CRemote = CRemoteVelmoManager;
    static constexpr STCommand s_tCommands[] = {
        {L"START", &CDialog::__bOnServer<&CRemote::Start>},
        {L"STATUS", &CDialog::__bOnServer<&CRemote::GetStatus>},
        {L"UNINSTALL", &CDialog::__bOnServer<&CRemote::UnInstall>},
        {L"QUIT", &CDialog::__bQuit},
        {L"INFO", &CDialog::__bInfo},
        {L"CLUSTERINFO", &CDialog::__bOnServer<&CRemote::ClusterInfo>},
        {L"MODE_UTF8", &CDialog::__bModeUTF8},
    };
    // Case is folded as the C locale does it, for ASCII letters only.
    for (const STCommand& st : s_tCommands) {
        if (wcscasecmp(csKeyword.c_str(), st.pszKeyword) == 0) {
            return (this->*st.pfnAction)();
        }
    }
    ACK(ERREUR_COMMANDE_INCONNUE, 0u);
    return true;
}

template <auto pfnCommand>
bool CDialog::__bOnServer()
{
    (gpclSetupManager->clGetRemote().*pfnCommand)(*this);
    return true;
}

bool CDialog::__bQuit()
{
    return false;
}

bool CDialog::__bInfo()
{
    CTString csReply(L"YES\t" + gpclSetupManager->csGetHostInfo());
    gpclSetupManager->AddServeurList(&csReply);
    Answer(csReply);
    return true;
}

bool CDialog::__bModeUTF8()
{
    m_bUTF8 = true;
    ACK(ERREUR_AUCUNE, 0u);
    return true;
}
