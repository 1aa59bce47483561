#include "db/raw/reader.h"

#include <algorithm>

#include "db/raw/record/raw_entry.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev.h"
#include "util/concurrency/single_barrier.h"

namespace db::raw {

namespace {

// One shard's part of a read. The shard calls `found` for each position until it is closed.
struct walk_t {
  uint64_t start_ms, end_ms;              // of the read
  uint64_t shard_start_ms, shard_end_ms;  // of the shard
  const reader_c::sample_f *on_sample;
  const char *metric;
  std::string error;
  bool stopped = false;  // by the receiver, or past the end
  util::concurrency::single_barrier_c closed{1};

  void close(raw_iter_manager_asynch_c *manager, raw_iter_reader_asynch_c *reader) {
    if (manager) manager->close_asynch(reader);
    closed.count_down();
  }
  void found(raw_iter_manager_asynch_c *manager, raw_iter_reader_asynch_c *reader);
};

void walk_t::found(raw_iter_manager_asynch_c *manager, raw_iter_reader_asynch_c *reader) {
  if (!reader->is_valid()) {
    if (reader->get_error().is_valid()) error = reader->get_error().get_text();
    return close(manager, reader);
  }
  const auto ts_ms = static_cast<uint64_t>(reader->get_key().get_orig_key().get_timestamp().count());
  if (ts_ms >= end_ms) {
    stopped = true;
    return close(manager, reader);
  }
  if (ts_ms < shard_start_ms || ts_ms >= shard_end_ms) {
    krel_log(
        krel_error,
        "timeshard read data for metric %s had invalid timestamp (ts %ld shard end %ld, shard start %ld)\n",
        metric, static_cast<long>(ts_ms), static_cast<long>(shard_end_ms), static_cast<long>(shard_start_ms));
    error = "a sample lies outside its shard";
    return close(manager, reader);
  }
  if (!(*on_sample)(ts_ms, reader->take_value())) {
    stopped = true;
    return close(manager, reader);
  }
  manager->next_asynch(reader);
}

}  // namespace

bool reader_c::read_range(const metric_locator_sp &locator, uint64_t surrogate_id, uint64_t start_ms,
                          uint64_t end_ms, const sample_f &on_sample, std::string *error,
                          std::string *offline) const {
  krel_assert(!krelev_in_loop());
  uint64_t at_ms = start_ms;
  while (at_ms < end_ms) {
    const shard_sp shard = m_factory->get_cache().next_at_or_after(at_ms / 1000);
    if (!shard) return true;
    uint64_t start_s, end_s;
    shard->get_times(&start_s, &end_s);
    if (start_s * 1000 >= end_ms) return true;
    at_ms = std::max(at_ms, start_s * 1000);
    if (shard->maintenance_mode() != ONLINE) {
      if (offline) *offline += (offline->empty() ? "" : ", ") + shard->get_dir_name();
      at_ms = end_s * 1000;
      continue;
    }
    db::surrogate::key_c key;
    key.set_data(locator, std::chrono::milliseconds(static_cast<int64_t>(at_ms)));
    raw_key_c raw_key;
    raw_key.set_data(surrogate_id, std::move(key));
    walk_t walk{start_ms,
                end_ms,
                start_s * 1000,
                end_s * 1000,
                &on_sample,
                velmar_metric_locator_get_name_with_tags(locator.get()),
                {}};
    shard->find_asynch(
        raw_key, SEEK_NEXT_ON_MISS,
        [](raw_iter_manager_asynch_c *manager, raw_iter_reader_asynch_c *reader, void *closure) {
          static_cast<walk_t *>(closure)->found(manager, reader);
        },
        &walk);
    walk.closed.wait();
    if (!walk.error.empty()) {
      *error = walk.error;
      return false;
    }
    if (walk.stopped) return true;
    at_ms = end_s * 1000;
  }
  return true;
}

}  // namespace db::raw
