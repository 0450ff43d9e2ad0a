#pragma once

#include "support/Stopping.h"

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

class CService;

/// One lock for each service: what changes the same service (a start, a removal, a registration, a restart)
/// takes turns, different services never wait for each other. The keys are registered names
/// (CServiceManager::csRegisteredName).
///
/// A removal does not wait for a start that is under way: it sends the stop, which cancels the start, and
/// comes next; nobody else gets in between. Whoever takes names while holding one of the registry's other
/// locks would make everybody wait for a start that hangs: names come first.
class CServiceLocks
{
public:
    struct STName;

    /// Names taken, until the object's end. Empty when the stop came first.
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
        /// Starts a service whose name is among those taken. False (ECANCELED) also when a removal waits for
        /// the name, or came meanwhile.
        bool bStart(CService& clService);
        /// Keeps errno.
        void Release();

    private:
        friend class CServiceLocks;
        CServiceLocks* m_pclLocks = nullptr;
        std::map<std::wstring, std::shared_ptr<STName>> m_tNames;
    };

    /// Takes names in their order.
    CHold clTake(const std::set<std::wstring>& tNames);
    CHold clTake(const std::wstring& csName) { return clTake(std::set{csName}); }
    /// Takes one name for a removal. fnStop, which stops the service, is called, again and again if need be,
    /// while a start of it is under way; a start that goes on even so is given up and its tool killed.
    CHold clTakeToRemove(const std::wstring& csName, const std::function<void()>& fnStop);
    /// Whether somebody has the name now.
    bool bHeld(const std::wstring& csName);

private:
    std::shared_ptr<STName> __pstName(const std::wstring& csName);
    void __Forget(const std::wstring& csName, std::shared_ptr<STName>* ppstName);
    bool __bTakeOne(const std::wstring& csName, CHold* pclHold);
    bool __bBeginStart(STName& stName);
    bool __bEndStart(STName& stName);

    CStopWait m_clWait;
    std::map<std::wstring, std::shared_ptr<STName>> m_tNames; ///< those that anybody has or waits for
};
