#pragma once
// Approximate count of distinct byte strings. The standard error is 1.04 / sqrt(2^precision): 1.6 % at 12.
// add is safe from several threads at once; destroy needs that nobody uses it any more.

#include <cstddef>
#include <cstdint>

struct krel_hyperloglog_t;

krel_hyperloglog_t *krel_hyperloglog_alloc(int precision);  // 4 to 18; 2^precision bytes
void krel_hyperloglog_add(krel_hyperloglog_t *hll, const void *bytes, size_t length);
uint64_t krel_hyperloglog_size(const krel_hyperloglog_t *hll);
void krel_hyperloglog_destroy(krel_hyperloglog_t *hll);  // null is allowed
