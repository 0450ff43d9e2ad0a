#include "support/ProtectedDirectories.h"

#include <algorithm>

namespace {
/// How far below a protected directory the protection reaches.
enum EReach
{
    ITSELF,
    CHILDREN, ///< and what lies directly in it
    TREE,     ///< and all below
};

struct STProtected
{
    std::string_view csPath;
    EReach eReach;
};

/// What belongs to the system or to all. Servers of their own live below /opt, /srv, /var/lib, /usr/local, a
/// home...
constexpr STProtected s_tProtected[] = {
    {"/usr/local", ITSELF},
    {"/usr/local/bin", TREE},
    {"/usr/local/sbin", TREE},
    {"/usr/local/lib", ITSELF},
    {"/usr/local/lib64", ITSELF},
    {"/usr/local/share", ITSELF},
    {"/usr/local/etc", ITSELF},
    {"/usr/local/include", TREE},
    {"/usr/local/libexec", ITSELF},
    {"/usr/local/games", ITSELF},
    {"/usr/local/man", TREE},
    {"/usr/local/src", ITSELF},
    {"/usr", TREE},
    {"/bin", TREE},
    {"/sbin", TREE},
    {"/lib", TREE},
    {"/lib32", TREE},
    {"/lib64", TREE},
    {"/libx32", TREE},
    {"/boot", TREE},
    {"/dev", TREE},
    {"/etc", TREE},
    {"/proc", TREE},
    {"/sys", TREE},
    {"/run", TREE},
    {"/snap", TREE},
    {"/nix", TREE},
    {"/gnu", TREE},
    {"/lost+found", TREE},
    {"/home", CHILDREN},
    {"/var", CHILDREN},
    {"/var/run", TREE},
    {"/var/lock", TREE},
    {"/var/log", TREE},
    {"/var/mail", TREE},
    {"/var/spool", TREE},
    {"/var/cache", TREE},
    {"/var/backups", TREE},
    {"/var/lib/apt", TREE},
    {"/var/lib/containers", TREE},
    {"/var/lib/dbus", TREE},
    {"/var/lib/docker", TREE},
    {"/var/lib/dpkg", TREE},
    {"/var/lib/machines", CHILDREN},
    {"/var/lib/pacman", TREE},
    {"/var/lib/pam", TREE},
    {"/var/lib/rpm", TREE},
    {"/var/lib/systemd", TREE},
    {"/root/.ssh", TREE},
    {"/root/.config", ITSELF},
};

bool bBelow(std::string_view csPath, std::string_view csParent)
{
    return csPath.size() > csParent.size() && csPath.starts_with(csParent) && csPath[csParent.size()] == '/';
}

bool bReaches(const STProtected& st, std::string_view csPath)
{
    if (csPath == st.csPath || st.eReach == ITSELF) {
        return csPath == st.csPath;
    }
    return bBelow(csPath, st.csPath) &&
           (st.eReach == TREE || csPath.find('/', st.csPath.size() + 1) == csPath.npos);
}

/// Whether a path could be the system's answer to realpath.
bool bResolved(std::string_view csPath)
{
    if (!csPath.starts_with('/') || csPath.find('\0') != csPath.npos) {
        return false;
    }
    for (std::size_t nStart = 1; nStart <= csPath.size();) {
        const std::size_t nEnd = std::min(csPath.find('/', nStart), csPath.size());
        const std::string_view csName = csPath.substr(nStart, nEnd - nStart);
        if (csName.empty() || csName == "." || csName == "..") {
            return false;
        }
        nStart = nEnd + 1;
    }
    return true;
}
} // namespace

bool bOwnFolder(std::string_view csRealPath)
{
    if (!bResolved(csRealPath) || csRealPath.find('/', 1) == csRealPath.npos) {
        return false;
    }
    // Below "/usr/local" only its own entries count, not that of "/usr".
    const bool bLocal = bBelow(csRealPath, "/usr/local");
    return std::ranges::none_of(s_tProtected, [&](const STProtected& st) {
        return bReaches(st, csRealPath) && !(bLocal && st.csPath == "/usr");
    });
}
