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

/// Largest answer that a datagram carries in both address families.
inline constexpr std::size_t g_nMaxDatagram = 65507;

/// What a datagram asks for.
enum class EPingForm
{
    NONE,   ///< not a question
    SYSTEM, ///< answer in the system code page
    UTF8,
};
/// Recognises a question: the datagram equals the start of one of the two questions (their ending NUL
/// included). A prefix of both, an empty datagram included, asks for UTF-8.
EPingForm eReadPing(std::string_view csDatagram);

/// The longest start of a server list (a tab, a name, a tab, a port, and so on) that ends behind a whole
/// server and has at most nMax bytes.
std::string_view csFittingServers(std::string_view csServers, std::size_t nMax);

/// A question that has been received, with all that is needed to answer it from the address that it was sent
/// to.
struct STPingQuestion
{
    int nSocket;
    EPingForm eForm;
    sockaddr_storage stSender;
    socklen_t nSender;                                                         ///< bytes of it
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in6_pktinfo))> tAsked; ///< the control message
    std::size_t nAsked;                                                        ///< bytes of it; 0: none
};

/// Answers discovery questions over UDP with the text of the INFO command: all that wait at once with one
/// list, each asker once for each form. The answer comes from the address
/// that was asked; servers that a datagram cannot carry are left out of it. Owned by the setup manager, used
/// from its main thread.
class CPingEcho : public CEnsembleSockets
{
public:
    ~CPingEcho();
    /// Binds the sockets; false, with the error, when that fails.
    bool bInit(std::uint16_t wPort, CXError* pclError);
    /// Starts the thread; throws CXError on failure.
    bool bStart();
    void Stop();

private:
    static void _PingThreadRoutine(CZTThread* pclThread);
    void _Run();
    void _Receive();
    void _Note(const STPingQuestion& stQuestion);
    void _Answer();

    CZTThread m_clThread;       ///< reads the questions
    CWorkerPool m_clAnswers{1}; ///< makes the lists and answers, so that the reading never waits for a list
    std::mutex m_clLock;        ///< of the members below
    std::map<std::string, STPingQuestion> m_tWaiting; ///< by asker and form
    bool m_bAnswering = false;
};
