/* Stand-in for the product's language runtime: exports the entries that the manager's loader looks up, each
 * of which only reports success. The product's own library takes its place without a rebuild of the manager.
 */
#include "vm/RuntimeAbi.h"
#include "zt240obj.h"

#define ENTRY __attribute__((visibility("default")))

ENTRY int bInitVM(char* pszError, unsigned int nSize)
{
    (void)pszError;
    (void)nSize;
    return bInitObjects();
}

ENTRY int bCheminDLL(const char* pszPath)
{
    (void)pszPath;
    return 1;
}

ENTRY void TermVM(int nReason)
{
    (void)nReason;
}

ENTRY int bInitialiseMoiMeme(char* pszError, unsigned int nSize)
{
    (void)pszError;
    (void)nSize;
    return 1;
}

ENTRY void TermineMoiMeme(void) {}

/* Checks at compile time that the exported entries have the types of the interface. */
_Static_assert(_Generic(&bInitVM, PFN_bInitVM : 1, default : 0), VM_ENTRY_INIT);
_Static_assert(_Generic(&bCheminDLL, PFN_bCheminDLL : 1, default : 0), VM_ENTRY_PATH);
_Static_assert(_Generic(&TermVM, PFN_TermVM : 1, default : 0), VM_ENTRY_TERM);
_Static_assert(_Generic(&bInitialiseMoiMeme, PFN_bInitialiseMoiMeme : 1, default : 0), VM_ENTRY_SELF_INIT);
_Static_assert(_Generic(&TermineMoiMeme, PFN_TermineMoiMeme : 1, default : 0), VM_ENTRY_SELF_TERM);
