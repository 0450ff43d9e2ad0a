#pragma once

#include <string>

/// The system's service tool; a fixed path, nothing else is searched.
inline constexpr wchar_t g_szSystemctl[] = L"/bin/systemctl";

/// Runs systemctl with the arguments and reads its whole output (null: discarded). True when it was launched
/// and waited for; the exit code is judged by the caller.
bool bSystemctl(const std::wstring& csArguments, std::string* pcsOutput, unsigned int* pnExitCode = nullptr);

/// Runs systemctl for its effect: true when it ended with 0. A refusal leaves errno at ECANCELED, so that the
/// system text of a reply says that the operation did not take place.
bool bSystemctlDone(const std::wstring& csArguments);
