#include "main/Logger.h"
#include "SystemLog.h"

#include <cerrno>
#include <gtest/gtest.h>

TEST(Logger, WritesFormattedTextToTheSystemLogAtItsPriority)
{
    REQUIRE_PRIVATE_DEVICES();
    const CSystemLog clLog;
    CLogger clLogger;
    clLogger.AddLog(ILogger::PRIORITY_CRITICAL, L"the server %1 on port %2!u!", L"Donn\u00e9es", 4900u);
    EXPECT_EQ(clLog.csNext(), "<10>the server Donn\xC3\xA9"
                              "es on port 4900");
    clLogger.AddLogEvent(ILogger::PRIORITY_INFO, 77, L"%2 before %1", L"one", L"two");
    EXPECT_EQ(clLog.csNext(), "<14>two before one") << "the event's number is not written";
    const wchar_t* tDetails[] = {L"first 100%%%%", L"second", L"third"};
    clLogger.AddLogDetail(ILogger::PRIORITY_ERROR, 5, tDetails, 3);
    EXPECT_EQ(clLog.csNext(), "<11>first 100%") << "a format twice over";
    errno = ENOENT;
    clLogger.AddLogSystemError(L"open of %ls failed, try %d", L"/etc/x", 3);
    EXPECT_EQ(clLog.csNext(), "<11>open of /etc/x failed, try 3 , error 2, No such file or directory");
}
