#pragma once

#include <string>

/// What a service's PID file says of it.
enum class EPidFile
{
    NONE,   ///< there is none
    STALE,  ///< it names no process, or another one
    SERVER, ///< it names a live process that is the server
};

/// Looks at "/var/run/" + name + ".pid". A process is the server when its arguments hold the name as a whole
/// argument; or, when none of its arguments begins with "DXCS-" (it has changed them), when its executable is
/// the program, links resolved. The init scripts judge in the same way.
EPidFile eReadPidFile(const std::wstring& csName, const std::wstring& csProgram);
