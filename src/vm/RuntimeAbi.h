#pragma once

/* What the language runtime library exports to the manager: plain C symbols with these names and types,
 * described in docs/runtime.md. The loader and every build of the library include this file; therefore it is
 * C, not C++. An operation that can fail returns non-zero for success. On failure it leaves its reason in
 * pszError: UTF-8, at most nSize bytes with the terminating NUL. It may leave nothing: the buffer comes in
 * empty. */

/* Initialises the virtual machine. The first call into the library, made once. */
typedef int (*PFN_bInitVM)(char* pszError, unsigned int nSize);
#define VM_ENTRY_INIT "bInitVM"

/* Gives the directory of the runtime's libraries, UTF-8; null: the one in which this library lies. Called
 * right after bInitVM. */
typedef int (*PFN_bCheminDLL)(const char* pszPath);
#define VM_ENTRY_PATH "bCheminDLL"

/* Ends the virtual machine. The last call before the library is unloaded. nReason 0: the process ends
 * normally. */
typedef void (*PFN_TermVM)(int nReason);
#define VM_ENTRY_TERM "TermVM"

/* Registers the execution part with the virtual machine, after bCheminDLL; unregisters it, before TermVM. */
typedef int (*PFN_bInitialiseMoiMeme)(char* pszError, unsigned int nSize);
#define VM_ENTRY_SELF_INIT "bInitialiseMoiMeme"
typedef void (*PFN_TermineMoiMeme)(void);
#define VM_ENTRY_SELF_TERM "TermineMoiMeme"
