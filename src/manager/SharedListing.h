#pragma once

#include "support/Stopping.h"

#include <functional>
#include <memory>
#include <string>

/// One text for all who ask for it at the same time. Whoever asks while a text is being made gets the next
/// one, which is made once for all of them: nobody gets a text that was begun before the question.
class CSharedListing
{
public:
    /// The text that fnMake makes. One of those who wait calls it, with no lock held. What fnMake throws goes
    /// to that caller; the others who wait for the same text get std::system_error, as does one who must not
    /// go on because of the stop.
    std::wstring xcsGet(const std::function<std::wstring()>& fnMake);

private:
    enum class EState
    {
        WAITING,
        MADE,
        FAILED,
        LEFT, ///< its maker had to go when the stop came; those who may go on make another
    };
    struct STRound
    {
        EState eState = EState::WAITING;
        std::wstring csText;
    };
    using CRound = std::shared_ptr<STRound>;

    /// Joins the next round and waits until its text is made or its making has failed. Or until it is this
    /// thread's turn: then *pbMaker is true, and the caller makes the text and calls _Conclude.
    CRound _pJoin(bool* pbMaker);
    /// Ends a round, so that those who wait for it and for the next one go on.
    void _Conclude(const CRound& pRound, EState eState);

    CStopWait m_clWait;     ///< of the members below, and of the rounds
    bool m_bMaking = false; ///< a round has a maker that has not concluded it
    CRound m_pNext;         ///< the round that is not begun yet; null: nobody waits for one
};
