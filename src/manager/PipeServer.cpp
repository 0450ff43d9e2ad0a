#include "manager/PipeServer.h"

#include "support/ManagerNames.h"
#include "support/SignalMask.h"
#include "support/SystemCall.h"
#include "support/WorkerThread.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {
/// Pause after a read that failed, so that a lasting failure does not burn a processor.
constexpr useconds_t s_nPauseMicroseconds = 100'000;
/// Times that something put in our way again and again is replaced.
constexpr int s_nAttempts = 20;
/// Neither follows a link nor waits for the other end.
constexpr int s_nOpenFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

/// A FIFO that only we or root could have made, that nobody else can write, and that has no second name.
bool bTrusted(const struct stat& st)
{
    return S_ISFIFO(st.st_mode) && (st.st_uid == 0 || st.st_uid == ::geteuid()) &&
           (st.st_mode & (S_IWGRP | S_IWOTH)) == 0 && st.st_nlink == 1;
}

/// The FIFO at the name, open and blocking; none (with errno) when what lies there cannot be trusted.
CDescripteur clOpenTrusted(const char* pszName)
{
    CDescripteur clFifo(::open(pszName, s_nOpenFlags));
    struct stat st
    {};
    if (!clFifo.bOpen() || ::fstat(clFifo.nFd(), &st) != 0) {
        return CDescripteur();
    }
    if (!bTrusted(st)) {
        errno = EPERM;
        return CDescripteur();
    }
    (void)::fchmod(clFifo.nFd(),
                   0600); // one of an earlier run may be readable by others; refused when not ours
    if (::fcntl(clFifo.nFd(), F_SETFL, O_RDWR) != 0) {
        return CDescripteur();
    }
    return clFifo;
}

/// Clears the name. A directory with content is moved aside instead of being deleted: anybody may put one
/// there.
bool bClearName(const char* pszName)
{
    if (::unlink(pszName) == 0 || errno == ENOENT || ::rmdir(pszName) == 0) {
        return true;
    }
    std::string csAside = std::string(pszName) + ".XXXXXX";
    if (::mkdtemp(csAside.data()) == nullptr) {
        return false;
    }
    if (::rename(pszName, csAside.c_str()) == 0) {
        return true;
    }
    const int nErrno = errno;
    (void)::rmdir(csAside.c_str());
    errno = nErrno;
    return false;
}

/// Makes the FIFO, or takes over what is there if it can be trusted; what cannot is cleared away, again and
/// again if somebody keeps putting it there.
CDescripteur clCreateFifo(const char* pszName)
{
    for (int n = 0; n < s_nAttempts; ++n) {
        if (::mkfifo(pszName, 0600) != 0 && errno != EEXIST) {
            break;
        }
        CDescripteur clFifo = clOpenTrusted(pszName);
        if (clFifo.bOpen()) {
            return clFifo;
        }
        const int nErrno = errno;
        if (!bClearName(pszName)) {
            break;
        }
        errno = nErrno;
    }
    return CDescripteur();
}

/// Writes the reply into the client's FIFO if that is one, at once or not at all: a client that is not ready
/// for its answer loses it.
void SendReply(int nReply, const stRET& stReturn)
{
    std::array<char, 48> szName; // no allocation: for want of memory the reply is needed most
    std::snprintf(szName.data(), szName.size(), "%s%d", g_szReplyPipePrefix, nReply);
    const CDescripteur clReply(::open(szName.data(), s_nOpenFlags));
    struct stat st
    {};
    if (clReply.bOpen() && ::fstat(clReply.nFd(), &st) == 0 && S_ISFIFO(st.st_mode)) {
        Ignored(::write(clReply.nFd(), &stReturn, sizeof stReturn)); // smaller than PIPE_BUF: all or nothing
    }
}
} // namespace

CPipeServer::~CPipeServer()
{
    CPipeServer::bStop();
}

bool CPipeServer::bStart()
{
    _StopThread();
    m_clWorkers.Begin();
    m_csName = _vpszGetServerPipeName();
    m_clFifo = clCreateFifo(m_csName.c_str());
    return m_clFifo.bOpen() && _bStartThread();
}

bool CPipeServer::bStop()
{
    // In this order: the number of a closed descriptor may at once be another file's, under a thread that
    // reads.
    m_clWorkers.Stop();
    _StopThread();
    if (m_clFifo.bOpen()) {
        _RemoveFifo();
        m_clFifo.Close();
    }
    return true;
}

bool CPipeServer::_bStartThread()
{
    errno = nCreateWorker(&m_hThread, PTHREAD_CREATE_JOINABLE, ThreadPipe, this);
    m_bThread = errno == 0;
    return m_bThread;
}

void CPipeServer::_StopThread()
{
    if (m_bThread) {
        m_bThread = false;
        (void)::pthread_cancel(m_hThread);
        (void)::pthread_join(m_hThread, nullptr);
    }
}

void* CPipeServer::ThreadPipe(void* pServer)
{
    int nBefore = 0;
    (void)::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &nBefore);
    static_cast<CPipeServer*>(pServer)->_Run();
    return nullptr;
}

void CPipeServer::_Run()
{
    for (;;) {
        stSEND stSend;
        if (_bReadRequest(&stSend)) {
            _Give(stSend);
        }
        m_clWorkers.WaitFree();
    }
}

bool CPipeServer::_bReadRequest(stSEND* pstSend) const
{
    // The only place where the thread can be cancelled. That unwinds its stack, so no caller may catch
    // everything, and no signal handler may run meanwhile: it could be left halfway, with a lock held. Hence
    // no CSignalsHeld either, which would let the signals through while the stack is unwound.
    sigset_t stAll;
    sigset_t stMask;
    sigfillset(&stAll);
    (void)::pthread_sigmask(SIG_SETMASK, &stAll, &stMask);
    int nBefore = 0;
    (void)::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &nBefore);
    ::pthread_testcancel();
    const ssize_t nRead = ::read(m_clFifo.nFd(), pstSend, sizeof *pstSend);
    (void)::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &nBefore);
    (void)::pthread_sigmask(SIG_SETMASK, &stMask, nullptr);
    if (nRead < 0) {
        ::usleep(s_nPauseMicroseconds);
    }
    return nRead == sizeof *pstSend; // less is half a request: its other half would be read as nonsense too
}

/// Beside this thread, so that a server that hangs at its start holds up no other registration; in it when
/// there is no thread for that.
void CPipeServer::_Give(const stSEND& stSend)
{
    try {
        if (m_clWorkers.bRun([this, stSend] { _Handle(stSend); })) {
            return;
        }
    } catch (const std::exception&) { // out of memory
    }
    _Handle(stSend);
}

void CPipeServer::_Handle(const stSEND& stSend)
{
    stRET stReturn{};
    try {
        _ProcessMessage(&stSend, &stReturn);
    } catch (const std::exception& clException) { // want of memory: an empty reply would say that all is well
        WriteReply(clException.what(), &stReturn);
    }
    SendReply(stSend.nReply, stReturn);
}

void CPipeServer::_RemoveFifo()
{
    struct stat stOpen
    {};
    struct stat stNamed
    {};
    if (::fstat(m_clFifo.nFd(), &stOpen) == 0 && ::lstat(m_csName.c_str(), &stNamed) == 0 &&
        stOpen.st_ino == stNamed.st_ino && stOpen.st_dev == stNamed.st_dev) {
        (void)::unlink(m_csName.c_str());
    }
}
