#pragma once

#include <string>

/// Puts a text in the place of a file, all at once: who reads the file sees the old text or the new one,
/// whole. Everybody may read it. Throws CFailure (REFUSED), also for a device or a FIFO; what was there stays
/// then.
void ReplaceFile(const std::string& csPath, const std::string& csText);
