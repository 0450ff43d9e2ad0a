/* Language runtimes that misbehave, one per set of definitions (see CMakeLists.txt), each with the real
 * interface. Every call leaves a letter in a journal that the tests read through one more exported function.
 */
#include "vm/RuntimeAbi.h"

#define ENTRY __attribute__((visibility("default")))

static char s_szJournal[64];
static unsigned int s_nCalls;

static int Note(char cCall, int nResult)
{
    s_szJournal[s_nCalls++] = cCall;
    return nResult;
}

ENTRY const char* pszJournal(void)
{
    return s_szJournal;
}

ENTRY int bInitVM(char* pszError, unsigned int nSize)
{
#ifdef REFUSES /* fills the whole buffer and forgets the ending NUL */
    static const char szReason[] = "no licence for caf\xC3\xA9, ";
    for (unsigned int n = 0; n < nSize; ++n) {
        pszError[n] = szReason[n % (sizeof szReason - 1)];
    }
    return Note('I', 0);
#else
    (void)pszError;
    (void)nSize;
    return Note('I', 1);
#endif
}

#ifndef LACKS_PATH
ENTRY int bCheminDLL(const char* pszPath)
{
    return Note(pszPath == 0 ? 'P' : 'p', 1);
}
#endif

ENTRY void TermVM(int nReason)
{
    (void)Note(nReason == 0 ? 'T' : 't', 0);
}

ENTRY int bInitialiseMoiMeme(char* pszError, unsigned int nSize)
{
    (void)pszError;
    (void)nSize;
    return Note('E', EXECUTION_STARTS);
}

ENTRY void TermineMoiMeme(void)
{
    (void)Note('e', 0);
}
