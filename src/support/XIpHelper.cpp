#include "support/XIpHelper.h"

#include "support/accesdllres.h"
#include "support/Conversion.h"
#include "support/Descripteur.h"
#include "support/SelectSet.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace {
/// Longest queue of connections that wait for accept. Kernels before 5.4 cut a longer one to this unless the
/// administrator raises net.core.somaxconn.
constexpr int s_nMaxBacklog = 128;

/// The outcome for one address of the resolver; only SOCKET_READY hands over a socket.
enum ESocketResult
{
    SOCKET_READY = 0,
    SOCKET_SKIPPED = 1,
    SOCKET_FATAL = 2, ///< for the whole set
};

struct STFreeAddrInfo
{
    void operator()(addrinfo* pst) const noexcept { ::freeaddrinfo(pst); }
};
using CAddrInfo = std::unique_ptr<addrinfo, STFreeAddrInfo>;

/// Completes the error of a server socket with errno and the name of the failed call. Keeps errno.
void __CompleteErreurServeur(std::uint16_t wPort, const wchar_t* pszCall, CXError* pclError)
{
    if (pclError == nullptr) {
        return;
    }

    const int nErrno = errno; // formatting the message may change it
    CTString csText;
    DLLRES_bFormatMessage(&g_stMyModule, MSG_PORT_NOT_OPENED, &csText, static_cast<unsigned int>(wPort));
    pclError->SetUserError(MSG_PORT_NOT_OPENED, csText);
    pclError->SetModule(g_stMyModule.pszName);

    // The failed call is named once: the other family's socket usually fails in the same way.
    if (pclError->nGetSystemError() == 0) {
        pclError->AddDebugMessage(pszCall);
    }
    pclError->SetSystemError(nErrno);

    errno = nErrno;
}

/// Completes the error of a port for which the resolver finds no address (nResult: its EAI_... code). The
/// message is not that of a port that cannot be opened: the port itself may be free.
void CompleteResolverError(std::uint16_t wPort, int nResult, CXError* pclError)
{
    if (pclError == nullptr) {
        return;
    }

    const int nErrno = errno;
    pclError->SetSystemError(nResult == EAI_SYSTEM ? nErrno : 0);
    pclError->SetUserError(0, L"No local address for port " + std::to_wstring(wPort) + L": " +
                                  csFromUTF8(::gai_strerror(nResult)));
    pclError->SetModule(g_stMyModule.pszName);
    pclError->AddDebugMessage(L"getaddrinfo");
}

/// Switches a socket option on.
bool bSetFlag(int nSocket, int nLevel, int nName)
{
    const int nOn = 1;
    return ::setsockopt(nSocket, nLevel, nName, &nOn, sizeof nOn) == 0;
}

/// Creates a socket of the entry's family with the options that the flags ask for. An IPv6 socket takes no
/// IPv4 traffic, which has a socket of its own. A refused option is ignored: if it matters, bind or send
/// fails.
CDescripteur clNewSocket(const addrinfo& stEntry, int nType, unsigned int nFlags)
{
    CDescripteur clSocket(::socket(stEntry.ai_family, nType | SOCK_CLOEXEC, 0));
    if (!clSocket.bOpen()) {
        return clSocket;
    }

    if (stEntry.ai_family == AF_INET6) {
        bSetFlag(clSocket.nFd(), IPPROTO_IPV6, IPV6_V6ONLY);
    }
    if ((nFlags & SOCKET_REUSEADDR) != 0) {
        bSetFlag(clSocket.nFd(), SOL_SOCKET, SO_REUSEADDR);
    }
    if (nType == SOCK_DGRAM && (nFlags & SOCKET_BROADCAST) != 0) {
        bSetFlag(clSocket.nFd(), SOL_SOCKET, SO_BROADCAST);
    }
    return clSocket;
}

