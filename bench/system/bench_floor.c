/* The minimal line server as a program: bench_floor PORT [PROGRAM ARGUMENT...] launches the program once,
 * then serves. With a program it does so in a child of its own, as a daemon would. */
#include "floor.h"

#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    if (argc < 2)
        return 2;
    if (argc > 2) {
        const pid_t pid = fork();
        if (pid != 0)
            return pid < 0 || waitpid(pid, NULL, 0) < 0;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
    }
    return floor_serve((unsigned short)atoi(argv[1]), argc > 2 ? argv + 2 : NULL);
}
