#pragma once

#include "support/XIpHelper.h"
#include "support/ZTThread.h"

#include <cstdint>
#include <memory>
#include <vector>

/// The TCP server: one listening socket and one accept thread per address family, and one CDialog per
/// accepted connection. Owned by the setup manager, used from the main thread only.
class CServer
{
public:
    CServer() = default;
    CServer(const CServer&) = delete;
    CServer& operator=(const CServer&) = delete;
    ~CServer();

    /// Opens the listening sockets; false, with the error, when none can be opened.
    bool bInit(std::uint16_t wPort, CXError* pclError);
    /// Starts the accept threads. Throws CXError when one cannot be started; those before it go on until
    /// Stop.
    void Start();
    /// Ends the accept threads and closes the sockets. Conversations go on.
    void Stop();

private:
    std::vector<std::unique_ptr<CZTThread>> m_tThreads; ///< one per listening socket, in the same order
    CEnsembleSockets m_clSockets;
};

/// Thread routine of an accept thread; the thread's parameter is the listening STSocket.
void _ServerThreadRoutine(CZTThread* pclThread);
