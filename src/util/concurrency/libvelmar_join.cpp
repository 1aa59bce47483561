#include "util/concurrency/libvelmar_join.h"

#include <atomic>

#include "platform/krel/base/krel_log.h"

struct libvelmar_join_s {
  std::atomic<uint32_t> outstanding{1};
  libvelmar_join_t parent;
  libvelmar_join_complete_f complete;
  void *closure;
};

libvelmar_join_t libvelmar_join_create(libvelmar_join_complete_f complete, void *closure) {
  return libvelmar_join_create_child(nullptr, complete, closure);
}

libvelmar_join_t libvelmar_join_create_child(libvelmar_join_t parent, libvelmar_join_complete_f complete,
                                             void *closure) {
  if (parent) libvelmar_join_raise(parent, 1);
  return new libvelmar_join_s{.parent = parent, .complete = complete, .closure = closure};
}

void libvelmar_join_raise(libvelmar_join_t joiner, uint32_t amount) {
  const uint32_t before = joiner->outstanding.fetch_add(amount, std::memory_order_relaxed);
  krel_assert(before > 0);
  krel_assert(amount <= UINT32_MAX - before);
}

void libvelmar_join_one(libvelmar_join_t joiner) {
  while (joiner) {
    const uint32_t before = joiner->outstanding.fetch_sub(1, std::memory_order_acq_rel);
    krel_assert(before > 0);
    if (before > 1) return;
    const libvelmar_join_t parent = joiner->parent;
    if (joiner->complete) joiner->complete(joiner->closure);
    delete joiner;
    joiner = parent;
  }
}

void libvelmar_join_commit(libvelmar_join_t joiner) {
  libvelmar_join_one(joiner);
}
