#pragma once

#include "support/XError.h"

/// The language runtime's virtual machine, as far as the manager needs it: bound once, told where it lies,
/// ended once. docs/runtime.md fixes what the library exports. All of this runs on the main thread, before
/// any worker thread starts and after the last one ended.

/// Resolves every entry point of a loaded runtime library (those of CBaseExecutionDLL too, so that an
/// incomplete library is refused before any of its code has run) and initialises its virtual machine. On
/// failure nothing stays bound and the error names the entry point that is missing, or carries the runtime's
/// own reason.
bool bInitVM(void* hLibrary, CXError* pclError);

/// Tells the runtime in which directory its libraries lie; null or empty: where the runtime itself lies.
/// False when the runtime refuses or bInitVM has not succeeded.
bool bCheminDLL(const wchar_t* pszPath);

/// Ends the virtual machine, for the given reason (0: the process ends as it should), and unbinds it. Does
/// nothing unless bInitVM succeeded. The library is still loaded when it runs.
void TermVM(int nReason);
