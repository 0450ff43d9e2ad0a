#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

/// The system's service tool; a fixed path, nothing else is searched.
inline constexpr wchar_t g_szSystemctl[] = L"/bin/systemctl";

/// A question to systemctl. It changes nothing, so it may be asked again.
struct STSystemctlQuestion
{
    std::wstring csArguments;
    /// The property without which the output is no answer when systemctl failed; empty for a listing, which
    /// then is none at all.
    std::string_view csProperty;
    std::size_t nMaxOutput = std::size_t{1} << 20; ///< bytes; a tool that prints more has failed
};

/// All units of type service that systemd knows.
STSystemctlQuestion stListUnits();
/// All unit files of services, whether systemd has loaded them or not.
STSystemctlQuestion stListUnitFiles();

/// Calls fnAsk until it is true: up to three times more, begun within two seconds of the first failure and
/// not once the process is to end. While systemd executes itself anew no tool gets an answer from it. When
/// the last call fails, too, errno is that call's.
bool bAskPersistently(const std::function<bool()>& fnAsk);

/// Asks systemctl, persistently, and gives what it printed. Null when that fails; errno then tells why and is
/// never ENOENT, which stands for a service that does not exist.
std::optional<std::string> csAskSystemctl(const STSystemctlQuestion& stQuestion);

/// The same, asked once only: for a question whose failure another one makes good.
std::optional<std::string> csAskSystemctlOnce(const STSystemctlQuestion& stQuestion);

/// Runs systemctl for its effect, once: true when it ended with 0. A refusal leaves errno at ECANCELED, so
/// that the system text of a reply says that the operation did not take place.
bool bSystemctlDone(const std::wstring& csArguments);
