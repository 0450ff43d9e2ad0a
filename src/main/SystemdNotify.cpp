// The service main under systemd's notification protocol: no fork, no PID file; systemd owns the process.

#include "main/ServiceSteps.h"
#include "support/SystemCall.h"

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

namespace {
constexpr char s_szVariable[] = "NOTIFY_SOCKET";
constexpr std::string_view s_csReady = "READY=1";
constexpr std::size_t s_nMaxPath = 107; ///< bytes of a socket's name

bool bValidSocket(const char* pszSocket)
{
    return pszSocket != nullptr && (pszSocket[0] == '@' || pszSocket[0] == '/') && pszSocket[1] != '\0';
}

/// Takes the variable out of the environment, so that no tool that is run from now on writes to the socket.
std::string csTakeSocket()
{
    const char* pszSocket = std::getenv(s_szVariable);
    std::string csSocket(bValidSocket(pszSocket) ? pszSocket : "");
    ::unsetenv(s_szVariable);
    return csSocket;
}

/// "@" stands for the zero byte of an abstract name. Failures are nobody's business: systemd will notice.
void NotifyReady(const std::string& csSocket)
{
    sockaddr_un stAddress{};
    const CDescripteur clSocket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (csSocket.empty() || csSocket.size() > s_nMaxPath || !clSocket.bOpen()) {
        return;
    }
    stAddress.sun_family = AF_UNIX;
    std::memcpy(stAddress.sun_path, csSocket.data(), csSocket.size());
    if (stAddress.sun_path[0] == '@') {
        stAddress.sun_path[0] = '\0';
    }
    const auto nLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + csSocket.size());
    Ignored(nRetry([&] {
        return ::sendto(clSocket.nFd(), s_csReady.data(), s_csReady.size(), MSG_NOSIGNAL,
                        reinterpret_cast<const sockaddr*>(&stAddress), nLength);
    }));
}
} // namespace

bool bIsSystemdNotify()
{
    return bValidSocket(std::getenv(s_szVariable));
}

bool __bServiceMainSystemdNotify()
{
    const std::string csSocket = csTakeSocket();
    __CoreDump();
    std::array<wchar_t, g_nServicePath> tUser{};
    if (gpclServiceImp->vbGetServiceUser(tUser.data())) {
        if (!__bChangeUser(-1, tUser.data(), false)) {
            return false;
        }
        __CoreDump();
    }
    CTermHeld clHeld;
    if (!__bStart()) {
        return false;
    }
    NotifyReady(csSocket);
    __MainLoop(clHeld);
    return true;
}