/// Opens a listening TCP socket for one address. wPort is the port of that address, for the error.
ESocketResult eSocketListenStream(const addrinfo& stEntry, std::uint16_t wPort, unsigned int nFlags,
                                  CXError* pclError, int nBacklog, CDescripteur* pclSocket)
{
    CDescripteur clSocket = clNewSocket(stEntry, SOCK_STREAM, nFlags);
    if (!clSocket.bOpen()) { // usually the kernel does not have this family
        return SOCKET_SKIPPED;
    }

    if (::bind(clSocket.nFd(), stEntry.ai_addr, stEntry.ai_addrlen) != 0) {
        __CompleteErreurServeur(wPort, L"bind", pclError);
        return SOCKET_FATAL;
    }
    if (::listen(clSocket.nFd(), nBacklog) != 0) {
        __CompleteErreurServeur(wPort, L"listen", pclError);
        return SOCKET_FATAL;
    }

    *pclSocket = std::move(clSocket);
    return SOCKET_READY;
}

/// Opens a bound UDP socket for one address, in the same way. Never fatal: an address of one family may be
/// taken or missing, and the endpoint still answers on the other.
ESocketResult eSocketBindStreamUDP(const addrinfo& stEntry, std::uint16_t wPort, unsigned int nFlags,
                                   CXError* pclError, CDescripteur* pclSocket)
{
    CDescripteur clSocket = clNewSocket(stEntry, SOCK_DGRAM, nFlags);
    if (!clSocket.bOpen()) {
        return SOCKET_SKIPPED;
    }

    if (::bind(clSocket.nFd(), stEntry.ai_addr, stEntry.ai_addrlen) != 0) {
        __CompleteErreurServeur(wPort, L"bind", pclError);
        return SOCKET_SKIPPED;
    }

    *pclSocket = std::move(clSocket);
    return SOCKET_READY;
}

/// Address family that the flags ask for.
int nFamily(unsigned int nFlags)
{
    if ((nFlags & SOCKET_IPV4_ONLY) != 0) {
        return AF_INET;
    }
    return (nFlags & SOCKET_IPV6_ONLY) != 0 ? AF_INET6 : AF_UNSPEC;
}

/// What a caller of bOpenAll wants to open.
struct STEndpoint
{
    int nType;     ///< SOCK_...
    int nProtocol; ///< IPPROTO_...
    std::uint16_t wPort;
    unsigned int nFlags;       ///< of ESocketFlags
    const wchar_t* pszAddress; ///< null: every local one
};

/// Local addresses to bind; null, and a complete error, when the resolver fails.
CAddrInfo pResolve(const STEndpoint& stEndpoint, CXError* pclError)
{
    const wchar_t* const pszAddress = stEndpoint.pszAddress;
    addrinfo stHints{};
    stHints.ai_family = nFamily(stEndpoint.nFlags);
    stHints.ai_socktype = stEndpoint.nType;
    stHints.ai_protocol = stEndpoint.nProtocol;

    // Without an address AI_NUMERICHOST keeps the resolver from looking any name up.
    stHints.ai_flags = pszAddress != nullptr ? AI_PASSIVE : AI_PASSIVE | AI_NUMERICHOST;

    const std::string csNode = pszAddress != nullptr ? csNarrow(pszAddress, CP_1252) : std::string();
    addrinfo* pstList = nullptr;
    const int nResult = ::getaddrinfo(pszAddress != nullptr ? csNode.c_str() : nullptr,
                                      std::to_string(stEndpoint.wPort).c_str(), &stHints, &pstList);

    if (nResult != 0) {
        CompleteResolverError(stEndpoint.wPort, nResult, pclError);
        return nullptr;
    }
    return CAddrInfo(pstList);
}

