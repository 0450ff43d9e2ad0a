#pragma once

#include <cstddef>

/// Compares two texts, runs of digits of any length by their numeric value ("9.0" is below "24.0", "1.02"
/// equals "1.2"). Returns a negative number, 0 or a positive one. Null is the empty text.
int STR_nCompareRespecteNumeriqueW(const wchar_t* psz1, const wchar_t* psz2);

/// Compares at most nLength characters, ignoring case and accents of Latin letters. Returns a negative
/// number, 0 or a positive one. Null is the empty text.
int STR_nNCompare(const wchar_t* psz1, const wchar_t* psz2, std::size_t nLength);
