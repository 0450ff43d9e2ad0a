// Registers a server of this machine through the manager's FIFO, as servers do it themselves.

#include "config/Settings.h"
#include "config/WinApi.h"
#include "manager/PipeRecords.h"
#include "support/Conversion.h"
#include "support/ManagerNames.h"
#include "support/SystemCall.h"
#include "velmoctl/AskFor.h"
#include "velmoctl/Commands.h"
#include "velmoctl/Json.h"
#include "velmoctl/Terminal.h"

#include <array>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <sys/stat.h>

namespace {
/// The FIFO for one reply, with a number that no other process uses. Removed with the object.
class CReplyPipe
{
public:
    /// Makes the FIFO and opens it, for writing, too: so it never reaches end of file, and the manager always
    /// finds a reader. Throws CFailure (REFUSED).
    CReplyPipe()
        : m_nNumber(s_nMakeFifo()), m_csName(s_csName(m_nNumber)),
          m_clPipe(::open(m_csName.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW))
    {
        if (!m_clPipe.bOpen()) {
            const CFailure clFailure = clSystemFailure(EExit::REFUSED, s_pszNoPipe);
            ::unlink(m_csName.c_str());
            throw clFailure;
        }
    }
    ~CReplyPipe() { ::unlink(m_csName.c_str()); }
    CReplyPipe(const CReplyPipe&) = delete;
    CReplyPipe& operator=(const CReplyPipe&) = delete;

    std::int32_t nNumber() const { return m_nNumber; }
    /// The text of the reply. Throws CFailure: UNREACHABLE when none comes in time, NONSENSE, INTERRUPTED.
    std::string csReply(const CDeadline& clDeadline) const
    {
        if (!bWaitFor(m_clPipe.nFd(), POLLIN, clDeadline)) {
            throw CFailure(EExit::UNREACHABLE,
                           "the manager did not answer in time; it may still register the server");
        }

        // All of it at once: the manager writes a reply in one piece, which the kernel does not split.
        stRET stReply{};
        if (::read(m_clPipe.nFd(), &stReply, sizeof stReply) != sizeof stReply) {
            throw CFailure(EExit::NONSENSE, "the manager's reply is incomplete");
        }
        return {stReply.szText.data(), ::strnlen(stReply.szText.data(), stReply.szText.size())};
    }

private:
    static constexpr const char* s_pszNoPipe = "a pipe for the reply cannot be made in /tmp";

    static std::string s_csName(std::int32_t nNumber)
    {
        return g_szReplyPipePrefix + std::to_string(nNumber);
    }
    /// Makes the FIFO and returns its number: the PID of this process. When a dead process left a FIFO of
    /// that number, takes a number beyond every PID (the kernel's limit is 2^22); 100 such numbers fit into
    /// the request's 32 bits.
    static std::int32_t s_nMakeFifo()
    {
        constexpr std::int32_t nStep = 1 << 22;
        std::int32_t nNumber = ::getpid();
        for (int nTries = 100; ::mkfifo(s_csName(nNumber).c_str(), 0600) != 0; --nTries, nNumber += nStep) {
            if (errno != EEXIST || nTries == 0) {
                throw clSystemFailure(EExit::REFUSED, s_pszNoPipe);
            }
        }
        return nNumber;
    }

