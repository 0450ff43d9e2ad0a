#pragma once

#include <string>

/// What a service's PID file says about the service.
enum class EPidFile
{
    NONE,   ///< there is none
    STALE,  ///< it names no live process, or one that is not the server, or it cannot be read
    SERVER, ///< it names a live process that is the server
};

/// Reads "/var/run/" + csName + ".pid" and judges the process named there, in the same way as the init
/// scripts. A process is the server when one of its arguments is csName. When none of its arguments even
/// begins with "DXCS-" (the process has changed them), it is the server when its executable is csProgram,
/// links resolved.
EPidFile eReadPidFile(const std::wstring& csName, const std::wstring& csProgram);
