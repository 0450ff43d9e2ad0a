#pragma once

#include "manager/Dialog.h"

#include <array>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>

/// Entries of a folder.
inline int nEntries(const char* pszFolder)
{
    const std::filesystem::directory_iterator clAll(pszFolder);
    return static_cast<int>(std::distance(begin(clAll), end(clAll)));
}

/// A conversation with a tool that the test is.
struct STConversation
{
    std::array<int, 2> tEnds = s_tMakeEnds();
    CDescripteur clTool{tEnds[0]};
    CDialog clDialog{CDescripteur(tEnds[1])};

    void Send(const std::string& csBytes) const
    {
        EXPECT_EQ(::send(clTool.nFd(), csBytes.data(), csBytes.size(), 0),
                  static_cast<ssize_t>(csBytes.size()));
    }

private:
    static std::array<int, 2> s_tMakeEnds()
    {
        std::array<int, 2> tNew{-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, tNew.data()), 0);
        return tNew;
    }
};
