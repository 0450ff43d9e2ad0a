#pragma once

#include <functional>
#include <unistd.h>

/// Polls a condition until it holds or the milliseconds are over: the only way in which tests wait.
inline bool bWaitUntil(const std::function<bool()>& fnCondition, int nMs)
{
    for (; nMs > 0; nMs -= 5) {
        if (fnCondition()) {
            return true;
        }
        ::usleep(5000);
    }
    return fnCondition();
}
