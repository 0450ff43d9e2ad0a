#include "manager/Server.h"

#include "manager/Dialog.h"
#include "support/accesdllres.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <tuple>
#include <utility>

namespace {
/// Connections that may wait for an accept. Fixed; docs/performance.md shows what happens beyond it.
constexpr int s_nBacklog = 128;
/// Pause after a failed accept (for want of a descriptor, for instance), so that a lasting failure does not
/// keep a processor busy.
constexpr unsigned int s_dwPauseMs = 50;

/// Whether a failed accept would fail again at once. Not after a signal (a child's exit), nor when the tool
/// has closed its connection before it was accepted.
bool bLasting(int nErrno)
{
    return nErrno != EINTR && nErrno != ECONNABORTED;
}

/// Lowest descriptor of a conversation. A child unshares the descriptor table up to the highest number that
/// is passed to it: with the low numbers left to what children get, these copies stay short.
constexpr int s_nFirstDescriptor = 256;

/// The same socket under a high number, or unchanged when no such number is free.
CDescripteur clMoveUp(CDescripteur clSocket)
{
    CDescripteur clMoved(::fcntl(clSocket.nFd(), F_DUPFD_CLOEXEC, s_nFirstDescriptor));
    return clMoved.bOpen() ? std::move(clMoved) : std::move(clSocket);
}

/// Makes the descriptor table large enough for the first conversations, by opening a high number for a
/// moment. As long as the process has a single thread, the kernel enlarges the table at once; later that
/// makes the thread wait for some milliseconds. nOpen is any open descriptor.
void EnlargeDescriptorTable(int nOpen)
{
    const CDescripteur clHigh(::fcntl(nOpen, F_DUPFD_CLOEXEC, s_nFirstDescriptor));
}

/// Opens the listening sockets; false with the error. A port that is only occupied by the remains of ended
/// connections is taken over by the second attempt. A port that somebody listens on is refused both times.
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

    // The connections inherit the option. Without it their remains would keep the port from the next manager,
    // even from one that sets the option itself.
    const int nOne = 1;
    std::ignore = pclSockets->bSetsockopt(SOL_SOCKET, SO_REUSEADDR, &nOne, sizeof nOne);
    return true;
}

/// Throws when the conversation cannot be started; the tool then sees its connection closed.
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
        const int nSocket = ::accept4(nListening, nullptr, nullptr, SOCK_CLOEXEC);
        if (nSocket < 0) {
            if (bLasting(errno)) {
                pclThread->SleepOrStop(s_dwPauseMs);
            }
            continue;
        }

        try {
            Converse(CDescripteur(nSocket));
        } catch (...) { // out of memory or of threads: costs this conversation only
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

    // The connections inherit the option. A reply may be two sends: without the option the second would wait
    // for the tool's delayed acknowledgement of the first.
    const int nOne = 1;
    std::ignore = m_clSockets.bSetsockopt(IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof nOne);

    m_tThreads.resize(m_clSockets.tGetSockets().size());
    for (auto& pclThread : m_tThreads) {
        pclThread = std::make_unique<CZTThread>();
    }
    return true;
}

void CServer::Start()
{
    // A thread's parameter is no pointer to const; the accept thread only reads it all the same.
    for (std::size_t n = 0; n < m_tThreads.size(); ++n) {
        m_tThreads[n]->xbStart(_ServerThreadRoutine, const_cast<STSocket*>(&m_clSockets.tGetSockets()[n]),
                               &g_stMyModule, USER_ERROR_THREAD, /*bWaitStart=*/0, /*bSuspended=*/0);
    }
}

void CServer::Stop()
{
    for (auto& pclThread : m_tThreads) {
        pclThread->Stop(0);
    }

    // The shutdown wakes accept. The descriptors are closed only when no thread can use their numbers any
    // more: a number may become another file's at once.
    m_clSockets.Shutdown(SHUT_RDWR);
    for (auto& pclThread : m_tThreads) {
        pclThread->Stop(1);
    }
    m_clSockets.Close();
    m_tThreads.clear();
}
