#pragma once

/// Whether NOTIFY_SOCKET names a socket: systemd has started the process and waits for its report.
bool bIsSystemdNotify();

/// The service main that stays in the foreground and reports to systemd when the service is up. Returns false
/// when the service could not run.
bool __bServiceMainSystemdNotify();
