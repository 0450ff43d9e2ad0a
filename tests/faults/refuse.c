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

/* Those from 424 on have one number on every architecture; old headers lack some. */
static const unsigned int s_calls[] = {__NR_statx, 424 /* pidfd_send_signal */, 434 /* pidfd_open */,
                                       436 /* close_range */, 438 /* pidfd_getfd */};

enum
{
    CALLS = sizeof s_calls / sizeof s_calls[0]
};

static int install(unsigned int error)
{
    struct sock_filter code[CALLS + 3];
    unsigned short length = 0;
    code[length++] =
        (struct sock_filter)BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr));
    for (unsigned char i = 0; i < CALLS; ++i) {
        code[length++] = (struct sock_filter)BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, s_calls[i],
                                                      (unsigned char)(CALLS - i), 0);
    }
    code[length++] = (struct sock_filter)BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    code[length++] = (struct sock_filter)BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error);
    const struct sock_fprog program = {length, code};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 ? prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program)
                                                       : -1;
}

int main(int count, char** arguments)
{
    if (count < 3) {
        fprintf(stderr, "usage: refuse ENOSYS|EPERM PROGRAM ARGUMENT...\n");
        return 2;
    }
    if (install(strcmp(arguments[1], "EPERM") == 0 ? EPERM : ENOSYS) != 0) {
        perror("refuse");
        return 125;
    }
    execvp(arguments[2], arguments + 2);
    perror(arguments[2]);
    return 127;
}
