#include "manager/Server.h"

#include "manager/Dialog.h"
#include "support/accesdllres.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <utility>

namespace {
constexpr int s_nBacklog = 128;
/// Pause after an accept that failed (no descriptor left, for instance), so that it does not burn a
/// processor.
constexpr unsigned int s_dwPauseMs = 50;

/// Whether an accept that failed would fail again at once: not when a signal (the end of a child) or a tool
/// that has left already was all.
bool bLasting(int nErrno)
{
    return nErrno != EINTR && nErrno != ECONNABORTED;
}

/// Conversations have descriptors from here on: the low numbers stay free for what is passed to children,
/// whose tables end at the highest number that they are passed.
constexpr int s_nFirstDescriptor = 256;

/// The same socket under a high number; where there is none, as it is.
CDescripteur clMoveUp(CDescripteur clSocket)
{
    CDescripteur clMoved(::fcntl(clSocket.nFd(), F_DUPFD_CLOEXEC, s_nFirstDescriptor));
    return clMoved.bOpen() ? std::move(clMoved) : std::move(clSocket);
}

/// Makes the descriptor table large enough for the first conversations. While the process has one thread that
/// is done at once; later the system makes all threads wait for some milliseconds.
void EnlargeDescriptorTable(int nAny)
{
    const CDescripteur clHigh(::fcntl(nAny, F_DUPFD_CLOEXEC, s_nFirstDescriptor));
}

/// Opens the listening sockets; false with the error. A port that only the remains of ended conversations
/// hold is taken over, one that somebody listens on is refused both times.
bool bListen(std::uint16_t wPort, CEnsembleSockets* pclSockets, CXError* pclError)
{
    bool bOpened = bSocketListenTCP(wPort, 0, pclSockets, pclError, nullptr, s_nBacklog);
    if (!bOpened && pclError->nGetSystemError() == EADDRINUSE) {
        pclError->Clear();
        bOpened = bSocketListenTCP(wPort, SOCKET_REUSEADDR, pclSockets, pclError, nullptr, s_nBacklog);
    }
    if (!bOpened) {
        return false;
    }

    // Inherited by the connections, whose remains would otherwise keep the port from the next manager,
    // whatever that asks for.
    const int nOne = 1;
    (void)pclSockets->bSetsockopt(SOL_SOCKET, SO_REUSEADDR, &nOne, sizeof nOne);
    return true;
}

/// A thread that cannot be started costs its conversation; the tool sees its connection closed.
void Converse(CDescripteur clSocket)
{
    std::make_shared<CDialog>(clMoveUp(std::move(clSocket)))->xStart();
}
} // namespace

void _ServerThreadRoutine(CZTThread* pclThread)
{
    pclThread->Started();
    const int nListening = static_cast<const STSocket*>(pclThread->pGetParameter())->nSocket;
    while (!pclThread->bMustStop()) {
        sockaddr_storage stPeer;
        socklen_t nLength = sizeof stPeer;
        const int nSocket =
            ::accept4(nListening, reinterpret_cast<sockaddr*>(&stPeer), &nLength, SOCK_CLOEXEC);
        if (nSocket < 0) {
            if (bLasting(errno)) {
                pclThread->SleepOrStop(s_dwPauseMs);
            }
            continue;
        }
        try {
            Converse(CDescripteur(nSocket));
        } catch (...) { // out of memory or of threads: costs this conversation
        }
    }
    pclThread->Stopped();
}

CServer::~CServer()
{
    Stop();
}

bool CServer::bInit(std::uint16_t wPort, CXError* pclError)
{
    if (!bListen(wPort, &m_clSockets, pclError)) {
        return false;
    }
    EnlargeDescriptorTable(m_clSockets.tGetSockets().front().nSocket);
    const int nOne = 1;
    (void)m_clSockets.bSetsockopt(IPPROTO_TCP, TCP_NODELAY, &nOne,
                                  sizeof nOne); // inherited by the connections
    m_tThreads.resize(m_clSockets.tGetSockets().size());
    for (auto& pclThread : m_tThreads) {
        pclThread = std::make_unique<CZTThread>();
    }
    return true;
}

void CServer::Start()
{
    for (std::size_t n = 0; n < m_tThreads.size(); ++n) {
        m_tThreads[n]->xbStart(_ServerThreadRoutine, const_cast<STSocket*>(&m_clSockets.tGetSockets()[n]),
                               &g_stMyModule, USER_ERROR_THREAD, 0, 0);
    }
}

void CServer::Stop()
{
    for (auto& pclThread : m_tThreads) {
        pclThread->Stop(0);
    }
    // Shutting down wakes accept; the descriptors go only when no thread can use their numbers any more.
    m_clSockets.Shutdown(SHUT_RDWR);
    for (auto& pclThread : m_tThreads) {
        pclThread->Stop(1);
    }
    m_clSockets.Close();
    m_tThreads.clear();
}
