#pragma once

#include "support/Descripteur.h"
#include "support/XError.h"

#include <cstdint>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <vector>

/// One socket of a set.
struct STSocket
{
    int nFamily; ///< AF_INET or AF_INET6
    int nSocket;
};

/// A set of listening or bound sockets, one per address family, in the resolver's order. Owns its
/// descriptors. Filled by one thread; Shutdown may be called while another thread waits.
class CEnsembleSockets
{
public:
    CEnsembleSockets() = default;
    CEnsembleSockets(const CEnsembleSockets&) = delete;
    CEnsembleSockets& operator=(const CEnsembleSockets&) = delete;
    ~CEnsembleSockets() { Close(); }

    void Add(int nFamily, CDescripteur clSocket);
    const std::vector<STSocket>& tGetSockets() const noexcept { return m_tSockets; }

    /// True only if the option was set on all; true for an empty set.
    bool bSetsockopt(int nLevel, int nName, const void* pValue, socklen_t nLength);
    /// First socket of the set that can be read; -1 when none within the time (null: no limit) or the set is
    /// empty.
    int WaitReadable(timeval* pstTimeout);
    void Shutdown(int nHow);
    void Close();

private:
    std::vector<STSocket> m_tSockets;
};

/// Flags of the two functions below.
enum ESocketFlags : unsigned int
{
    SOCKET_IPV4_ONLY = 1,
    SOCKET_IPV6_ONLY = 2, ///< ignored with SOCKET_IPV4_ONLY
    SOCKET_REUSEADDR = 8,
    SOCKET_BROADCAST = 32, ///< UDP only
};

/// Listening TCP sockets on a port for every local address (pszAddress null) or one. True when at least one
/// was added; false leaves the set empty. A bind or listen failure is fatal for the whole set, a missing
/// family is not.
bool bSocketListenTCP(std::uint16_t wPort, unsigned int nFlags, CEnsembleSockets* pclSet, CXError* pclError,
                      const wchar_t* pszAddress, int nBacklog);
/// Bound UDP sockets, likewise; an address that cannot be bound is only skipped.
bool bSocketBindUDP(std::uint16_t wPort, unsigned int nFlags, CEnsembleSockets* pclSet, CXError* pclError,
                    const wchar_t* pszAddress);
