#pragma once

#include "support/XError.h"

/// Steps shared by the two sides of the loader; private to this folder.

/// Address of an exported function of a loaded library. Null, with an error that names the entry point, when
/// the library does not export it.
void* pGetEntry(void* hLibrary, const char* pszEntry, CXError* pclError);

/// Calls one of the runtime's fallible operations (it gets room for its reason). On failure the error names
/// the operation and carries that reason.
bool bCallRuntime(int (*pfnOperation)(char*, unsigned int), const char* pszEntry, CXError* pclError);
