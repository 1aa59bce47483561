#include "platform/krel/base/krel_hash.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <vector>

#include "platform/krel/base/ck_cxx.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_memory.h"
#include "platform/krel/base/thread_annotations.h"

// The set publishes entries through assembler that ThreadSanitizer cannot see; these two tell it.
#if defined(__SANITIZE_THREAD__)
#define KREL_HASH_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KREL_HASH_TSAN 1
#endif
#endif
#ifdef KREL_HASH_TSAN
#include <sanitizer/tsan_interface.h>
#define ENTRY_PUBLISHED(entry) __tsan_release(entry)
#define ENTRY_SEEN(entry) __tsan_acquire(const_cast<void *>(static_cast<const void *>(entry)))
#else
#define ENTRY_PUBLISHED(entry) (void)0
#define ENTRY_SEEN(entry) (void)0
#endif

namespace {

enum class kind_e { PLAIN, LOCKS, MEMORY };

// What the set compares: the front of every entry, and the key that is looked for.
struct key_view_t {
  const void *bytes;
  size_t length;
};

struct record_t {
  void *key;  // the caller's
  void *value;
  krel_hash_free_t key_free;
  krel_hash_free_t value_free;
};

// Followed by its key's bytes. A replace changes the record and leaves the entry where it is, so that
// whoever walks the table meanwhile meets the entry once.
struct entry_t : key_view_t {
  std::atomic<record_t *> record;
};

void free_content(void *block) {
  const auto *record = static_cast<const record_t *>(block);
  if (record->key_free != nullptr) record->key_free(record->key);
  if (record->value_free != nullptr) record->value_free(record->value);
}

void *plain_malloc(size_t size) {
  void *block = malloc(size);
  if (block == nullptr) krel_fatal("out of memory: %zu bytes for a hash table\n", size);
  return block;
}

ck_malloc plain_allocator = {plain_malloc, nullptr, [](void *block, size_t, bool) { free(block); }};
ck_malloc memory_allocator = {krel_memory_safe_malloc, nullptr,
                              [](void *block, size_t, bool) { krel_memory_safe_free(block); }};

unsigned long hash_of(const void *object, unsigned long) {
  ENTRY_SEEN(object);
  const auto *key = static_cast<const key_view_t *>(object);
  return std::hash<std::string_view>()({static_cast<const char *>(key->bytes), key->length});
}

bool equal(const void *stored, const void *sought) {
  ENTRY_SEEN(stored);
  const auto *a = static_cast<const key_view_t *>(stored), *b = static_cast<const key_view_t *>(sought);
  return a->length == b->length && (a->length == 0 || memcmp(a->bytes, b->bytes, a->length) == 0);
}

}  // namespace

struct krel_hash_impl_t {
  const kind_e m_kind;
  ck_hs_t m_set;  // one writer at a time: the caller's care, or m_lock's
  mutable krel_shared_mutex_c m_lock;
  std::atomic<size_t> m_size{0};

  krel_hash_impl_t(kind_e kind, size_t entries) : m_kind(kind) {
    // The set keeps at most half of its slots in use before it grows.
    const bool done = ck_hs_init(&m_set, CK_HS_MODE_SPMC | CK_HS_MODE_OBJECT | CK_HS_MODE_DELETE, hash_of,
                                 equal, kind == kind_e::MEMORY ? &memory_allocator : &plain_allocator,
                                 entries < 16 ? 32 : entries * 2, 0);
    krel_assert(done);
  }
  ~krel_hash_impl_t() { ck_hs_destroy(&m_set); }
  krel_hash_impl_t(const krel_hash_impl_t &) = delete;
  krel_hash_impl_t &operator=(const krel_hash_impl_t &) = delete;

  entry_t *find(const key_view_t &key) const {
    return static_cast<entry_t *>(ck_hs_get(const_cast<ck_hs_t *>(&m_set), hash_of(&key, 0), &key));
  }

