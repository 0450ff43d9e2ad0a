#pragma once

#include <string>

/// Runs a command line with /bin/sh and waits for it, as system() does. Returns its wait status; -1 with
/// errno when it could not be run. Unlike system(), the shell starts with no signal blocked and none ignored:
/// a server started through it from a worker thread (which blocks SIGTERM) could otherwise never be stopped.
///
/// Fails with ECANCELED as soon as the calling thread may not go on (CStopping::bMayGoOn). After a stop the
/// shell runs on by itself; after a cancel it is killed with all that it has started in its process group.
/// Any thread.
int nShell(const std::string& csCommand);

/// A text as one word of such a command line: unchanged when no character of it means anything to the shell,
/// else in single quotes.
std::string csShellWord(const std::string& csText);
