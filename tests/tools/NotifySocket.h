#pragma once

#include "support/Descripteur.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/// The receiving end of the notification protocol, or of anything else that sends datagrams to a local name:
/// a path (what is there is replaced), or "@" and an abstract name.
class CNotifySocket
{
public:
    explicit CNotifySocket(const std::string& csName)
        : m_clSocket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un st{};
        st.sun_family = AF_UNIX;
        csName.copy(st.sun_path, sizeof st.sun_path);
        st.sun_path[0] = csName[0] == '@' ? '\0' : csName[0];
        ::unlink(csName.c_str());
        const auto nLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + csName.size());
        EXPECT_EQ(::bind(m_clSocket.nFd(), reinterpret_cast<const sockaddr*>(&st), nLength), 0) << csName;
    }
    /// The next datagram; "<none>" when none comes in time.
    std::string csNext(int nMs = 5000) const
    {
        pollfd stWait{m_clSocket.nFd(), POLLIN, 0};
        std::array<char, 8192> tBytes;
        if (TEMP_FAILURE_RETRY(::poll(&stWait, 1, nMs)) != 1) {
            return "<none>";
        }
        return {tBytes.data(),
                static_cast<std::size_t>(::recv(m_clSocket.nFd(), tBytes.data(), tBytes.size(), 0))};
    }

private:
    CDescripteur m_clSocket;
};
