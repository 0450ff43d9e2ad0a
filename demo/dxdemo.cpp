// A stand-in for a database server: a daemon that listens, greets and hangs up. It behaves like the real
// thing towards the system (forking start, PID file, SIGTERM) and badly on demand. To the manager it is
// somebody else's program, so it shares neither its code nor its names.
#include "Register.h"
#include "Settings.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace {
using Clock = std::chrono::steady_clock;
using SignalAction = struct sigaction; // the name alone is the call
volatile std::sig_atomic_t asked = 0;  // SIGTERM came

/// A listening socket for IPv4 and IPv6; -1 when the port is taken.
int listenAnyAddress(unsigned short port)
{
    const int fd = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1, off = 0;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on); // for a start soon after a crash
    ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd, 16) != 0) {
        ::close(fd);
        return -1;
    }

    return fd;
}

/// False also when the last bytes cannot be written: fclose finds out.
bool writePidFile(const std::string& path)
{
    std::FILE* file = std::fopen(path.c_str(), "we");
    if (file == nullptr) {
        return false;
    }
    const bool written = std::fprintf(file, "%d\n", static_cast<int>(::getpid())) > 0;
    return std::fclose(file) == 0 && written;
}

/// Leaves the terminal, umask and folder of the starter.
void detach()
{
    const int null = ::open("/dev/null", O_RDWR);
    for (int fd = 0; fd <= 2; ++fd) {
        ::dup2(null, fd);
    }
    if (null > 2) {
        ::close(null);
    }
    ::umask(022);
    if (::chdir("/") != 0) {
        std::exit(1);
    }
}

void prepareSignals(bool ignoreTerm)
{
    SignalAction action{};
    action.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &action, nullptr);
    ::sigaction(SIGCHLD, &action, nullptr); // the kernel reaps the registering child

    action.sa_handler = ignoreTerm ? SIG_IGN : [](int) { asked = 1; };
    ::sigaction(SIGTERM, &action, nullptr);
    sigset_t term;
    ::sigemptyset(&term);
    ::sigaddset(&term, SIGTERM);
    // Delivered only while serve() waits: between its look at "asked" and a wait a signal would be missed.
    ::sigprocmask(SIG_SETMASK, &term, nullptr);

    const rlimit noCore{0, 0}; // the crash on demand is no finding
    ::setrlimit(RLIMIT_CORE, &noCore);
}

void greetAndHangUp(int listener, const std::string& greeting)
{
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
        std::ignore =
            ::send(fd, greeting.data(), greeting.size(), MSG_NOSIGNAL); // the caller may be gone already
        ::close(fd);
    }
}

// Serves until SIGTERM, or aborts at the moment of the crash.
void serve(int listener, const std::string& greeting, Clock::time_point started, int crashAfter)
{
    sigset_t none;
    ::sigemptyset(&none);
    while (asked == 0) {
        timespec left{};
        if (crashAfter >= 0) {
            const auto rest = started + std::chrono::milliseconds(crashAfter) - Clock::now();
            if (rest <= rest.zero()) {
                std::abort();
            }
            left.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(rest).count();
            left.tv_nsec = (rest % std::chrono::seconds(1)).count();
        }
        pollfd waiting{listener, POLLIN, 0};
        if (::ppoll(&waiting, 1, crashAfter >= 0 ? &left : nullptr, &none) == 1) {
            greetAndHangUp(listener, greeting);
        }
    }
}

// Overwrites the arguments, as many servers do to show their state in "ps".
void changeArguments(int count, char** arguments)
{
    char* const end = arguments[count - 1] + std::string_view(arguments[count - 1]).size();
    std::fill(arguments[0], end, '\0');
    std::ignore =
        std::string_view("dxdemo: ready").copy(arguments[0], static_cast<std::size_t>(end - arguments[0]));
}

// The server itself. A byte in the pipe reports to the launcher that it is up. Returns the exit status.
int runDaemon(const Settings& settings, const std::string& service, int launcher)
{
    const auto started = Clock::now();
    detach();
    std::this_thread::sleep_for(std::chrono::milliseconds(settings.startDelay));
    prepareSignals(settings.ignoreTerm);
    const std::string pidFile = "/var/run/" + service + ".pid";
    const int listener = settings.failAtStart ? -1 : listenAnyAddress(settings.port);
    if (listener < 0 || !writePidFile(pidFile)) {
        return 1;
    }
    if (::write(launcher, "1", 1) != 1) {
        return 1;
    }

    ::close(launcher);

    // In a process of its own: the manager may itself be waiting for this server to come up.
    if (settings.registers && ::fork() == 0) {
        ::_exit(registerServer(settings).empty() ? 0 : 1);
    }

    serve(listener, "HELLO FROM " + service + "\r\n", started, settings.crashAfter);
    ::unlink(pidFile.c_str());
    return 0;
}

// Double fork; the launcher returns when the daemon is up (0) or has ended without coming up (1).
int launch(const Settings& settings, const std::string& service)
{
    int ends[2];
    if (service.empty() || service.find('/') != std::string::npos || ::pipe2(ends, O_CLOEXEC) != 0) {
        std::fputs("usage: dxdemo --SERVICE NAME\n", stderr);
        return 1;
    }

    const pid_t child = ::fork();
    if (child == 0) {
        ::close(ends[0]);
        ::setsid();
        const pid_t daemon = ::fork();
        if (daemon == 0) {
            ::_exit(runDaemon(settings, service, ends[1]));
        }
        ::_exit(daemon < 0 ? 1 : 0);
    }

    // The pipe ends without a byte when the daemon ends, which has the last copy of the writing end.
    ::close(ends[1]);
    char status = 0;
    const bool up = child > 0 && ::read(ends[0], &status, 1) == 1;
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    return up ? 0 : 1;
}

int registerAndTell(const Settings& settings)
{
    const std::string answer = registerServer(settings);
    std::puts(answer.c_str());
    return answer.empty() ? 0 : 1;
}
} // namespace

int main(int argc, char** argv)
{
    try {
        const std::string_view option = argc > 1 ? argv[1] : "";
        if (option == "--REGISTER") {
            return registerAndTell(readSettings());
        }
        const Settings settings = readSettings();
        const std::string service = option == "--SERVICE" && argc > 2 ? argv[2] : "";
        if (settings.changesArguments) {
            changeArguments(argc, argv);
        }
        return launch(settings, service);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "dxdemo: %s\n", error.what());
        return 1;
    }
}
