#pragma once

#include "tools/TempDir.h"

#include <string>

/// Gives this process its own mounts and network: what a test puts in /etc/init.d, /lib/systemd/system, /tmp,
/// /run or /var/run, or binds over a program, reaches nobody else. Done once, before any thread runs; false
/// where the kernel refuses (tests that need it are then skipped, loudly).
bool bPrivateWorld();

/// A network of its own for the calling thread and those that it starts from now on, loopback up: a port that
/// an earlier test's connections still hold is free again.
bool bFreshNetwork();

/// Skips the test where there is no private world.
#define REQUIRE_PRIVATE_WORLD()                                                                              \
    if (!bPrivateWorld())                                                                                    \
    GTEST_SKIP() << "SKIPPED: needs root and mount/network namespaces"

/// Puts a script in the place of a fixed program (/bin/systemctl, for instance) for the life of the object.
/// The script first notes its arguments, one call a line, in a journal; $JOURNAL names that file, $DIR its
/// folder.
class CFakeTool
{
public:
    CFakeTool(std::string csProgram, const std::string& csBody);
    ~CFakeTool();
    CFakeTool(const CFakeTool&) = delete;
    CFakeTool& operator=(const CFakeTool&) = delete;

    /// The calls since the last one of this, one a line.
    std::string csTakeJournal();
    /// A file in the tool's folder, with the folders that it needs.
    void Write(const std::string& csName, const std::string& csText) { m_clFolder.csWrite(csName, csText); }
    std::string csFolder() const { return m_clFolder.csPath(); }
    bool bExists(const std::string& csName) const { return m_clFolder.bExists(csName); }

private:
    std::string m_csProgram;
    CTempDir m_clFolder;
    std::size_t m_nTaken = 0; ///< bytes of the journal
};