  void *allocate(size_t size, void (*cleanup)(void *)) const {
    return m_kind == kind_e::MEMORY ? krel_memory_safe_malloc_cleanup(size, cleanup) : plain_malloc(size);
  }

  record_t *make_record(const void *key, void *value) const {
    return new (allocate(sizeof(record_t), free_content))
        record_t{const_cast<void *>(key), value, nullptr, nullptr};
  }

  void add(const key_view_t &key, record_t *record) {
    auto *entry = new (allocate(sizeof(entry_t) + key.length, nullptr)) entry_t;
    char *tail = reinterpret_cast<char *>(entry + 1);
    if (key.length != 0) memcpy(tail, key.bytes, key.length);
    entry->bytes = tail;
    entry->length = key.length;
    entry->record.store(record, std::memory_order_relaxed);
    ENTRY_PUBLISHED(entry);
    const bool added = ck_hs_put_unique(&m_set, hash_of(entry, 0), entry);
    krel_assert(added);
    m_size.fetch_add(1, std::memory_order_relaxed);
  }

  // Of a record that readers no longer find.
  void release(record_t *record, krel_hash_free_t key_free, krel_hash_free_t value_free) const {
    record->key_free = key_free;
    record->value_free = value_free;
    if (m_kind == kind_e::MEMORY) {
      krel_memory_safe_free(record);
    } else {
      free_content(record);
      free(record);
    }
  }

  void release(entry_t *entry, krel_hash_free_t key_free, krel_hash_free_t value_free) const {
    release(entry->record.load(std::memory_order_relaxed), key_free, value_free);
    if (m_kind == kind_e::MEMORY) {
      krel_memory_safe_free(entry);
    } else {
      free(entry);
    }
  }
};

namespace {

class writing_c {
 public:
  explicit writing_c(const krel_hash_impl_t *table) NO_THREAD_SAFETY_ANALYSIS : m_table(table) {
    if (table->m_kind != kind_e::PLAIN) table->m_lock.lock();
  }
  ~writing_c() NO_THREAD_SAFETY_ANALYSIS {
    if (m_table->m_kind != kind_e::PLAIN) m_table->m_lock.unlock();
  }
  writing_c(const writing_c &) = delete;
  writing_c &operator=(const writing_c &) = delete;

 private:
  const krel_hash_impl_t *m_table;
};

class reading_c {
 public:
  explicit reading_c(const krel_hash_impl_t *table) NO_THREAD_SAFETY_ANALYSIS : m_table(table) {
    if (table->m_kind == kind_e::LOCKS) table->m_lock.lock_shared();
  }
  ~reading_c() NO_THREAD_SAFETY_ANALYSIS {
    if (m_table->m_kind == kind_e::LOCKS) m_table->m_lock.unlock_shared();
  }
  reading_c(const reading_c &) = delete;
  reading_c &operator=(const reading_c &) = delete;

 private:
  const krel_hash_impl_t *m_table;
};

void init(krel_hash_table *table, kind_e kind, size_t entries) {
  table->impl = std::make_unique<krel_hash_impl_t>(kind, entries).release();
}

}  // namespace

void krel_hash_init(krel_hash_table *table) {
  init(table, kind_e::PLAIN, 0);
}

void krel_hash_init_size(krel_hash_table *table, size_t entries) {
  init(table, kind_e::PLAIN, entries);
}

void krel_hash_init_locks(krel_hash_table *table, size_t entries, krel_hash_lock_e locking) {
  init(table, locking == KREL_HASH_LOCK_NONE ? kind_e::PLAIN : kind_e::LOCKS, entries);
}

void krel_hash_init_krel_memory(krel_hash_table *table, size_t entries) {
  init(table, kind_e::MEMORY, entries);
}

void krel_hash_destroy(krel_hash_table *table, krel_hash_free_t key_free, krel_hash_free_t value_free) {
  if (table->impl == nullptr) return;
  krel_hash_delete_all(table, key_free, value_free);
  std::unique_ptr<krel_hash_impl_t>{table->impl};
  table->impl = nullptr;
}

