#include "db/raw/reader.h"

#include <algorithm>

#include "db/raw/record/raw_entry.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev.h"
#include "util/concurrency/single_barrier.h"

namespace db::raw {

namespace {

constexpr uint64_t TIME_END_MS = uint64_t{1} << 53;  // behind every shard
constexpr const char *WRONG_TIME = "a sample lies outside its shard";

void log_wrong_time(const char *metric, uint64_t ts_ms, uint64_t shard_start_ms, uint64_t shard_end_ms) {
  krel_log(krel_error,
           "timeshard read data for metric %s had invalid timestamp (ts %ld shard end %ld, shard start %ld)\n",
           metric, static_cast<long>(ts_ms), static_cast<long>(shard_end_ms),
           static_cast<long>(shard_start_ms));
}

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
    log_wrong_time(metric, ts_ms, shard_start_ms, shard_end_ms);
    error = WRONG_TIME;
    return close(manager, reader);
  }
  if (!(*on_sample)(ts_ms, reader->take_value())) {
    stopped = true;
    return close(manager, reader);
  }
  manager->next_asynch(reader);
}

}  // namespace

bool reader_c::for_each_part(uint64_t start_ms, uint64_t end_ms, std::string *offline,
                             const std::function<bool(const part_t &)> &function) const {
  krel_assert(!krelev_in_loop());
  for (uint64_t at_ms = start_ms; at_ms < end_ms;) {
    const shard_sp shard = m_factory->get_cache().next_at_or_after(at_ms / 1000);
    if (!shard) return true;
    uint64_t start_s, end_s;
    shard->get_times(&start_s, &end_s);
    if (start_s * 1000 >= end_ms) return true;
    at_ms = std::max(at_ms, start_s * 1000);
    if (shard->maintenance_mode() != ONLINE) {
      if (offline) *offline += (offline->empty() ? "" : ", ") + shard->get_dir_name();
    } else if (!function({shard, start_s * 1000, end_s * 1000, at_ms})) {
      return false;
    }
    at_ms = end_s * 1000;
  }
  return true;
}

bool reader_c::read_range(const metric_locator_sp &locator, uint64_t surrogate_id, uint64_t start_ms,
                          uint64_t end_ms, const sample_f &on_sample, std::string *error,
                          std::string *offline) const {
  error->clear();
  for_each_part(start_ms, end_ms, offline, [&](const part_t &part) {
    db::surrogate::key_c key;
    key.set_data(locator, std::chrono::milliseconds(static_cast<int64_t>(part.at_ms)));
    raw_key_c raw_key;
    raw_key.set_data(surrogate_id, std::move(key));
    walk_t walk{start_ms,
                end_ms,
                part.shard_start_ms,
                part.shard_end_ms,
                &on_sample,
                velmar_metric_locator_get_name_with_tags(locator.get()),
                {}};
    part.shard->find_asynch(
        raw_key, SEEK_NEXT_ON_MISS,
        [](raw_iter_manager_asynch_c *manager, raw_iter_reader_asynch_c *reader, void *closure) {
          static_cast<walk_t *>(closure)->found(manager, reader);
        },
        &walk);
    walk.closed.wait();
    *error = std::move(walk.error);
    return error->empty() && !walk.stopped;
  });
  return error->empty();
}

bool reader_c::read_numeric(const metric_locator_sp &locator, uint64_t surrogate_id, uint64_t start_ms,
                            uint64_t end_ms, const raw_reader_asynch_c::numeric_samples_f &on_samples,
                            std::string *error, std::string *offline) const {
  error->clear();
  for_each_part(start_ms, end_ms, offline, [&](const part_t &part) {
    bool go_on = true;
    const auto checked = [&](std::span<const nom_sample_t> samples) {
      const auto wrong = std::partition_point(
          samples.begin(), samples.end(), [&](const nom_sample_t &s) { return s.ts_ms < part.shard_end_ms; });
      go_on = wrong == samples.begin() || on_samples({samples.begin(), wrong});
      if (!go_on || wrong == samples.end()) return go_on;
      log_wrong_time(velmar_metric_locator_get_name_with_tags(locator.get()), wrong->ts_ms, part.shard_start_ms,
                     part.shard_end_ms);
      *error = WRONG_TIME;
      return false;
    };
    std::string failed;
    if (!part.shard->read_numeric(surrogate_id, part.at_ms, end_ms, checked, &failed)) *error = failed;
    return go_on && error->empty();
  });
  return error->empty();
}

std::optional<nom_sample_t> reader_c::find_last_number(uint64_t surrogate_id, uint64_t from_ms,
                                                       uint64_t before_ms, std::string *error) const {
  using nulls_e = raw_reader_asynch_c::nulls_e;
  std::optional<nom_sample_t> last;
  error->clear();
  // up to the shard that begins there: what is older than a shard was carried into it by the one before
  for_each_part(from_ms, before_ms + 1, nullptr, [&](const part_t &part) {
    const auto found =
        part.shard->find_last_numeric(surrogate_id, from_ms, before_ms, nulls_e::pass_over, error);
    if (found && (!last || found->ts_ms >= last->ts_ms)) last = found;
    return error->empty();
  });
  return error->empty() ? last : std::nullopt;
}

std::optional<uint64_t> reader_c::find_first_time(uint64_t surrogate_id, std::string *error) const {
  std::optional<uint64_t> first;
  error->clear();
  for_each_part(0, TIME_END_MS, nullptr, [&](const part_t &part) {
    part.shard->read_numeric(
        surrogate_id, part.shard_start_ms, part.shard_end_ms,
        [&](std::span<const nom_sample_t> samples) {
          first = samples.front().ts_ms;
          return false;
        },
        error);
    return !first && error->empty();
  });
  return error->empty() ? first : std::nullopt;
}

std::optional<uint64_t> reader_c::find_last_time(uint64_t surrogate_id, std::string *error) const {
  krel_assert(!krelev_in_loop());
  error->clear();
  for (uint64_t before_s = TIME_END_MS / 1000; before_s > 0;) {
    const shard_sp shard = m_factory->get_cache().prev_at_or_before(before_s - 1);
    if (!shard) break;
    uint64_t start_s, end_s;
    shard->get_times(&start_s, &end_s);
    before_s = start_s;
    if (shard->maintenance_mode() != ONLINE) continue;
    const auto found = shard->find_last_numeric(surrogate_id, start_s * 1000, end_s * 1000,
                                                raw_reader_asynch_c::nulls_e::take, error);
    if (!error->empty()) return {};
    if (found) return found->ts_ms;
  }
  return {};
}

}  // namespace db::raw
