// The version, where a later manager's installation reads it from this executable's file.

#include "support/VersionNote.h"

namespace {
// A loaded section, so that stripping keeps it. "used": nothing in the program refers to it.
[[gnu::used, gnu::section(".note.velmo"), gnu::aligned(4)]] constexpr auto s_stVersionNote =
    stVersionNote("FileVersion=" VELMO_VERSION "\0"
                  "VersionVI=" VELMO_VERSION);
} // namespace