/// Resolves, and calls eOpen for each IPv4 or IPv6 address in the resolver's order until one is fatal. False
/// with the error filled, even where eOpen has filled none, when no socket was opened or one was fatal.
template <class TWorker>
bool bOpenAll(const STEndpoint& stEndpoint, CEnsembleSockets* pclSet, CXError* pclError, TWorker eOpen)
{
    const CAddrInfo pAddresses = pResolve(stEndpoint, pclError);
    for (const addrinfo* pst = pAddresses.get(); pst != nullptr; pst = pst->ai_next) {
        if (pst->ai_family != AF_INET && pst->ai_family != AF_INET6) {
            continue;
        }

        CDescripteur clSocket;
        const ESocketResult eResult = eOpen(*pst, &clSocket);
        if (eResult == SOCKET_FATAL) {
            pclSet->Close();
            return false;
        }
        if (eResult == SOCKET_READY) {
            pclSet->Add(pst->ai_family, std::move(clSocket));
        }
    }

    // All addresses skipped without an error: no socket could be created, and errno is still that of the last
    // attempt.
    if (pclSet->tGetSockets().empty() && pclError != nullptr && !pclError->bIsSet()) {
        __CompleteErreurServeur(stEndpoint.wPort, L"socket", pclError);
    }
    return !pclSet->tGetSockets().empty();
}
} // namespace

void CEnsembleSockets::Add(int nFamily, CDescripteur clSocket)
{
    m_tSockets.push_back({nFamily, clSocket.nFd()}); // may throw: the socket is released only after it
    std::ignore = clSocket.nRelease();
}

bool CEnsembleSockets::bSetsockopt(int nLevel, int nName, const void* pValue, socklen_t nLength)
{
    bool bAll = true;
    for (const STSocket& st : m_tSockets) {
        bAll = ::setsockopt(st.nSocket, nLevel, nName, pValue, nLength) == 0 && bAll;
    }
    return bAll;
}

int CEnsembleSockets::WaitReadable(timeval* pstTimeout)
{
    if (m_tSockets.empty()) {
        return -1;
    }

    CSelectSet clSet;
    for (const STSocket& st : m_tSockets) {
        clSet.Add(st.nSocket);
    }

    if (clSet.nSelect(pstTimeout) <= 0) {
        return -1;
    }

    // Of several readable sockets the first is returned: the others are still readable at the next call.
    const auto it = std::ranges::find_if(
        m_tSockets, [&clSet](int nSocket) { return clSet.bReadable(nSocket); }, &STSocket::nSocket);
    return it == m_tSockets.end() ? -1 : it->nSocket;
}

void CEnsembleSockets::Shutdown(int nHow)
{
    for (const STSocket& st : m_tSockets) {
        ::shutdown(st.nSocket, nHow);
    }
}

void CEnsembleSockets::Close()
{
    const int nErrno = errno;
    for (const STSocket& st : m_tSockets) {
        ::close(st.nSocket);
    }
    m_tSockets.clear();
    errno = nErrno;
}

bool bSocketListenTCP(std::uint16_t wPort, unsigned int nFlags, CEnsembleSockets* pclSet, CXError* pclError,
                      const wchar_t* pszAddress, int nBacklog)
{
    const auto eOpen = [=](const addrinfo& stEntry, CDescripteur* pclSocket) {
        return eSocketListenStream(stEntry, wPort, nFlags, pclError, std::min(nBacklog, s_nMaxBacklog),
                                   pclSocket);
    };
    return bOpenAll({SOCK_STREAM, IPPROTO_TCP, wPort, nFlags, pszAddress}, pclSet, pclError, eOpen);
}

bool bSocketBindUDP(std::uint16_t wPort, unsigned int nFlags, CEnsembleSockets* pclSet, CXError* pclError,
                    const wchar_t* pszAddress)
{
    const auto eOpen = [=](const addrinfo& stEntry, CDescripteur* pclSocket) {
        return eSocketBindStreamUDP(stEntry, wPort, nFlags, pclError, pclSocket);
    };
    return bOpenAll({SOCK_DGRAM, IPPROTO_UDP, wPort, nFlags, pszAddress}, pclSet, pclError, eOpen);
}
