#include "platform/krel/base/krel_memory.h"

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/krel/base/ck_cxx.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/thread_annotations.h"

// The epochs order reads before reclaims through assembler that ThreadSanitizer cannot see; these two
// tell it. The order is real: a section's end happens before the reclaim that waited for it.
#if defined(__SANITIZE_THREAD__)
#define KREL_MEMORY_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KREL_MEMORY_TSAN 1
#endif
#endif
#ifdef KREL_MEMORY_TSAN
#include <sanitizer/tsan_interface.h>
#define EPOCH_RELEASE() __tsan_release(&g_epoch_order)
#define EPOCH_ACQUIRE() __tsan_acquire(&g_epoch_order)
static char g_epoch_order;
#else
#define EPOCH_RELEASE() (void)0
#define EPOCH_ACQUIRE() (void)0
#endif

namespace {

constexpr uint32_t k_live = 0x6b726c76, k_freed = 0x66726565;
constexpr unsigned k_poll_every = 64;  // frees between polls of a thread that does no maintenance

struct alignas(16) header_t {
  ck_epoch_entry_t entry;
  void (*cleanup)(void *);
  uint32_t state;
};
static_assert(sizeof(header_t) % 16 == 0);

void *block_of(header_t *header) {
  return header + 1;
}
header_t *header_of(void *block) {
  return static_cast<header_t *>(block) - 1;
}
header_t *header_of_entry(ck_stack_entry_t *entry) {
  return reinterpret_cast<header_t *>(reinterpret_cast<char *>(entry) -
                                      offsetof(ck_epoch_entry_t, stack_entry) - offsetof(header_t, entry));
}

struct thread_state_t {
  ck_epoch_record_t *record;
  unsigned depth;   // open sections
  unsigned frees;   // since the last poll
  bool reclaiming;  // inside a cleanup function
};
thread_local constinit thread_state_t t_state = {};

// Registration and what ended threads left behind. Never destroyed: threads may outlive statics.
struct domain_t {
  domain_t() {
    ck_epoch_init(&epoch);
    ck_stack_init(&orphans);
    int failed = pthread_key_create(&at_thread_end, [](void *) { krel_memory_fini_thread(); });
    krel_assert(failed == 0);
  }
  ck_epoch_t epoch;
  pthread_key_t at_thread_end;
  krel_mutex_c mutex;
  ck_stack_t orphans GUARDED_BY(mutex);
};

domain_t &domain() {
  static domain_t *d = new domain_t;
  return *d;
}

std::atomic<bool> g_have_orphans{false};

void reclaim_never(ck_epoch_entry_t *) {
  krel_fatal("an epoch entry was run outside a reclaim\n");
}

ck_epoch_record_t *record_of_thread() {
  if (t_state.record != nullptr) [[likely]]
    return t_state.record;
  krel_memory_init_thread();
  return t_state.record;
}

void defer(header_t *header) {
  ck_epoch_call(record_of_thread(), &header->entry, reclaim_never);
}

void adopt_orphans() {
  if (!g_have_orphans.load(std::memory_order_relaxed)) return;
  domain_t &d = domain();
  ck_stack_entry_t *entry;
  {
    krel_lock_c lock(d.mutex);
    entry = CK_STACK_FIRST(&d.orphans);
    ck_stack_init(&d.orphans);
    g_have_orphans.store(false, std::memory_order_relaxed);
  }
  while (entry != nullptr) {
    ck_stack_entry_t *next = CK_STACK_NEXT(entry);
    defer(header_of_entry(entry));
    entry = next;
  }
}

// One try to advance the epoch; true when it went on. Not inside a section: a poll moves the
// thread's own view of the epoch on, which a section relies on.
bool poll() {
  t_state.frees = 0;
  ck_stack_t ready;
  ck_stack_init(&ready);
  bool advanced = ck_epoch_poll_deferred(record_of_thread(), &ready);
  ck_stack_entry_t *entry = CK_STACK_FIRST(&ready);
  if (entry == nullptr) return advanced;
  EPOCH_ACQUIRE();
  t_state.reclaiming = true;
  while (entry != nullptr) {
    ck_stack_entry_t *next = CK_STACK_NEXT(entry);
    header_t *header = header_of_entry(entry);
    if (header->cleanup != nullptr) header->cleanup(block_of(header));
    std::free(header);
    entry = next;
  }
  t_state.reclaiming = false;
  return advanced;
}

bool may_poll() {
  return t_state.depth == 0 && !t_state.reclaiming;
}

void *allocate(size_t size, void (*cleanup)(void *), bool zeroed) {
  if (size > SIZE_MAX - sizeof(header_t)) return nullptr;
  size_t whole = size + sizeof(header_t);
  void *memory = zeroed ? std::calloc(1, whole) : std::malloc(whole);
  if (memory == nullptr) krel_fatal("out of memory: %zu bytes were asked for\n", size);
  auto *header = new (memory) header_t;
  header->cleanup = cleanup;
  header->state = k_live;
  return block_of(header);
}

}  // namespace

