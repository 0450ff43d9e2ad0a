#pragma once

#include <string>

/// What is said of services that could not be listed or asked: tools that fail are not an empty machine.
/// nError is the errno of the failure.
std::wstring csFailedListing(int nError);

/// Writes it to the system log, once a minute at most, whoever lists: a monitor with a short period and tools
/// that ask again would fill the log. Any thread.
void LogFailedListing(int nError);
