#pragma once
// A compiled pattern: reference counted, never changed, matched by any number of threads. For this library
// only.

#include <string>
#include <string_view>

struct dorn_regex_t;

// Never null, one reference: a pattern that does not compile gives one that is not valid and matches nothing.
const dorn_regex_t *dorn_regex_compile(const std::string &pattern);
bool dorn_regex_is_valid(const dorn_regex_t *regex);
void dorn_regex_ref(const dorn_regex_t *regex);
void dorn_regex_deref(const dorn_regex_t *regex);
// Unanchored. The first match translates the pattern to machine code. See dorn_var_match for what it takes and
// when it gives up.
bool dorn_regex_match(const dorn_regex_t *regex, std::string_view text);
