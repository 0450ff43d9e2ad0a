#pragma once

#include <cstdarg>
#include <string>

/// The from-string formatter behind FormatMessageW. pArgs null: inserts stay as they are in the text.
///
/// Types in "!...!" are those of printf with the flags "-+ #0", a width and a precision (each at most 1000):
/// d, i, u, x, X, o, c, C, s, S. 32-bit integers have the prefix "l", "h", "I32" or none ("l" included, as on
/// Windows), 64-bit ones "I64" or "ll". "s", "ls", "ws", "c" are wide; "S", "hs", "C", "hc" are in the system
/// code page. A type that is none of these ("*" widths included), or that contradicts an earlier insert of
/// the same number, leaves the insert as text. A "%" that ends the text is dropped.
std::wstring csFormatInserts(const wchar_t* pszFormat, va_list* pArgs);
