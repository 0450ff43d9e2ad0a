#pragma once

#include <cstdarg>
#include <string>

/// The formatter that FormatMessageW uses for a string. With pArgs null, inserts remain in the text. The list
/// itself is not advanced: the arguments are taken from a copy.
///
/// Types in "!...!" are those of printf: d, i, u, x, X, o, c, C, s, S, with the flags "-+ #0", a width and a
/// precision (each at most 1000). Integers have 32 bits with the prefix "l" (as on Windows), "I32" or none,
/// 64 bits with "I64" or "ll"; with "h" the low 16 bits of 32 count. "s", "ls", "ws" and "c" are wide; "S",
/// "hs", "C" and "hc" are in the system code page.
///
/// An insert remains in the text when its type is none of these ("*" as a width is none), or contradicts an
/// earlier insert of the same number. A "%" that ends the text is dropped.
std::wstring csFormatInserts(const wchar_t* pszFormat, va_list* pArgs);
