#pragma once

#include <cstddef>

/// Compares two texts in which runs of digits compare by their numeric value, however long ("9.0" is below
/// "24.0", "1.02" equals "1.2"). Negative, 0, positive. Null is the empty text.
int STR_nCompareRespecteNumeriqueW(const wchar_t* psz1, const wchar_t* psz2);

/// Compares at most nLength characters without regard to case and accents (Latin letters). Negative, 0,
/// positive.
int STR_nNCompare(const wchar_t* psz1, const wchar_t* psz2, std::size_t nLength);
