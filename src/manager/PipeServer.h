#pragma once

#include "manager/PipeRecords.h"
#include "support/Descripteur.h"
#include "support/WorkerPool.h"

#include <atomic>
#include <pthread.h>
#include <string>

/// The local pipe: a FIFO and a thread that reads one request record after the other. Up to s_nMaxRequests
/// requests are handled at once, each on a thread of its own; they begin in the order of their arrival. The
/// derived class says the FIFO's name and what a request means. Its owner's thread starts and stops it.
///
/// The FIFO exists from bStart to bStop. When somebody else removes it, no request arrives until the next
/// start: the daemon does not wake up only to look after the file (the packages keep systemd-tmpfiles away
/// from it). A file that somebody else has put at the name is left alone by bStop.
class CPipeServer
{
public:
    /// Requests handled at once; further ones stay in the FIFO until a thread is free.
    static constexpr int s_nMaxRequests = 16;

    CPipeServer() = default;
    CPipeServer(const CPipeServer&) = delete;
    CPipeServer& operator=(const CPipeServer&) = delete;
    /// A derived class calls bStop in its own destructor: until then the threads call its functions.
    virtual ~CPipeServer();

    /// Creates and opens the FIFO and starts the thread; ends the thread of an earlier start first. A FIFO at
    /// the name is taken over if it is ours (or root's) and nobody else can write to it; anything else there
    /// is replaced. False (with errno) when that cannot be done; bStop then cleans up.
    bool bStart();
    /// Finishes the requests in progress, ends the thread, closes and removes the FIFO. Always true.
    bool bStop();

protected:
    /// The reading thread's loop, until bStop.
    virtual void _Run();
    /// Handles one request; several threads call it at once. The reply is all NUL at the call. The text of a
    /// std::exception that is thrown becomes the reply.
    virtual void _ProcessMessage(const stSEND* pstSend, stRET* pstReturn) = 0;
    virtual const char* _vpszGetServerPipeName() const = 0;

private:
    static void* ThreadPipe(void* pServer);
    bool _bStartThread();
    void _StopThread();
    /// Waits for a request; false when none could be read whole.
    bool _bReadRequest(stSEND* pstSend) const;
    void _Give(const stSEND& stSend);
    void _Handle(const stSEND& stSend);
    void _RemoveFifo();

    std::string m_csName; ///< of the FIFO that is or was open
    CDescripteur m_clFifo;
    CWorkerPool m_clWorkers{s_nMaxRequests};
    pthread_t m_hThread{};
    bool m_bMustJoin = false;           ///< m_hThread is a thread that has not been joined
    std::atomic<bool> m_bEnding{false}; ///< the thread is to end
};
