#include "db/surrogate/surrogate.h"

#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev.h"
#include "util/concurrency/single_barrier.h"
#include "util/oil.h"

namespace db::surrogate {

namespace {

constexpr int64_t MS_IN_S = 1000;

struct synch_write_t {
  wrote_cb_f wrote_cb;
  write_error_cb_f error_cb;
  void *closure;
  util::concurrency::single_barrier_c done{1};
};

}  // namespace

void writer_asynch_c::write_surrogate_set_synch(writer_asynch_c *writer, write_entry_c *entries, size_t count,
                                                wrote_cb_f wrote_cb, write_error_cb_f error_cb, void *closure) {
  krel_assert(!krelev_in_loop());
  synch_write_t write{wrote_cb, error_cb, closure};
  writer->write_surrogate_set_asynch(
      entries, count,
      [](value_manager_c *manager, value_reader_c *reader, void *c) {
        auto *w = static_cast<synch_write_t *>(c);
        w->wrote_cb(manager, reader, w->closure);
        w->done.count_down();
      },
      [](const key_c &key, void *passthrough, void *c) {
        const auto *w = static_cast<synch_write_t *>(c);
        if (w->error_cb) w->error_cb(key, passthrough, w->closure);
      },
      &write);
  write.done.wait();
}

bool needs_update(const velmar_metric_locator_t *incoming, const velmar_metric_locator_t *canonical) {
  const auto egress = velmar_metric_locator_get_egress_function(incoming);
  return velmar_metric_locator_get_type(incoming) != velmar_metric_locator_get_type(canonical) ||
         velmar_metric_locator_get_account_id(incoming) != velmar_metric_locator_get_account_id(canonical) ||
         (egress != EGRESS_FUNCTION_UNSET && egress != velmar_metric_locator_get_egress_function(canonical));
}

uint8_t process_update(write_entry_c *entry, const metric_locator_sp &incoming,
                       const metric_locator_sp &canonical) {
  key_c &key = entry->get_key();
  const bool forced = key.is_force_write();
  uint8_t result = 0;
  if (incoming != canonical) {
    // the incoming list is copied first: two activity locks are never held together
    if (oil_list_t *incoming_oil = velmar_metric_locator_get_activity_clone(incoming.get())) {
      if (velmar_metric_locator_merge_oil(canonical.get(), incoming_oil)) result |= UPDATED_ACTIVITY;
      oil_free(incoming_oil);
    }
    const int64_t ms = key.get_timestamp().count();
    const int64_t seconds = ms >= 0 ? ms / MS_IN_S : 0;
    if (seconds != 0 && velmar_metric_locator_record_activity(canonical.get(), static_cast<uint64_t>(seconds)))
      result |= UPDATED_ACTIVITY;
    if (forced || needs_update(incoming.get(), canonical.get())) {
      velmar_metric_locator_set_accountid(canonical.get(),
                                          velmar_metric_locator_get_account_id(incoming.get()));
      velmar_metric_locator_set_type(canonical.get(), velmar_metric_locator_get_type(incoming.get()));
      const auto egress = velmar_metric_locator_get_egress_function(incoming.get());
      if (egress != EGRESS_FUNCTION_UNSET) velmar_metric_locator_set_egress_function(canonical.get(), egress);
      result |= UPDATED_METADATA;
    }
  }
  key_c replaced;
  replaced.set_data(canonical, key.get_timestamp(), key.get_lower_bound(), key.get_upper_bound());
  replaced.set_force_write(forced);
  entry->set_key(replaced);
  return forced ? UPDATED_ACTIVITY | UPDATED_METADATA : result;
}

}  // namespace db::surrogate

namespace {

struct globals_t {
  std::shared_ptr<db::surrogate::lookup_synch_c> lookup_synch;
  std::shared_ptr<db::surrogate::lookup_asynch_c> lookup_asynch;
  std::shared_ptr<db::surrogate::writer_asynch_c> writer_asynch;
};

globals_t &globals() {
  static globals_t g;
  return g;
}

}  // namespace

void velmar_global_surrogate_publish(std::shared_ptr<db::surrogate::lookup_synch_c> lookup_synch,
                                     std::shared_ptr<db::surrogate::lookup_asynch_c> lookup_asynch,
                                     std::shared_ptr<db::surrogate::writer_asynch_c> writer_asynch) {
  globals() = {std::move(lookup_synch), std::move(lookup_asynch), std::move(writer_asynch)};
}

std::shared_ptr<db::surrogate::lookup_synch_c> velmar_global_surrogate_get_lookup_synch() {
  return globals().lookup_synch;
}
std::shared_ptr<db::surrogate::writer_asynch_c> velmar_global_surrogate_get_writer_asynch() {
  return globals().writer_asynch;
}
std::shared_ptr<db::surrogate::lookup_asynch_c> velmar_global_surrogate_get_lookup_asynch() {
  if (!globals().lookup_asynch) krel_fatal("The surrogate is not currently configured\n");
  return globals().lookup_asynch;
}

uint64_t velmar_global_surrogate_get_synch(const metric_locator_sp &locator) {
  if (const uint64_t id = velmar_metric_locator_get_surrogate_id(locator.get())) return id;
  const auto &lookup = globals().lookup_synch;
  return lookup ? lookup->find(locator).value_or(db::surrogate::ID_NONE) : db::surrogate::ID_NONE;
}

metric_locator_sp velmar_global_surrogate_reverse_get_synch(uint64_t id) {
  const auto &lookup = globals().lookup_synch;
  return lookup ? lookup->find_reverse(id) : nullptr;
}

void velmar_surrogate_writer_checkpoint() {
  if (globals().writer_asynch) globals().writer_asynch->checkpoint();
}
