#pragma once

#include "support/WorkerPool.h"
#include "support/XIpHelper.h"
#include "support/ZTThread.h"

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <string_view>

/// Bytes of the largest datagram that both address families can send: over IPv4 the headers take 28 of 65535.
inline constexpr std::size_t g_nMaxDatagram = 65507;

/// What a datagram asks for, by the question in it.
enum class EPingForm
{
    NONE,   ///< not a question
    SYSTEM, ///< asks for an answer in the system code page
    UTF8,   ///< asks for an answer in UTF-8
};
/// Recognises a question: a datagram that is a prefix of one of the two questions, each of which ends with a
/// NUL. A prefix of both, such as an empty datagram, asks for UTF-8.
EPingForm eReadPing(std::string_view csDatagram);

/// The first servers of a list (for each server a tab, its name, a tab, its port): as many as fit whole into
/// nMax bytes.
std::string_view csFittingServers(std::string_view csServers, std::size_t nMax);

/// A question that has been received, with all that is needed to answer it from the address that was asked.
struct STPingQuestion
{
    int nSocket;
    EPingForm eForm;
    sockaddr_storage stSender;
    socklen_t nSender; ///< bytes of it
    /// The kernel's packet-info message: the address that was asked, and the interface.
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in6_pktinfo))> tAsked;
    std::size_t nAsked; ///< bytes of it; 0: none
};

/// Answers discovery questions over UDP with the text of the INFO command. All questions that wait at the
/// same time are answered with one list, each asker once for each form. The answer leaves from the address
/// that was asked; servers that do not fit into a datagram are left out. Owned by the setup manager, used
/// from the main thread only.
class CPingEcho : public CEnsembleSockets
{
public:
    ~CPingEcho();
    /// Binds the sockets; false, with the error, when that fails.
    bool bInit(std::uint16_t wPort, CXError* pclError);
    /// Starts the thread and waits until it runs. Throws CXError when it cannot be started; false when it has
    /// ended at once.
    bool bStart();
    /// Ends the threads and closes the sockets.
    void Stop();

private:
    static void _PingThreadRoutine(CZTThread* pclThread);
    void _Run();
    void _Receive();
    void _Note(const STPingQuestion& stQuestion);
    void _AnswerWaiting();

    CZTThread m_clThread;       ///< reads the questions
    CWorkerPool m_clAnswers{1}; ///< makes the lists and answers, so that the reading never waits for a list
    std::mutex m_clLock;        ///< of the members below
    std::map<std::string, STPingQuestion> m_tWaiting; ///< by asker and form
    /// A thread runs _AnswerWaiting, or is about to, and will look into m_tWaiting again.
    bool m_bAnswering = false;
};
