/* Preloaded into the manager and what it runs: a kernel from before close_range. */
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <string.h>

enum
{
    CLOSE_RANGE = 436 /* its number on every architecture */
};

__attribute__((visibility("default"))) long syscall(long number, ...)
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
    long argument[6];
    va_list list;
    va_start(list, number);
    for (int i = 0; i < 6; ++i) {
        argument[i] =
            va_arg(list, long); /* more than were given: what lies there is handed on and not read */
    }
    va_end(list);
    return next(number, argument[0], argument[1], argument[2], argument[3], argument[4], argument[5]);
}
