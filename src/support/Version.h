#pragma once

/// The version of this build, four numbers; the build system's one definition of it.
inline constexpr wchar_t g_szVersion[] = L"" VELMO_VERSION;