    std::int32_t m_nNumber;
    std::string m_csName; ///< its path
    CDescripteur m_clPipe;
};

/// Opens the manager's FIFO only if somebody reads it: otherwise the request would lie there until a manager
/// starts. Anybody may put something else at this path in /tmp, so it must be a FIFO and no link.
CDescripteur clOpenManagerPipe()
{
    CDescripteur clPipe(::open(g_szManagerPipe, O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
    if (!clPipe.bOpen() && (errno == ENOENT || errno == ENXIO)) {
        throw CFailure(EExit::UNREACHABLE, "no manager runs on this machine");
    }
    if (!clPipe.bOpen()) {
        throw clSystemFailure(EExit::REFUSED, "the manager's pipe cannot be opened (only root can register)");
    }

    STFileStatus st{};
    if (::fstat(clPipe.nFd(), &st) != 0 || !S_ISFIFO(st.st_mode)) {
        throw CFailure(EExit::NONSENSE, std::string(g_szManagerPipe) + " is not the manager's pipe");
    }

    return clPipe;
}

/// Writes the request in one piece: it is smaller than PIPE_BUF, so the kernel does not mix it with others.
/// Throws CFailure: UNREACHABLE, INTERRUPTED.
void WriteRequest(const CDescripteur& clPipe, const stSEND& stRequest, const CDeadline& clDeadline)
{
    while (::write(clPipe.nFd(), &stRequest, sizeof stRequest) < 0) {
        if (errno != EAGAIN) {
            throw clSystemFailure(EExit::UNREACHABLE, "the manager does not take the request");
        }
        if (!bWaitFor(clPipe.nFd(), POLLOUT, clDeadline)) {
            throw CFailure(EExit::UNREACHABLE, "the manager is busy with other requests");
        }
    }
}

/// Puts a text into its field of the request, in UTF-16, whose last character stays NUL. Throws CFailure
/// (USAGE) when it does not fit.
template <std::size_t nSize>
void PutText(const std::string& csText, const char* pszWhat, std::array<char16_t, nSize>* pszField)
{
    constexpr std::size_t nMax = nSize - 1;
    const std::string csBytes = csToUTF16(csFromUTF8(csText));
    if (csText.empty() || csBytes.size() > nMax * sizeof(char16_t)) {
        throw CFailure(EExit::USAGE,
                       std::string(pszWhat) + " must have 1 to " + std::to_string(nMax) + " characters");
    }
    std::memcpy(pszField->data(), csBytes.data(), csBytes.size());
}

/// The absolute path of a program: the manager runs in another folder.
std::string csProgram(const std::string& csArgumentBytes)
{
    if (::access(csArgumentBytes.c_str(), X_OK) != 0 || std::filesystem::is_directory(csArgumentBytes)) {
        throw CFailure(EExit::USAGE,
                       "\"" + csArgument(csArgumentBytes) + "\" is not a program that can be run");
    }
    return std::filesystem::absolute(csArgumentBytes).lexically_normal().string();
}

/// The port in the settings beside a program; without one there, the port that the server takes by default.
int nConfiguredPort(const std::string& csProgramPath)
{
    const std::string csFile = (std::filesystem::path(csProgramPath).parent_path() / "DXConf.ini").string();
    constexpr auto stSetting = settings::AccessPort;
    return GetPrivateProfileInt(stSetting.pszSection, stSetting.pszKey, stSetting.nDefault,
                                csFromUTF8(csFile).c_str());
}

/// The server of this machine, other than the named one, that has this port; empty when there is none, or no
/// manager to ask. Throws only CFailure (INTERRUPTED).
std::string csServerWithPort(std::uint16_t wPort, const std::string& csName)
{
    constexpr Milliseconds clMoment(2000);
    try {
        CConversation clManager({"", "", g_wManagerPort}, clMoment);
        for (const STServer& st : tAskFor(&clManager, {"INFO"}, "", stReadInfo).tServers) {
            if (st.csPort == std::to_string(wPort) && st.csName != csName) {
                return st.csName;
            }
        }
    } catch (const CFailure& clFailure) {
        if (clFailure.eExit() == EExit::INTERRUPTED) {
            throw;
        }
    }

    return "";
}

/// What is likely to go wrong with a registration: warnings only, since the manager decides. csGiven is the
/// program as the user wrote it, csPath its absolute path.
std::vector<std::string> tWarnings(const std::string& csName, const std::string& csGiven,
                                   const std::string& csPath, std::uint16_t wPort)
{
    std::vector<std::string> tResult;
    if (!std::filesystem::path(csGiven).is_absolute()) {
        tResult.push_back("the program's path is not absolute; " + csArgument(csPath) + " is meant");
    }

    if (csPath.find(' ') != std::string::npos) {
        tResult.emplace_back("the program's path holds a space, which older managers register, but cannot "
                             "start under systemd");
    }

    if (const std::string csOther = csServerWithPort(wPort, csName); !csOther.empty()) {
        tResult.push_back("the server \"" + csOther + "\" has port " + std::to_string(wPort) + " already");
    }

    if (const int nPort = nConfiguredPort(csPath); nPort != wPort) {
        tResult.push_back("the DXConf.ini beside the program says AccessPort = " + std::to_string(nPort) +
                          ", not " + std::to_string(wPort) + ": the server will listen on " +
                          std::to_string(nPort));
    }

    return tResult;
}

/// The request for one registration, without the number of the reply's FIFO. Throws CFailure (USAGE).
stSEND stRequestFor(const std::string& csName, const std::string& csPath, std::uint16_t wPort)
{
    STSendUTF16 stContent{};
    PutText(csName, "the name", &stContent.szName);
    PutText(csPath, "the program's path", &stContent.szPath);
    stContent.wPort = wPort;

    stSEND stRequest{};
    stRequest.nForm = PIPE_FORM_UTF16;
    static_assert(sizeof stRequest.tContent == sizeof stContent);
    std::memcpy(stRequest.tContent.data(), &stContent, sizeof stContent);
    return stRequest;
}

/// The manager's answer: empty when all is well. Throws CFailure.
std::string csAskManager(stSEND stRequest, Milliseconds clTime)
{
    const CDescripteur clManager = clOpenManagerPipe();
    const CReplyPipe clReply;
    stRequest.nReply = clReply.nNumber();

    CProgress clProgress("registering...");
    const CDeadline clDeadline(clTime);
    WriteRequest(clManager, stRequest, clDeadline);
    return clReply.csReply(clDeadline);
}
} // namespace

EExit eRegister(const STCall& stCall)
{
    // The reply FIFO must be removed whatever happens: neither a signal nor a manager that goes away may end
    // the process at once.
    CInterrupts::Catch();
    ::signal(SIGPIPE, SIG_IGN);

    const std::string csName = csArgument(stCall.tArguments[0]);
    const std::string csPath = csProgram(stCall.tArguments[1]);
    const std::uint16_t wPort = wReadPort(stCall.tArguments[2]);
    const stSEND stRequest = stRequestFor(csName, csPath, wPort);

    for (const std::string& cs : tWarnings(csName, stCall.tArguments[1], csPath, wPort)) {
        std::cerr << "velmoctl: warning: " << csShown(cs) << "\n";
    }

    if (const std::string csReply = csAskManager(stRequest, stCall.clTimeout); !csReply.empty()) {
        throw CFailure(EExit::REFUSED, "the manager answers: " + csReply);
    }

    if (stCall.stOptions.bJson) {
        std::cout << csJsonLine(
            {{"host", csHostWord({})}, {"name", csName}, {"result", "registered"}, {"error", Json()}});
    } else {
        std::cout << "\"" << csShown(csName) << "\" is registered and runs\n";
    }

    return EExit::DONE;
}
