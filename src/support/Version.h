#pragma once

/// The version of this build, four numbers. The build system defines it, in one place.
inline constexpr wchar_t g_szVersion[] = L"" VELMO_VERSION;
