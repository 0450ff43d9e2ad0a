#pragma once

/* What the language runtime library exports to the manager: plain C symbols with these names and types,
 * described in docs/runtime.md. The one place where they are written down, for the loader and for every build
 * of the library; therefore C, not C++. An operation that can fail returns non-zero for success; on failure
 * it leaves its reason in pszError: UTF-8, at most nSize bytes with the ending NUL (or nothing: the buffer
 * comes in empty). */

/* Initialises the virtual machine. First call into the library, made once. */
typedef int (*PFN_bInitVM)(char* pszError, unsigned int nSize);
#define VM_ENTRY_INIT "bInitVM"

/* Directory of the runtime's libraries, UTF-8; null: the one in which this library lies. Right after bInitVM.
 */
typedef int (*PFN_bCheminDLL)(const char* pszPath);
#define VM_ENTRY_PATH "bCheminDLL"

/* Ends the virtual machine; last call before the library is unloaded. nReason 0: the process ends as it
 * should. */
typedef void (*PFN_TermVM)(int nReason);
#define VM_ENTRY_TERM "TermVM"

/* The execution part registers itself with the virtual machine, after bCheminDLL, and unregisters before
 * TermVM. */
typedef int (*PFN_bInitialiseMoiMeme)(char* pszError, unsigned int nSize);
#define VM_ENTRY_SELF_INIT "bInitialiseMoiMeme"
typedef void (*PFN_TermineMoiMeme)(void);
#define VM_ENTRY_SELF_TERM "TermineMoiMeme"
