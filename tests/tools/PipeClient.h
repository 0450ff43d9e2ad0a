#pragma once

#include "support/Conversion.h"
#include "support/Descripteur.h"
#include "tools/Wait.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

/// The path of the reply FIFO with that number.
inline std::string csReplyPipe(int nReply)
{
    return "/tmp/__pipe_velmomanager_" + std::to_string(nReply);
}

/// The reply FIFO of a client, removed with the object.
class CReplyPipe
{
public:
    explicit CReplyPipe(int nReply) : m_csName(csReplyPipe(nReply))
    {
        ::unlink(m_csName.c_str());
        std::ignore = ::mkfifo(m_csName.c_str(), 0600);
        m_clPipe = CDescripteur(::open(m_csName.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }
    CReplyPipe(const CReplyPipe&) = delete;
    CReplyPipe& operator=(const CReplyPipe&) = delete;
    ~CReplyPipe() { ::unlink(m_csName.c_str()); }

    int nFd() const { return m_clPipe.nFd(); }
    /// Text of the next reply, or in angle brackets what came instead.
    std::string csReply(int nMs = 20000) const
    {
        if (!bReadable(nFd(), nMs)) {
            return "<nothing in time>";
        }
        std::array<char, 600> tBytes;
        const ssize_t nRead = ::read(nFd(), tBytes.data(), tBytes.size());
        return nRead == 501 && tBytes[500] == 0 ? std::string(tBytes.data())
                                                : "<" + std::to_string(nRead) + " bytes>";
    }

private:
    std::string m_csName;
    CDescripteur m_clPipe;
};

/// Writes bytes into a server's FIFO in one piece; false when nobody listens there.
inline bool bWritePipe(const char* pszPipe, std::string_view csBytes)
{
    const CDescripteur clPipe(::open(pszPipe, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (!clPipe.bOpen() || ::fcntl(clPipe.nFd(), F_SETFL, O_WRONLY) != 0) {
        return false;
    }
    return ::write(clPipe.nFd(), csBytes.data(), csBytes.size()) == static_cast<ssize_t>(csBytes.size());
}

/// The bytes of a registration request; the texts are ASCII.
inline std::string csRequest(std::int32_t nReply, std::int32_t nForm, const std::string& csName,
                             const std::string& csPath, int nPort)
{
    std::string cs(792, '\0');
    std::memcpy(&cs[0], &nReply, 4);
    std::memcpy(&cs[4], &nForm, 4);
    if (nForm != 1) {
        cs.replace(8, csName.size(), csName).replace(269, csPath.size(), csPath);
        return cs.replace(530, std::to_string(nPort).size(), std::to_string(nPort));
    }
    std::memcpy(&cs[8], &nPort, 2);
    const std::string csWideName = csToUTF16(csFromUTF8(csName));
    const std::string csWidePath = csToUTF16(csFromUTF8(csPath));
    return cs.replace(10, csWideName.size(), csWideName).replace(268, csWidePath.size(), csWidePath);
}

/// The manager's answer to a registration. A name that is longer than the field of form 1 goes by form 0,
/// which always says "UNKNOWN".
inline std::string csRegister(const std::string& csName, const std::string& csProgram, int nPort,
                              int nForm = 1, int nMs = 60'000)
{
    static std::atomic<int> s_nReplies{5000};
    const int nReply = ++s_nReplies;
    const CReplyPipe clReply(nReply);
    const bool bShort = csFromUTF8(csName).size() <= 128;
    const std::string csBytes = csRequest(nReply, bShort ? nForm : 0, csName, csProgram, nPort);
    return bWritePipe("/tmp/__pipe_velmomanager__", csBytes) ? clReply.csReply(nMs) : "<no pipe>";
}
