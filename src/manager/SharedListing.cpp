#include "manager/SharedListing.h"

#include <cerrno>
#include <system_error>

std::wstring CSharedListing::xcsGet(const std::function<std::wstring()>& fnMake)
{
    for (;;) {
        bool bMaker = false;
        const CRound pRound = _pJoin(&bMaker);
        if (bMaker) {
            // Concluded in any case: those who wait for this text would otherwise wait for ever.
            try {
                pRound->csText = fnMake();
            } catch (...) {
                _Conclude(pRound, CStopping::bAsked() ? EState::LEFT : EState::FAILED);
                throw;
            }
            _Conclude(pRound, EState::MADE);
        }

        // Without the lock: a round does not change any more once it is concluded.
        if (pRound->eState == EState::MADE) {
            return pRound->csText;
        }
        if (pRound->eState == EState::FAILED) {
            throw std::system_error(EAGAIN, std::generic_category());
        }
        // LEFT: its maker had to go because of the stop. This thread joins the next round, if it may go on.
    }
}

CSharedListing::CRound CSharedListing::_pJoin(bool* pbMaker)
{
    auto clLock = m_clWait.clLock();
    if (m_pNext == nullptr) {
        m_pNext = std::make_shared<STRound>();
    }
    CRound pRound = m_pNext;

    // This thread's to make: nobody is making a text, and no other thread has begun with this round.
    const auto bMine = [&] { return pRound->eState == EState::WAITING && pRound == m_pNext && !m_bMaking; };
    if (!CStopWait::bWait(
            clLock, [&] { return pRound->eState != EState::WAITING || bMine(); },
            [] { return !CStopping::bMayGoOn(); })) {
        CStopping::xThrowStopped();
    }

    *pbMaker = bMine();
    if (*pbMaker) {
        m_bMaking = true;
        m_pNext = nullptr; // whoever asks from now on gets a text that is begun after his question
    }
    return pRound;
}

void CSharedListing::_Conclude(const CRound& pRound, EState eState)
{
    const auto clLock = m_clWait.clLock();
    pRound->eState = eState;
    m_bMaking = false;
}
