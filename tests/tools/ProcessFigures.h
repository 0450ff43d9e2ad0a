#pragma once

#include <sys/types.h>

/// What a process uses, by the counts of the kernel.
struct STFigures
{
    int nDescriptors = 0;
    int nThreads = 0;
    int nChildren = 0; ///< zombies included
};
STFigures stFiguresOf(pid_t nProcess);

/// What the manager holds in memory, in KiB. Its threads' stacks are known by their size.
struct STMemory
{
    long nStacks = 0;  ///< with those that the C library keeps for later threads
    long nDeepest = 0; ///< stack: a page of it is resident from its first use until the thread ends
    long nElse = 0;    ///< the programs and the heap
};
STMemory stMemoryOf(pid_t nManager);
