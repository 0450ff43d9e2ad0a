#pragma once

#include "support/XError.h"

/// The execution part of the language runtime, which registers and unregisters itself with its virtual
/// machine. Main thread only, between bInitVM and TermVM.
class CBaseExecutionDLL
{
public:
    /// Makes the runtime library with this handle, the one of bInitVM, register its execution part. False
    /// when it refuses; the error, if wanted, then carries its reason.
    static bool s_bInitialiseMoiMeme(void* hLibrary, CXError* pclError = nullptr);
    /// Undoes a successful s_bInitialiseMoiMeme on the same library; does nothing without one.
    static void s_TermineMoiMeme(void* hLibrary);
};
