#pragma once

#include <string>

/// Runs a command line with /bin/sh and waits, as system() does, and returns its wait status (-1: could not
/// be run, errno tells). Unlike system() the shell starts with no signal blocked and none ignored: a server
/// started through it from a worker thread (which blocks SIGTERM) could otherwise never be stopped. Once
/// the calling thread may not go on (CStopping::bMayGoOn) it fails with ECANCELED and leaves the shell to
/// itself; what was
/// cancelled is killed with all that it has started. Any thread.
int nShell(const std::string& csCommand);

/// A text as one word of such a command line: as it is when nothing in it means something to the shell, else
/// in single quotes.
std::string csShellWord(const std::string& csText);