bool krel_hash_store(krel_hash_table *table, const void *key, size_t key_length, void *value) {
  krel_hash_impl_t *impl = table->impl;
  const key_view_t view = {key, key_length};
  const writing_c lock(impl);
  if (impl->find(view) != nullptr) return false;
  impl->add(view, impl->make_record(key, value));
  return true;
}

bool krel_hash_replace(krel_hash_table *table, const void *key, size_t key_length, void *value,
                       krel_hash_free_t key_free, krel_hash_free_t value_free) {
  krel_hash_impl_t *impl = table->impl;
  const key_view_t view = {key, key_length};
  record_t *old;
  {
    const writing_c lock(impl);
    record_t *record = impl->make_record(key, value);
    entry_t *entry = impl->find(view);
    if (entry == nullptr) {
      impl->add(view, record);
      return false;
    }
    old = entry->record.exchange(record, std::memory_order_acq_rel);
  }
  impl->release(old, key_free, value_free);
  return true;
}

bool krel_hash_retrieve(const krel_hash_table *table, const void *key, size_t key_length, void **value) {
  const krel_hash_impl_t *impl = table->impl;
  const reading_c lock(impl);
  const entry_t *entry = impl->find({key, key_length});
  *value = entry == nullptr ? nullptr : entry->record.load(std::memory_order_acquire)->value;
  return entry != nullptr;
}

bool krel_hash_retr_str(const krel_hash_table *table, const void *key, size_t key_length, const char **value) {
  void *found;
  const bool result = krel_hash_retrieve(table, key, key_length, &found);
  *value = static_cast<const char *>(found);
  return result;
}

bool krel_hash_delete(krel_hash_table *table, const void *key, size_t key_length, krel_hash_free_t key_free,
                      krel_hash_free_t value_free) {
  krel_hash_impl_t *impl = table->impl;
  const key_view_t view = {key, key_length};
  entry_t *entry;
  {
    const writing_c lock(impl);
    entry = static_cast<entry_t *>(ck_hs_remove(&impl->m_set, hash_of(&view, 0), &view));
    if (entry == nullptr) return false;
    impl->m_size.fetch_sub(1, std::memory_order_relaxed);
  }
  impl->release(entry, key_free, value_free);
  return true;
}

void krel_hash_delete_all(krel_hash_table *table, krel_hash_free_t key_free, krel_hash_free_t value_free) {
  krel_hash_impl_t *impl = table->impl;
  std::vector<entry_t *> entries;
  {
    const writing_c lock(impl);
    entries.reserve(krel_hash_size(table));
    ck_hs_iterator_t at = CK_HS_ITERATOR_INITIALIZER;
    for (void *entry; ck_hs_next(&impl->m_set, &at, &entry);) entries.push_back(static_cast<entry_t *>(entry));
    // Out of the table first: what readers can still find is not released.
    const bool done = ck_hs_reset(&impl->m_set);
    krel_assert(done);
    impl->m_size.store(0, std::memory_order_relaxed);
  }
  for (entry_t *entry : entries) impl->release(entry, key_free, value_free);
}

size_t krel_hash_size(const krel_hash_table *table) {
  return table->impl->m_size.load(std::memory_order_relaxed);
}

bool krel_hash_adv(const krel_hash_table *table, krel_hash_iter_t *iter) {
  krel_hash_impl_t *impl = table->impl;
  ck_hs_iterator_t at = {nullptr, iter->_offset, static_cast<ck_hs_map *>(iter->_map)};
  void *found;
  if (!ck_hs_next_spmc(&impl->m_set, &at, &found)) return false;
  iter->_offset = at.offset;
  iter->_map = at.map;
  ENTRY_SEEN(found);
  const auto *entry = static_cast<const entry_t *>(found);
  iter->key = entry->bytes;
  iter->key_length = entry->length;
  iter->value = entry->record.load(std::memory_order_acquire)->value;
  return true;
}
