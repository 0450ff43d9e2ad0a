#pragma once

#include "support/Stopping.h"

#include <functional>
#include <memory>
#include <string>

/// One text for all who ask for it at the same time. Whoever asks while it is being made gets the next one,
/// which is made once for all of them: what somebody gets was never begun before the question.
class CSharedListing
{
public:
    /// fnMake is called by one of those who wait, with no lock held. Throws what it throws; whoever waited
    /// for that one gets std::system_error. So does a waiter who may not go on any more.
    std::wstring xcsGet(const std::function<std::wstring()>& fnMake);

private:
    enum class EState
    {
        WAITING,
        MADE,
        FAILED,
        LEFT, ///< its maker had to go when the stop came: another may still make it
    };
    struct STRound
    {
        EState eState = EState::WAITING;
        std::wstring csText;
    };
    using CRound = std::shared_ptr<STRound>;

    /// The round that the caller waits for, done, or his to make.
    CRound _pJoin(bool* pbMaker);
    void _Conclude(const CRound& pRound, EState eState);

    CStopWait m_clWait;
    bool m_bMaking = false;
    CRound m_pNext; ///< of those who wait for one that is not begun; may be null
};
