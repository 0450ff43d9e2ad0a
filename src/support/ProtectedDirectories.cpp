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

/// Directories of the operating system, or of many programs. A server's own folder may be anywhere else below
/// /opt, /srv, /var/lib, /usr/local, a home...
constexpr STProtected s_tProtected[] = {
    // A server may have its folder in /usr/local and in its lib, share and their like, but not among its
    // programs...
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
    // ...while the distribution's package manager owns everything else in /usr.
    {"/usr", TREE},
    {"/bin", TREE},
    {"/sbin", TREE},
    {"/lib", TREE},
    {"/lib32", TREE},
    {"/lib64", TREE},
    {"/libx32", TREE},
    {"/boot", TREE},
    // Devices, settings, the kernel's file systems.
    {"/dev", TREE},
    {"/etc", TREE},
    {"/proc", TREE},
    {"/sys", TREE},
    {"/run", TREE},
    // Stores of other package managers.
    {"/snap", TREE},
    {"/nix", TREE},
    {"/gnu", TREE},
    // What fsck has found; homes as a whole; the state of the system's own services.
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
    // A server may live in root's home, but not in the place of root's keys.
    {"/root/.ssh", TREE},
    {"/root/.config", ITSELF},
};

/// Whether a path lies below another at any depth. "/optional" does not lie below "/opt".
bool bBelow(std::string_view csPath, std::string_view csParent)
{
    return csPath.size() > csParent.size() && csPath.starts_with(csParent) && csPath[csParent.size()] == '/';
}

/// Whether an entry protects this path.
bool bReaches(const STProtected& st, std::string_view csPath)
{
    if (csPath == st.csPath) {
        return true;
    }
    if (st.eReach == ITSELF || !bBelow(csPath, st.csPath)) {
        return false;
    }

    const bool bDirectlyIn = csPath.find('/', st.csPath.size() + 1) == csPath.npos;
    return st.eReach == TREE || bDirectlyIn;
}

/// Whether a path could be a result of realpath: absolute, without empty names, "." and "..".
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

    // Below "/usr/local" the entry of "/usr", which reaches all of its tree, does not count: administrators
    // install servers there.
    const bool bLocal = bBelow(csRealPath, "/usr/local");
    return std::ranges::none_of(s_tProtected, [&](const STProtected& st) {
        return bReaches(st, csRealPath) && !(bLocal && st.csPath == "/usr");
    });
}
