#pragma once

#include "support/Stopping.h"

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

class CService;

/// One lock for each service: changes of the same service (a start, a removal, a registration, a restart) run
/// one after the other; different services never wait for each other. The key of a service is its
/// CServiceManager::csLockName. Any thread.
///
/// A removal does not wait out a start that is under way: it stops the service, which cancels the start, and
/// gets the name before anybody else. Take names before every other lock: a thread that waited for a name
/// with the service lock (CSetupManager's) in its hands would make everybody wait for a start that hangs.
class CServiceLocks
{
public:
    struct STName;

    /// The names that one caller has taken, until Release or the destructor: all that it asked for, or none
    /// when the daemon's stop came before they were free. One thread.
    class CHold
    {
    public:
        CHold() = default;
        CHold(CHold&& clOther) noexcept = default;
        CHold& operator=(CHold&& clOther) noexcept;
        CHold(const CHold&) = delete;
        CHold& operator=(const CHold&) = delete;
        ~CHold() { Release(); }

        bool bTaken() const { return !m_tNames.empty(); }
        /// Starts a service; false with errno when that fails. Fails with ECANCELED when the service's name
        /// is not among those taken, when a removal waits for the name, or when one has come during the
        /// start.
        bool bStart(CService& clService);
        /// Gives the names back. Keeps errno.
        void Release();

    private:
        friend class CServiceLocks;
        CServiceLocks* m_pclLocks = nullptr;
        std::map<std::wstring, std::shared_ptr<STName>> m_tNames;
    };

    /// Takes the names in ascending order, waiting for each that somebody else has.
    CHold clTake(const std::set<std::wstring>& tNames);
    CHold clTake(const std::wstring& csName) { return clTake(std::set{csName}); }
    /// Takes one name for a removal. While a start of the service is under way, calls fnStop, which is to
    /// stop the service, every 250 ms. A start still under way after 2 seconds is given up: its tool is
    /// killed.
    CHold clTakeToRemove(const std::wstring& csName, const std::function<void()>& fnStop);
    /// Whether somebody holds the name now.
    bool bHeld(const std::wstring& csName);

private:
    std::shared_ptr<STName> _pstName(const std::wstring& csName);
    void _Forget(const std::wstring& csName, std::shared_ptr<STName>* ppstName);
    bool _bTakeOne(const std::wstring& csName, CHold* pclHold);
    static void _CancelStart(CStopWait::CLock& clLock, STName& stName, bool bGiveUp,
                             const std::function<void()>& fnStop);
    bool _bBeginStart(STName& stName);
    bool _bEndStart(STName& stName);

    CStopWait m_clWait;
    std::map<std::wstring, std::shared_ptr<STName>> m_tNames; ///< the names that somebody holds or waits for
};
