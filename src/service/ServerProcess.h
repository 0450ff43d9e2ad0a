#pragma once

#include <string>

/// What a service's PID file says about the service.
enum class EPidFile
{
    NONE,   ///< there is none
    STALE,  ///< it names no process, or one that is not the server
    SERVER, ///< it names a live process that is the server
};

/// Reads "/var/run/" + name + ".pid" and judges the process named there, in the same way as the init scripts.
/// A process is the server when one of its arguments is the name. When none of its arguments even begins with
/// "DXCS-" (it has changed them), it is the server when its executable is the program, links resolved.
EPidFile eReadPidFile(const std::wstring& csName, const std::wstring& csProgram);
