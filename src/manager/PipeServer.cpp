#include "manager/PipeServer.h"

#include "support/ManagerNames.h"
#include "support/SystemCall.h"
#include "support/WorkerThread.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace {
/// Pause after a failed read, so that a lasting failure does not keep a processor busy.
constexpr useconds_t s_nPauseMicroseconds = 100'000;
/// How often what somebody puts at the FIFO's name is replaced before the start gives up.
constexpr int s_nAttempts = 20;
/// For both FIFOs. The open follows no link and does not wait for the other end. Reading and writing: the
/// manager's FIFO then never loses its last writer, so that reads block instead of reporting the end of the
/// file; a client's FIFO can be opened, and written to, before the client has opened it.
constexpr int s_nOpenFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

/// A FIFO that only we or root can have made, that nobody else can write to, and that has no second name,
/// through which somebody else could open it.
bool bTrusted(const STFileStatus& st)
{
    return S_ISFIFO(st.st_mode) && (st.st_uid == 0 || st.st_uid == ::geteuid()) &&
           (st.st_mode & (S_IWGRP | S_IWOTH)) == 0 && st.st_nlink == 1;
}

/// Opens the FIFO at the name, for blocking reads; none (with errno) when what lies there cannot be trusted.
CDescripteur clOpenTrusted(const char* pszName)
{
    CDescripteur clFifo(::open(pszName, s_nOpenFlags));
    STFileStatus st{};
    if (!clFifo.bOpen() || ::fstat(clFifo.nFd(), &st) != 0) {
        return CDescripteur();
    }
    if (!bTrusted(st)) {
        errno = EPERM;
        return CDescripteur();
    }

    // A FIFO of an earlier run may be readable by others. Refused when the FIFO is root's and we are not.
    std::ignore = ::fchmod(clFifo.nFd(), 0600);

    // Without O_NONBLOCK from here on: it kept the open from waiting, and must not do so for the reads.
    if (::fcntl(clFifo.nFd(), F_SETFL, O_RDWR) != 0) {
        return CDescripteur();
    }
    return clFifo;
}

/// Clears the name. A directory that is not empty is moved aside instead of being deleted: its content may be
/// anybody's. False with errno.
bool bClearName(const char* pszName)
{
    if (::unlink(pszName) == 0 || errno == ENOENT || ::rmdir(pszName) == 0) {
        return true;
    }

    // A new empty directory reserves the name: rename puts the other directory in its place.
    std::string csAside = std::string(pszName) + ".XXXXXX";
    if (::mkdtemp(csAside.data()) == nullptr) {
        return false;
    }
    if (::rename(pszName, csAside.c_str()) == 0) {
        return true;
    }

    const int nErrno = errno;
    std::ignore = ::rmdir(csAside.c_str());
    errno = nErrno;
    return false;
}

/// Makes the FIFO, or takes over one that can be trusted. Anything else at the name is cleared away, again
/// and again if somebody keeps putting it there. None (with errno) when that does not succeed.
CDescripteur clCreateFifo(const char* pszName)
{
    for (int n = 0; n < s_nAttempts; ++n) {
        if (::mkfifo(pszName, 0600) != 0 && errno != EEXIST) {
            break;
        }

        // Judged by what was opened, also after our own mkfifo: the name may have changed hands since.
        CDescripteur clFifo = clOpenTrusted(pszName);
        if (clFifo.bOpen()) {
            return clFifo;
        }

        const int nErrno = errno; // after the last attempt the caller reports why the FIFO was refused
        if (!bClearName(pszName)) {
            break;
        }
        errno = nErrno;
    }
    return CDescripteur();
}

/// Writes the reply into the client's FIFO, at once or not at all: a client that has not opened it yet, or
/// whose name is no FIFO, loses its reply.
void SendReply(int nReply, const stRET& stReturn)
{
    std::array<char, 48> szName; // no allocation: the reply may be that memory is out
    std::snprintf(szName.data(), szName.size(), "%s%d", g_szReplyPipePrefix, nReply);
    const CDescripteur clReply(::open(szName.data(), s_nOpenFlags));
    STFileStatus st{};
    if (clReply.bOpen() && ::fstat(clReply.nFd(), &st) == 0 && S_ISFIFO(st.st_mode)) {
        std::ignore = ::write(clReply.nFd(), &stReturn, sizeof stReturn); // at most PIPE_BUF: all or nothing
    }
}
} // namespace

CPipeServer::~CPipeServer()
{
    CPipeServer::bStop();
}

bool CPipeServer::bStart()
{
    _StopThread(); // of an earlier start, while the FIFO that its thread reads is still open
    m_clWorkers.Begin();
    m_csName = _vpszGetServerPipeName();
    m_clFifo = clCreateFifo(m_csName.c_str());
    return m_clFifo.bOpen() && _bStartThread();
}

bool CPipeServer::bStop()
{
    // The workers first: this also ends the reading thread's wait for a free worker, which the byte that
    // _StopThread writes would not. The descriptor last: its number may become another file's at once, which
    // a thread that still runs would then read.
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
    m_bEnding = false;
    errno = nCreateWorker(&m_hThread, PTHREAD_CREATE_JOINABLE, ThreadPipe, this);
    m_bMustJoin = errno == 0;
    return m_bMustJoin;
}

void CPipeServer::_StopThread()
{
    if (!m_bMustJoin) {
        return;
    }
    m_bMustJoin = false;
    m_bEnding = true; // first: the thread looks at it when it wakes

    // A byte is no request, but wakes the thread. The write must not wait for room: there is no need to wake
    // a thread whose FIFO is full, and it may be about to end without having read anything more.
    std::ignore = ::fcntl(m_clFifo.nFd(), F_SETFL, O_RDWR | O_NONBLOCK);
    std::ignore = ::write(m_clFifo.nFd(), "", 1);
    std::ignore = ::pthread_join(m_hThread, nullptr);
}

void* CPipeServer::ThreadPipe(void* pServer)
{
    static_cast<CPipeServer*>(pServer)->_Run();
    return nullptr;
}

void CPipeServer::_Run()
{
    while (!m_bEnding) {
        stSEND stSend;
        if (_bReadRequest(&stSend)) {
            _Give(stSend);
        }
        // Until a worker is free, further requests stay in the FIFO; once that is full, their writers wait.
        m_clWorkers.WaitFree();
    }
}

bool CPipeServer::_bReadRequest(stSEND* pstSend) const
{
    const ssize_t nRead = nRetry([&] { return ::read(m_clFifo.nFd(), pstSend, sizeof *pstSend); });
    if (nRead < 0) {
        ::usleep(s_nPauseMicroseconds);
    }
    return nRead == sizeof *pstSend; // a part of a request is dropped: its rest would make no sense either
}

/// Has a worker thread handle the request, so that a server that hangs at its start holds up no other
/// registration. Without a thread for it, this one does.
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
    } catch (const std::exception& clException) {
        // Out of memory, or the stop. An empty reply would mean that the server is registered.
        WriteReply(clException.what(), &stReturn);
    }
    SendReply(stSend.nReply, stReturn);
}

/// Only our own FIFO: somebody may have put another file at the name meanwhile.
void CPipeServer::_RemoveFifo()
{
    STFileStatus stOpen{};
    STFileStatus stNamed{};
    if (::fstat(m_clFifo.nFd(), &stOpen) == 0 && ::lstat(m_csName.c_str(), &stNamed) == 0 &&
        stOpen.st_ino == stNamed.st_ino && stOpen.st_dev == stNamed.st_dev) {
        std::ignore = ::unlink(m_csName.c_str());
    }
}
