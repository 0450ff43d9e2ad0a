#pragma once

#include "support/XError.h"

/// The language runtime's virtual machine, as far as the manager needs it: bound once, given its directory,
/// ended once. docs/runtime.md describes what the library exports, and when each operation is called. Main
/// thread only, while no worker thread of the manager runs.

/// Resolves every entry point of a loaded runtime library, those of CBaseExecutionDLL too, and initialises
/// its virtual machine. An incomplete library is refused before any of its operations is called. On failure
/// nothing stays bound, and the error (it may be null) names the missing entry point or carries the runtime's
/// own reason.
bool bInitVM(void* hLibrary, CXError* pclError);

/// Gives the runtime the directory of its libraries; null or empty: the one of the runtime itself. False when
/// the runtime refuses or bInitVM has not succeeded.
bool bCheminDLL(const wchar_t* pszPath);

/// Ends the virtual machine, for the given reason (0: the process ends normally), and unbinds it. Does
/// nothing unless bInitVM succeeded. The library must still be loaded.
void TermVM(int nReason);
