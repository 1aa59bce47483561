#pragma once
// One variable of a tag search: what a category or a value is compared with.
//   foo       exact bytes           foo*b?r   glob: * any run, ? one character
//   b"<b64>"  exact bytes           /re/      PCRE, unanchored          b/<b64>/  PCRE
// Variables belong to their search tree and are read from any thread.

#include <cstddef>
#include <string_view>

struct dorn_var_t;

// The bytes of an exact variable, the text of a glob ("*" when a match names no value), the pattern of a PCRE.
std::string_view dorn_var_val(const dorn_var_t *var);
// "exact", "glob" or "pcre".
const char *dorn_var_impl_name(const dorn_var_t *var);

// Compares with plain (decoded) bytes. A PCRE sees UTF-8 and matches no text that is not, unless its
// pattern is not UTF-8 either; it gives up, without a match, at a fixed amount of work.
bool dorn_var_match(const dorn_var_t *var, const char *bytes, size_t len);

// Appends to out[0, used) the bytes that every match begins with, cut to out_size - 1 in all, with a
// terminator; gives the new length. *complete: the prefix is the only match.
size_t dorn_var_strlcat_fixed_prefix(const dorn_var_t *var, char *out, size_t used, size_t out_size,
                                     bool *complete);
