#pragma once

#include <string>

/// Replaces a file, or creates it, at once: a reader sees the whole old text or the whole new one, even after
/// a power failure. Everybody may read the file. Throws CFailure (REFUSED), also for a device or a FIFO; the
/// old file stays then.
void ReplaceFile(const std::string& csPath, const std::string& csText);
