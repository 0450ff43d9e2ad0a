/* Preloaded into the manager by the fault tests: the Nth call of one function fails, or falls short, once.
 *
 * VELMO_FAULT is "<function> <N> <error>": N counts from 1 (0: none fails), an error of 0 makes a transfer of
 * one byte. VELMO_FAULT_REPORT is a file of two 32-bit numbers, the calls so far and the fault's turn (0
 * until it has come). The library takes itself out of the environment: children run without it. Calls that
 * the C library makes inside itself are not seen, except those of the heap. */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <pthread.h>
#include <sched.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#define SEEN __attribute__((visibility("default")))
/* Bytes of a request in the local pipe: the system hands one over whole. */
#define RECORD 792

struct report
{
    atomic_uint calls;
    atomic_uint fired;
};

static char s_function[40];
static unsigned int s_turn;
static int s_errno;
static struct report* s_report;

__attribute__((constructor)) static void begin(void)
{
    const char* fault = getenv("VELMO_FAULT");
    const char* name = getenv("VELMO_FAULT_REPORT");
    unsetenv("LD_PRELOAD");
    if (fault == NULL || name == NULL || sscanf(fault, "%39s %u %d", s_function, &s_turn, &s_errno) != 3) {
        return;
    }
    const int file = open(name, O_RDWR | O_CLOEXEC);
    void* shared = mmap(NULL, sizeof(struct report), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    unsetenv("VELMO_FAULT");
    unsetenv("VELMO_FAULT_REPORT");
    s_report = shared == MAP_FAILED ? NULL : shared; /* counting begins */
}

/* Whether this call is the one. */
static int turn(const char* function)
{
    if (s_report == NULL || strcmp(function, s_function) != 0 ||
        atomic_fetch_add(&s_report->calls, 1) + 1 != s_turn) {
        return 0;
    }
    atomic_store(&s_report->fired, s_turn);
    errno = s_errno;
    return 1;
}

/* The function that this one stands in front of; ISO C has no conversion from an object's address to it. */
#define NEXT(name)                                                                                           \
    static __typeof__(&(name)) next;                                                                         \
    if (next == NULL) {                                                                                      \
        void* found = dlsym(RTLD_NEXT, #name);                                                               \
        memcpy(&next, &found, sizeof found);                                                                 \
    }

/* An interposed function: fails with -1, or the value given. It counts as the function "called". */
#define FAIL_AS(called, name, failed, result, parameters, arguments)                                         \
    SEEN result name parameters                                                                              \
    {                                                                                                        \
        NEXT(name)                                                                                           \
        return turn(called) ? (failed) : next arguments;                                                     \
    }
#define FAIL(name, failed, result, parameters, arguments)                                                    \
    FAIL_AS(#name, name, failed, result, parameters, arguments)

/* A transfer: falls short instead when that is asked for. */
#define TRANSFER(name, parameters, arguments, size)                                                          \
    SEEN ssize_t name parameters                                                                             \
    {                                                                                                        \
        NEXT(name)                                                                                           \
        if (turn(#name)) {                                                                                   \
            if (s_errno != 0) {                                                                              \
                return -1;                                                                                   \
            }                                                                                                \
            (size) = (size) == 0 || (size) == RECORD ? (size) : 1;                                           \
        }                                                                                                    \
        return next arguments;                                                                               \
    }

TRANSFER(read, (int fd, void* p, size_t n), (fd, p, n), n)
TRANSFER(write, (int fd, const void* p, size_t n), (fd, p, n), n)
TRANSFER(pread, (int fd, void* p, size_t n, off_t at), (fd, p, n, at), n)
TRANSFER(pwrite, (int fd, const void* p, size_t n, off_t at), (fd, p, n, at), n)
TRANSFER(recv, (int fd, void* p, size_t n, int flags), (fd, p, n, flags), n)
TRANSFER(send, (int fd, const void* p, size_t n, int flags), (fd, p, n, flags), n)
FAIL(recvmsg, -1, ssize_t, (int fd, struct msghdr* m, int flags), (fd, m, flags))
FAIL(sendmsg, -1, ssize_t, (int fd, const struct msghdr* m, int flags), (fd, m, flags))
FAIL(pipe2, -1, int, (int fds[2], int flags), (fds, flags))
FAIL(socket, -1, int, (int family, int type, int protocol), (family, type, protocol))
FAIL(bind, -1, int, (int fd, const struct sockaddr* a, socklen_t n), (fd, a, n))
FAIL(listen, -1, int, (int fd, int n), (fd, n))
FAIL(setsockopt, -1, int, (int fd, int level, int name, const void* p, socklen_t n), (fd, level, name, p, n))
FAIL(accept4, -1, int, (int fd, struct sockaddr* a, socklen_t* n, int flags), (fd, a, n, flags))
FAIL(mkfifo, -1, int, (const char* path, mode_t mode), (path, mode))
FAIL(access, -1, int, (const char* path, int mode), (path, mode))
#if __GLIBC_PREREQ(2, 33)
FAIL(stat, -1, int, (const char* path, struct stat* st), (path, st))
FAIL(fstat, -1, int, (int fd, struct stat* st), (fd, st))
#else /* where stat and fstat are inline, by these names */
FAIL_AS("stat", __xstat, -1, int, (int version, const char* path, struct stat* st), (version, path, st))
FAIL_AS("fstat", __fxstat, -1, int, (int version, int fd, struct stat* st), (version, fd, st))
#endif
FAIL(select, -1, int, (int n, fd_set* r, fd_set* w, fd_set* e, struct timeval* t), (n, r, w, e, t))
FAIL(getaddrinfo, s_errno, int,
     (const char* node, const char* service, const struct addrinfo* hints, struct addrinfo** list),
     (node, service, hints, list))
FAIL(pthread_create, s_errno, int,
     (pthread_t * thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* argument),
     (thread, attributes, routine, argument))
FAIL(dlopen, NULL, void*, (const char* path, int flags), (path, flags))

/* The thread library of older C libraries creates its threads by it, too; those are not counted. */
int __clone(int (*routine)(void*), void* stack, int flags, void* argument, ...);
SEEN int __clone(int (*routine)(void*), void* stack, int flags, void* argument, ...)
{
    NEXT(__clone)
    va_list rest;
    va_start(rest, argument);
    pid_t* parent = va_arg(rest, pid_t*);
    void* storage = va_arg(rest, void*);
    pid_t* child = va_arg(rest, pid_t*);
    va_end(rest);
    return (flags & CLONE_THREAD) == 0 && turn("clone")
               ? -1
               : next(routine, stack, flags, argument, parent, storage, child);
}

/* A function whose last parameter, the mode, is there when a file may be created. */
#define OPEN(name, parameters, arguments)                                                                    \
    SEEN int name parameters                                                                                 \
    {                                                                                                        \
        NEXT(name)                                                                                           \
        va_list rest;                                                                                        \
        va_start(rest, flags);                                                                               \
        const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;                               \
        va_end(rest);                                                                                        \
        return turn(#name) ? -1 : next arguments;                                                            \
    }

OPEN(open, (const char* path, int flags, ...), (path, flags, mode))
OPEN(openat, (int folder, const char* path, int flags, ...), (folder, path, flags, mode))

/* By these names clang calls them where no file can be created, in fortified programs. */
int __open_2(const char* path, int flags);
int __openat_2(int folder, const char* path, int flags);
FAIL_AS("open", __open_2, -1, int, (const char* path, int flags), (path, flags))
FAIL_AS("openat", __openat_2, -1, int, (int folder, const char* path, int flags), (folder, path, flags))

/* The heap by its inner names: looking the outer ones up would allocate. */
void* __libc_malloc(size_t n);
void* __libc_calloc(size_t count, size_t n);

SEEN void* malloc(size_t n)
{
    return turn("malloc") ? NULL : __libc_malloc(n);
}
SEEN void* calloc(size_t count, size_t n)
{
    return turn("calloc") ? NULL : __libc_calloc(count, n);
}
