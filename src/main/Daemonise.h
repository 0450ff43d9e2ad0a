#pragma once

/// The service main that detaches from where it was started: a double fork, a launcher that waits until the
/// service is up or has failed, and a PID file named after the service. Returns in the launcher and in the
/// daemon, and also in the process between them when it cannot fork the daemon. False, with nothing done,
/// only for an empty name: clients rely on it.
bool __bServiceMainForking(const wchar_t* pszServiceName);
