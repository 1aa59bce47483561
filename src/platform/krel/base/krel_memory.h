#pragma once
// Safe memory reclamation for lock-free readers: epochs on Concurrency Kit. Memory released with
// krel_memory_safe_free is reused only after every read section that was open at that moment ended.

#include <cstddef>

// A thread that reads or frees calls these at its start and end; loop, queue and agent threads do so
// by themselves. init is idempotent.
void krel_memory_init_thread();
void krel_memory_fini_thread();

// A read section. Nests. Must not be held across blocking work.
void krel_memory_begin();
void krel_memory_end();
bool krel_memory_in_cs();

// Epoch-managed blocks. cleanup runs once, just before the memory is released.
void *krel_memory_safe_malloc(size_t size);
void *krel_memory_safe_calloc(size_t count, size_t size);
char *krel_memory_safe_strdup(const char *text);
void *krel_memory_safe_malloc_cleanup(size_t size, void (*cleanup)(void *));
void krel_memory_safe_free(void *block);  // null is allowed

// Advances epochs and releases what can be released on the calling thread. Never blocks.
// level: 0 cheap poll, 1 normal, 2 thorough.
void krel_memory_maintenance_ex(int level);

class krel_memory_section_c {
 public:
  krel_memory_section_c() { krel_memory_begin(); }
  ~krel_memory_section_c() { krel_memory_end(); }
  krel_memory_section_c(const krel_memory_section_c &) = delete;
  krel_memory_section_c &operator=(const krel_memory_section_c &) = delete;
};
