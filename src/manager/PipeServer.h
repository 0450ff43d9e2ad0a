#pragma once

#include "manager/PipeRecords.h"
#include "support/Descripteur.h"
#include "support/WorkerPool.h"

#include <pthread.h>
#include <string>

/// The local pipe: a FIFO with a reading thread that takes one request record after the other and has up to a
/// number of them handled at once, each on a thread of its own, begun in their order. The derived class gives
/// the name and the meaning. Started and stopped by its owner's thread.
///
/// The thread is ended by cancellation, which it accepts only while it waits for a request. The FIFO's file
/// exists while the server is started. When somebody else removes it meanwhile, requests no longer arrive
/// until the next start: nothing wakes the daemon only to look after the file (the packages keep the system's
/// cleaner away from it), and what then lies at the name is left alone by the stop.
class CPipeServer
{
public:
    /// Requests handled at once; further ones stay in the FIFO.
    static constexpr int s_nMaxRequests = 16;

    CPipeServer() = default;
    CPipeServer(const CPipeServer&) = delete;
    CPipeServer& operator=(const CPipeServer&) = delete;
    /// A derived class calls bStop in its own destructor: the thread calls its functions.
    virtual ~CPipeServer();

    /// Creates and opens the FIFO and starts the thread. What already lies at the name is used only if it is
    /// a FIFO of ours (or root's) that nobody else can write, and otherwise replaced; false (with errno) when
    /// that cannot be done.
    bool bStart();
    /// Ends the thread (requests in progress are finished first), closes and removes the FIFO. Always true.
    bool bStop();

protected:
    /// The thread's loop; never returns.
    virtual void _Run();
    /// Handles one request; several threads at once. The reply is all NUL at the call.
    virtual void _ProcessMessage(const stSEND* pstSend, stRET* pstReturn) = 0;
    virtual const char* _vpszGetServerPipeName() const = 0;

private:
    static void* ThreadPipe(void* pServer);
    bool _bStartThread();
    void _StopThread();
    bool _bReadRequest(stSEND* pstSend) const;
    void _Give(const stSEND& stSend);
    void _Handle(const stSEND& stSend);
    void _RemoveFifo();

    std::string m_csName;  ///< of the FIFO that is or was open
    CDescripteur m_clFifo; ///< open for reading and writing: it never loses its last writer, so reads block
    CWorkerPool m_clWorkers{s_nMaxRequests};
    pthread_t m_hThread{};
    bool m_bThread = false;
};
