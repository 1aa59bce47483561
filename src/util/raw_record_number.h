#pragma once
// Numbers in text lines: bounded by a length, no terminator needed, no allocation.

#include <cstddef>
#include <string_view>

// Digits only, base 10 (the signed form: an optional minus first). *end is left behind the last digit that
// was taken; with no digit it is `text` and the result 0. On overflow errno is ERANGE, the result the type's
// largest (or smallest) value and *end the digit that did not fit; otherwise errno stays.
long long stringtoll(const char *text, size_t length, const char **end);
unsigned long long stringtoull(const char *text, size_t length, const char **end);

// The whole text as strtod reads it in the "C" locale: leading blanks, a sign, decimal or 0x form. False for
// anything else, for what is not finite, and for "nan" and "inf" in any spelling.
bool stringtod(std::string_view text, double *value);
