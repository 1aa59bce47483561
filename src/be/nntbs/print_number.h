#pragma once
// Numbers as text, fast. Each writes at `out`, unterminated, and returns the end.

#include <cstddef>
#include <cstdint>

constexpr size_t PRINT_NUMBER_MAX = 40;  // what any of these writes at most

char *print_int64(char *out, int64_t value);
char *print_uint64(char *out, uint64_t value);
// The bytes of printf's "%.20g"; "null" for what is not finite.
char *print_double(char *out, double value);
// Exactly `width` digits (up to 18), with leading zeros.
char *print_padded(char *out, uint64_t value, int width);
