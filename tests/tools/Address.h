#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

/// A numeric address, IPv4 ("127.0.0.1") or IPv6 ("::1"), with a port; the family is 0 when it is neither.
/// The record is the larger of the two, in which IPv4 has its port at the same place.
inline sockaddr_in6 stAddress(const char* pszAddress, unsigned short wPort)
{
    sockaddr_in6 st{};
    st.sin6_port = htons(wPort);
    if (::inet_pton(AF_INET6, pszAddress, &st.sin6_addr) == 1) {
        st.sin6_family = AF_INET6;
    } else if (::inet_pton(AF_INET, pszAddress, &reinterpret_cast<sockaddr_in*>(&st)->sin_addr) == 1) {
        st.sin6_family = AF_INET;
    }
    return st;
}
