#include "support/VersionNote.h"

namespace {
// In the file and in memory alike, so that it survives stripping; nothing in the program refers to it.
[[gnu::used, gnu::section(".note.velmo"), gnu::aligned(4)]] constexpr auto s_stVersionNote =
    stVersionNote("FileVersion=" VELMO_VERSION "\0"
                  "VersionVI=" VELMO_VERSION);
} // namespace