void krel_memory_init_thread() {
  if (t_state.record != nullptr) return;
  domain_t &d = domain();
  krel_lock_c lock(d.mutex);
  ck_epoch_record_t *record = ck_epoch_recycle(&d.epoch, nullptr);
  if (record == nullptr) {
    void *memory = std::aligned_alloc(alignof(ck_epoch_record_t), sizeof(ck_epoch_record_t));
    if (memory == nullptr) krel_fatal("out of memory registering a thread\n");
    std::memset(memory, 0, sizeof(ck_epoch_record_t));
    record = static_cast<ck_epoch_record_t *>(memory);
    ck_epoch_register(&d.epoch, record, nullptr);
  }
  t_state.record = record;
  pthread_setspecific(d.at_thread_end, record);
}

void krel_memory_fini_thread() {
  ck_epoch_record_t *record = t_state.record;
  if (record == nullptr) return;
  krel_assert(t_state.depth == 0);
  krel_memory_maintenance_ex(2);
  domain_t &d = domain();
  krel_lock_c lock(d.mutex);
  for (ck_stack_t &pending : record->pending) {
    for (ck_stack_entry_t *entry = ck_stack_batch_pop_upmc(&pending); entry != nullptr;) {
      ck_stack_entry_t *next = CK_STACK_NEXT(entry);
      ck_stack_push_spnc(&d.orphans, entry);
      g_have_orphans.store(true, std::memory_order_relaxed);
      entry = next;
    }
  }
  ck_epoch_unregister(record);
  t_state.record = nullptr;
  pthread_setspecific(d.at_thread_end, nullptr);
}

void krel_memory_begin() {
  if (t_state.depth++ == 0) {
    ck_epoch_begin(record_of_thread(), nullptr);
    EPOCH_ACQUIRE();
  }
}

void krel_memory_end() {
  krel_assert(t_state.depth > 0);
  if (--t_state.depth > 0) return;
  EPOCH_RELEASE();
  ck_epoch_end(t_state.record, nullptr);
  if (t_state.frees >= k_poll_every && may_poll()) poll();
}

bool krel_memory_in_cs() {
  return t_state.depth > 0;
}

void *krel_memory_safe_malloc(size_t size) {
  return allocate(size, nullptr, false);
}

void *krel_memory_safe_calloc(size_t count, size_t size) {
  size_t whole;
  if (__builtin_mul_overflow(count, size, &whole)) krel_fatal("out of memory: %zu x %zu bytes\n", count, size);
  return allocate(whole, nullptr, true);
}

char *krel_memory_safe_strdup(const char *text) {
  size_t size = std::strlen(text) + 1;
  return static_cast<char *>(std::memcpy(allocate(size, nullptr, false), text, size));
}

void *krel_memory_safe_malloc_cleanup(size_t size, void (*cleanup)(void *)) {
  return allocate(size, cleanup, false);
}

void krel_memory_safe_free(void *block) {
  if (block == nullptr) return;
  header_t *header = header_of(block);
  if (header->state != k_live) krel_fatal("block %p freed twice or not from krel_memory\n", block);
  header->state = k_freed;
  EPOCH_RELEASE();
  defer(header);
  if (++t_state.frees >= k_poll_every && may_poll()) {
    adopt_orphans();
    poll();
  }
}

void krel_memory_maintenance_ex(int level) {
  if (!may_poll()) return;
  adopt_orphans();
  // An entry is free to go two epochs after its own: four advances empty a record without readers.
  int polls = level >= 2 ? 4 : 1;
  while (polls-- > 0 && poll()) {
  }
}
