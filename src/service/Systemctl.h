#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// systemd's service tool. The path is fixed; no other is tried.
inline constexpr wchar_t g_szSystemctl[] = L"/bin/systemctl";

/// A question to systemctl. Questions change nothing, so they may be asked again.
struct STSystemctlQuestion
{
    std::wstring csArguments;
    /// The property that makes the output an answer even when systemctl fails. Empty for a listing: the
    /// output of a systemctl that fails is then no answer.
    std::string_view csProperty;
    std::size_t nMaxOutput = std::size_t{1} << 20; ///< bytes; a tool that prints more has failed
};

/// All units of type service that systemd knows.
STSystemctlQuestion stListUnits();
/// All unit files of services, whether systemd has loaded them or not.
STSystemctlQuestion stListUnitFiles();

/// Asks systemctl and returns what it printed; nothing, with errno, on failure. Asks again up to three times,
/// within two seconds of the first failure: a systemd that executes itself anew answers nobody for a moment.
/// errno is never ENOENT, which stands for a service that does not exist. Blocks while systemctl runs.
std::optional<std::string> csAskSystemctl(const STSystemctlQuestion& stQuestion);

/// The same, asked once: for a caller that asks in another way when this fails.
std::optional<std::string> csAskSystemctlOnce(const STSystemctlQuestion& stQuestion);

/// Runs systemctl for its effect, once; true when it exits with status 0. Any other status sets errno to
/// ECANCELED, so that the text in a reply says that the operation did not take place. False, with errno, also
/// when systemctl cannot be run. Blocks until systemctl exits or the calling thread may not go on.
bool bSystemctlDone(const std::wstring& csArguments);
