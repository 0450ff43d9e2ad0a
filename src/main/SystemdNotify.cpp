// The service main under systemd's notification protocol: no fork, no PID file; systemd owns the process.

#include "main/SystemdNotify.h"

#include "main/ServiceSteps.h"
#include "support/SystemCall.h"

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <tuple>

namespace {
constexpr char s_szVariable[] = "NOTIFY_SOCKET";
constexpr std::string_view s_csReady = "READY=1";
constexpr std::size_t s_nMaxPath = sizeof(sockaddr_un::sun_path) - 1; ///< bytes of a socket's name

bool bValidSocket(const char* pszSocket)
{
    return pszSocket != nullptr && (pszSocket[0] == '@' || pszSocket[0] == '/') && pszSocket[1] != '\0';
}

/// The socket's name. Removes the variable from the environment: a tool that is run from now on would take
/// the socket for its own and report to it.
std::string csTakeSocket()
{
    const char* pszSocket = std::getenv(s_szVariable);
    std::string csSocket(bValidSocket(pszSocket) ? pszSocket : "");
    ::unsetenv(s_szVariable);
    return csSocket;
}

/// Reports that the service is up. A failure is not reported: systemd notices it, as the start's timeout.
void NotifyReady(const std::string& csSocket)
{
    const CDescripteur clSocket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (csSocket.empty() || csSocket.size() > s_nMaxPath || !clSocket.bOpen()) {
        return;
    }

    sockaddr_un stAddress{};
    stAddress.sun_family = AF_UNIX;
    std::memcpy(stAddress.sun_path, csSocket.data(), csSocket.size());
    if (stAddress.sun_path[0] == '@') { // stands for the zero byte of an abstract name
        stAddress.sun_path[0] = '\0';
    }

    // Exactly the name's bytes: in an abstract name the zero bytes after it would count.
    const auto nLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + csSocket.size());
    std::ignore = nRetry([&] {
        return ::sendto(clSocket.nFd(), s_csReady.data(), s_csReady.size(), MSG_NOSIGNAL,
                        reinterpret_cast<const sockaddr*>(&stAddress), nLength);
    });
}
} // namespace

bool bIsSystemdNotify()
{
    return bValidSocket(std::getenv(s_szVariable));
}

bool __bServiceMainSystemdNotify()
{
    const std::string csSocket = csTakeSocket();
    AllowWantedCoreDump();

    // Effective ids only: systemd owns the process, and there is no PID file to give away.
    std::array<wchar_t, g_nServicePath> tUser{};
    if (gpclServiceImp->vbGetServiceUser(tUser.data())) {
        if (!__bChangeUser(-1, tUser.data(), false)) {
            return false;
        }
        AllowWantedCoreDump(); // once more, under the new identity
    }

    // SIGTERM stays blocked until its handler is installed: systemd may send it as soon as it has the report.
    CTermBlocked clBlocked;
    if (!__bStart()) {
        return false;
    }
    NotifyReady(csSocket);
    __MainLoop(clBlocked);
    return true;
}
