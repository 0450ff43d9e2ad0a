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

/// A set of listening or bound sockets, in the resolver's order. Owns its descriptors. One thread fills it;
/// Shutdown may be called while another thread waits.
class CEnsembleSockets
{
public:
    CEnsembleSockets() = default;
    CEnsembleSockets(const CEnsembleSockets&) = delete;
    CEnsembleSockets& operator=(const CEnsembleSockets&) = delete;
    ~CEnsembleSockets() { Close(); }

    void Add(int nFamily, CDescripteur clSocket);
    const std::vector<STSocket>& tGetSockets() const noexcept { return m_tSockets; }

    /// Sets an option of all sockets, even after one has refused it. True when every socket took it.
    bool bSetsockopt(int nLevel, int nName, const void* pValue, socklen_t nLength);
    /// Waits for a socket that can be read (or accepted from) and returns the first, which stays the set's.
    /// -1 when there is none within the time (null: no limit), a signal interrupts, or the set is empty.
    int WaitReadable(timeval* pstTimeout);
    /// Ends the wait of another thread: the sockets become readable. (Of UDP sockets the kernel wakes the
    /// waiting thread, too, although shutdown itself fails with ENOTCONN.)
    void Shutdown(int nHow);
    /// Keeps errno.
    void Close();

private:
    std::vector<STSocket> m_tSockets;
};

/// Flags of the two operations below.
enum ESocketFlags : unsigned int
{
    SOCKET_IPV4_ONLY = 1,
    SOCKET_IPV6_ONLY = 2, ///< ignored with SOCKET_IPV4_ONLY
    SOCKET_REUSEADDR = 8,
    SOCKET_BROADCAST = 32, ///< UDP only
};

/// Fills the empty set with TCP sockets that listen on a port, for every local address (pszAddress null) or
/// for one. True when at least one was added; false leaves the set empty and fills the error (null: not
/// wanted). A bind or listen failure is fatal for the whole set. A socket that cannot be created is skipped,
/// whatever the cause: usually the kernel lacks its family.
bool bSocketListenTCP(std::uint16_t wPort, unsigned int nFlags, CEnsembleSockets* pclSet, CXError* pclError,
                      const wchar_t* pszAddress, int nBacklog);
/// Fills the set with bound UDP sockets in the same way, except that an address that cannot be bound is
/// skipped.
bool bSocketBindUDP(std::uint16_t wPort, unsigned int nFlags, CEnsembleSockets* pclSet, CXError* pclError,
                    const wchar_t* pszAddress);
