#pragma once

#include <string>

/// The message that the services could not be listed or asked. Callers report it instead of an empty list: a
/// failure must not look like a machine without services. nError is the errno of the failure.
std::wstring csFailedListing(int nError);

/// Writes csFailedListing's message to the system log, at most once a minute for all callers together: a
/// monitor with a short period and tools that ask again would fill the log. Any thread may call.
void LogFailedListing(int nError);
