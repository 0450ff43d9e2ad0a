#include "Register.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <cstdint>
#include <cstring>
#include <cuchar>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr const char* managerPipe = "/tmp/__pipe_velmomanager__";
constexpr int answerTimeout = 10'000; // ms

// Request with UTF-16 texts, and answer, as the manager lays them out (little-endian). The units of a text
// are those before its NUL.
constexpr std::int32_t formUtf16 = 1;
constexpr std::size_t portOffset = 8, nameOffset = 10, pathOffset = 268, requestSize = 792;
constexpr std::size_t nameUnits = 128, pathUnits = 261, answerSize = 501;
using Request = std::array<char, requestSize>;

/// Owns the reply pipe of this process and removes it.
class ReplyPipe
{
public:
    ReplyPipe() : m_path("/tmp/__pipe_velmomanager_" + std::to_string(::getpid()))
    {
        ::unlink(m_path.c_str()); // left by an earlier process with our PID
        if (::mkfifo(m_path.c_str(), 0600) == 0) {
            m_fd = ::open(m_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
        }
    }
    ~ReplyPipe()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        ::unlink(m_path.c_str());
    }
    ReplyPipe(const ReplyPipe&) = delete;
    ReplyPipe& operator=(const ReplyPipe&) = delete;
    int fd() const { return m_fd; }

private:
    std::string m_path;
    int m_fd = -1;
};

/// UTF-8 to UTF-16; stops at the first ill-formed byte.
std::u16string utf16FromUtf8(std::string_view text)
{
    std::u16string result;
    std::mbstate_t state{};
    while (!text.empty()) {
        char16_t unit = 0;
        const std::size_t used = std::mbrtoc16(&unit, text.data(), text.size(), &state);
        if (used == static_cast<std::size_t>(-1) || used == static_cast<std::size_t>(-2)) {
            break;
        }
        result += unit;
        text.remove_prefix(used == static_cast<std::size_t>(-3) ? 0 : used); // -3: second half of a pair
    }

    return result;
}

/// The file's single-byte text to UTF-16. Right for Western letters, which is all that sample names have.
std::u16string utf16FromLatin1(std::string_view text)
{
    std::u16string result;
    for (const char c : text) {
        result += static_cast<unsigned char>(c);
    }
    return result;
}

/// A text that is too long is cut; the request is all zero before, so its NUL is there already.
void put(Request& request, std::size_t offset, const std::u16string& text, std::size_t maxUnits)
{
    std::memcpy(request.data() + offset, text.data(), std::min(text.size(), maxUnits) * sizeof(char16_t));
}

Request makeRequest(const Settings& settings)
{
    Request request{};
    // The manager appends the number to the name of the reply pipe, as ReplyPipe does.
    const std::array<std::int32_t, 2> head{static_cast<std::int32_t>(::getpid()), formUtf16};
    std::memcpy(request.data(), head.data(), sizeof head);
    std::memcpy(request.data() + portOffset, &settings.port, sizeof settings.port);
    put(request, nameOffset, utf16FromLatin1(settings.name), nameUnits);
    put(request, pathOffset, utf16FromUtf8(settings.executable), pathUnits);
    return request;
}

/// One write, which the kernel does not mix with those of other servers. False with errno.
bool send(const Request& request)
{
    const int fd = ::open(managerPipe, O_WRONLY | O_NONBLOCK | O_CLOEXEC); // no reader: ENXIO, at once
    if (fd < 0) {
        return false;
    }
    const bool sent = ::write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size());
    const int cause = errno;
    ::close(fd);
    errno = cause;
    return sent;
}

std::string failure(const char* what)
{
    return std::string(what) + ": " + std::strerror(errno);
}
} // namespace

std::string registerServer(const Settings& settings)
{
    std::setlocale(LC_CTYPE, "C.UTF-8"); // for mbrtoc16
    const ReplyPipe reply;
    if (reply.fd() < 0) {
        return failure("The reply pipe cannot be made");
    }
    if (!send(makeRequest(settings))) {
        return failure("The manager cannot be reached through its pipe");
    }

    pollfd waiting{reply.fd(), POLLIN, 0};
    if (::poll(&waiting, 1, answerTimeout) != 1) {
        return "The manager did not answer in time";
    }

    // The manager writes the answer by one call, so it is there as a whole. One byte more, for a NUL.
    std::array<char, answerSize + 1> answer{};
    if (::read(reply.fd(), answer.data(), answerSize) != static_cast<ssize_t>(answerSize)) {
        return "The manager's answer is incomplete";
    }

    return answer.data();
}
