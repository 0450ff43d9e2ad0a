#pragma once

/// The service main that detaches from where it was started: a double fork, a launcher that waits until the
/// service is up, and a PID file named after the service. Returns in the launcher and in the daemon; false,
/// with nothing done, only for an empty name.
bool __bServiceMainForking(const wchar_t* pszServiceName);
