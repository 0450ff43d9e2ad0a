/* Preloaded into the manager and what it runs: a kernel from before close_range. */
#include <dlfcn.h>
#include <errno.h>
#include <string.h>

enum
{
    CLOSE_RANGE = 436 /* its number on every architecture */
};

/* Takes all the arguments there can be: what lies in the place of those that were not given is handed on and
 * not read. */
__attribute__((visibility("default"))) long syscall(long number, long a, long b, long c, long d, long e,
                                                    long f)
{
    static long (*next)(long, ...);
    if (next == NULL) {
        void* found = dlsym(RTLD_NEXT, "syscall");
        memcpy(&next, &found, sizeof found);
    }
    if (number == CLOSE_RANGE) {
        errno = ENOSYS;
        return -1;
    }
    return next(number, a, b, c, d, e, f);
}
