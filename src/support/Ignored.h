#pragma once

/// For the result of a call after whose failure there is nothing better than to go on; the place says why.
inline void Ignored(long) {}
