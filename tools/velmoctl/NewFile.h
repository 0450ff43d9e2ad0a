#pragma once

#include <string>

/// Replaces a file at once: a reader sees the whole old text or the whole new one. Everybody may read the
/// file. Throws CFailure (REFUSED), also for a device or a FIFO; what was there stays then.
void ReplaceFile(const std::string& csPath, const std::string& csText);
