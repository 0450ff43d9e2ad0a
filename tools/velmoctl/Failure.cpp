#include "velmoctl/Failure.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {
struct STRank
{
    EExit eExit;
    const char* pszKind;
};
/// From best to worst: pstRank's pointers are compared. A reply that makes no sense is worse than silence:
/// somebody must look at that machine.
constexpr STRank s_tRanks[] = {
    {EExit::DONE, "done"},
    {EExit::REFUSED, "refused"},
    {EExit::UNREACHABLE, "unreachable"},
    {EExit::NONSENSE, "nonsense"},
    {EExit::USAGE, "usage"},
    {EExit::DECLINED, "declined"},
    {EExit::INTERRUPTED, "interrupted"},
};

const STRank* pstRank(EExit eExit)
{
    return std::ranges::find(s_tRanks, eExit, &STRank::eExit);
}
} // namespace

EExit eWorse(EExit e1, EExit e2)
{
    return pstRank(e1) < pstRank(e2) ? e2 : e1;
}

const char* pszKind(EExit eExit)
{
    return pstRank(eExit)->pszKind;
}

CFailure clSystemFailure(EExit eExit, const std::string& csWords)
{
    const int nErrno = errno;
    return {eExit, csWords + ": " + std::strerror(nErrno)};
}
