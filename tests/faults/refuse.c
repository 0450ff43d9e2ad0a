/* Runs a program on a kernel that refuses what young kernels have: close_range, pidfd_*, statx.
 *
 *   refuse ENOSYS|EPERM PROGRAM ARGUMENT...
 *
 * ENOSYS is what a kernel says that does not know them, EPERM what the filter of an old container runtime
 * does. */
#include <asm/unistd.h>
#include <errno.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#define REFUSED(number, steps) BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, steps, 0)

static int install(unsigned int error)
{
    /* Those from 424 on have one number on every architecture; old headers lack some. */
    struct sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        REFUSED(__NR_statx, 5),
        REFUSED(424 /* pidfd_send_signal */, 4),
        REFUSED(434 /* pidfd_open */, 3),
        REFUSED(436 /* close_range */, 2),
        REFUSED(438 /* pidfd_getfd */, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
    };
    const struct sock_fprog program = {sizeof code / sizeof code[0], code};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 ? prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program)
                                                       : -1;
}

int main(int count, char** arguments)
{
    if (count >= 3 && install(strcmp(arguments[1], "EPERM") == 0 ? EPERM : ENOSYS) == 0) {
        execvp(arguments[2], arguments + 2);
    }
    perror("refuse ENOSYS|EPERM PROGRAM ARGUMENT...");
    return 125;
}
