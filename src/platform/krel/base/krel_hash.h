#pragma once
// Hash tables from byte strings to pointers.
//
// Values are the caller's: the table keeps the pointers. Keys are copied; the pointer given with a store or
// replace is kept only for the key free function of the call that takes the entry out. Free functions may
// be null; the key is freed before the value.
//
// Threads, by the kind of table:
//  - krel_hash_init, _init_size: the caller guards it.
//  - krel_hash_init_locks: any call from any thread; what a retrieve returns is not protected by the table.
//    Iterating needs that no other thread changes the table.
//  - krel_hash_init_krel_memory: any call from any thread; retrieve and iteration take no lock and run
//    between krel_memory_begin and krel_memory_end, within which what they return stays valid. Free
//    functions given to replace, delete and delete_all run once no such section can see key and value.

#include <cstddef>
#include <cstdint>

struct krel_hash_impl_t;
struct krel_hash_table {
  krel_hash_impl_t *impl = nullptr;  // null until an init
};
using krel_hash_free_t = void (*)(void *);

enum krel_hash_lock_e : int { KREL_HASH_LOCK_NONE = 0, KREL_HASH_LOCK_RW = 1 };

void krel_hash_init(krel_hash_table *table);
void krel_hash_init_size(krel_hash_table *table, size_t entries);
void krel_hash_init_locks(krel_hash_table *table, size_t entries, krel_hash_lock_e locking);
void krel_hash_init_krel_memory(krel_hash_table *table, size_t entries);
// Takes every entry out and ends the table, which nobody else may use any more. One never initialised is
// allowed.
void krel_hash_destroy(krel_hash_table *table, krel_hash_free_t key_free, krel_hash_free_t value_free);

// False, with nothing done, when the key exists.
bool krel_hash_store(krel_hash_table *table, const void *key, size_t key_length, void *value);
// Stores in any case. True when the key existed: the old key and value go to the free functions.
bool krel_hash_replace(krel_hash_table *table, const void *key, size_t key_length, void *value,
                       krel_hash_free_t key_free, krel_hash_free_t value_free);
// False when there is no such key; *value is null then.
bool krel_hash_retrieve(const krel_hash_table *table, const void *key, size_t key_length, void **value);
bool krel_hash_retr_str(const krel_hash_table *table, const void *key, size_t key_length, const char **value);
bool krel_hash_delete(krel_hash_table *table, const void *key, size_t key_length, krel_hash_free_t key_free,
                      krel_hash_free_t value_free);
void krel_hash_delete_all(krel_hash_table *table, krel_hash_free_t key_free, krel_hash_free_t value_free);
size_t krel_hash_size(const krel_hash_table *table);

// for (krel_hash_iter_t it = {}; krel_hash_adv(&table, &it);) ... it.value ...
// In no order. The entry the iterator stands on may be deleted; nothing may be stored meanwhile, except
// in a krel_memory table, where an entry that was there all the time appears once, with one of its values.
struct krel_hash_iter_t {
  const void *key;
  size_t key_length;
  void *value;
  void *_map;
  unsigned long _offset;
};
bool krel_hash_adv(const krel_hash_table *table, krel_hash_iter_t *iter);
