#include "platform/krel/event/krelev_event.h"

#include <string>
#include <unordered_map>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/thread_annotations.h"
#include "platform/krel/event/krelev_loop.h"
#include "platform/krel/event/krelev_pool.h"

namespace {

struct names_t {
  krel_shared_mutex_c mutex;
  std::unordered_map<krelev_callback_t, std::string> of_callback GUARDED_BY(mutex);
};

names_t &names() {
  static names_t *n = new names_t;
  return *n;
}

}  // namespace

krelev_event_s::krelev_event_s(krelev_kind_e kind_, int mask_, krelev_callback_t callback_, void *closure_)
    : callback(callback_), closure(closure_), loop(krelev_default_owner()), mask(mask_), kind(kind_) {
  krel_assert(callback != nullptr);
}

void krelev_name_callback(const char *name, krelev_callback_t callback) {
  krel_exclusive_lock_c lock(names().mutex);
  names().of_callback.try_emplace(callback, name);  // the first name stays: pointers to it are about
}

const char *krelev_name_for_callback(krelev_callback_t callback) {
  krel_shared_lock_c lock(names().mutex);
  auto found = names().of_callback.find(callback);
  return found == names().of_callback.end() ? "unnamed" : found->second.c_str();
}

void *krelev_get_closure(krelev_event_t event) {
  return krelev_event_of(event)->closure;
}

void krelev_set_closure(krelev_event_t event, void *closure) {
  krelev_event_of(event)->closure = closure;
}

krelev_callback_t krelev_get_callback(krelev_event_t event) {
  return krelev_event_of(event)->callback;
}

int krelev_get_mask(krelev_event_t event) {
  return krelev_event_of(event)->mask;
}

void krelev_add(krelev_event_t event) {
  switch (krelev_event_of(event)->kind) {
    case krelev_kind_e::fd:
      return krelev_fd_add(krelev_event_of(event));
    case krelev_kind_e::timer:
      return krelev_timer_add(event);
    case krelev_kind_e::recurrent:
      return krelev_recurrent_add(krelev_event_of(event));
    case krelev_kind_e::asynch:
      return krelev_add_asynch(nullptr, event);
  }
}

void krelev_free(krelev_event_t event) {
  switch (krelev_event_of(event)->kind) {
    case krelev_kind_e::fd:
      return krelev_fd_free(krelev_event_of(event));
    case krelev_kind_e::timer:
      return krelev_timer_free(event);
    case krelev_kind_e::recurrent:
      return krelev_recurrent_free(krelev_event_of(event));
    case krelev_kind_e::asynch:
      return krelev_asynch_free(krelev_event_of(event));
  }
}
