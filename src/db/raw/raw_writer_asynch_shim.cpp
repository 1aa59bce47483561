#include "db/raw/raw_writer_asynch_shim.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "db/raw/nom/nom_sample.h"
#include "db/raw/record/raw_write_error.h"

namespace db::raw {

namespace {

// Counts the parts of one caller's write down to its on_complete.
class parts_c {
 public:
  explicit parts_c(is_raw_write_closure_t *closure) : m_closure(closure) {}
  void add() { m_pending.fetch_add(1, std::memory_order_relaxed); }
  void end() {
    if (m_pending.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    m_closure->on_complete();
    delete this;
  }
  is_raw_write_closure_t *closure() const { return m_closure; }

 private:
  is_raw_write_closure_t *const m_closure;
  std::atomic<size_t> m_pending{1};  // the dispatcher's own
};

// The samples of one shard and turn, from any number of callers.
class shard_group_c : public is_raw_write_closure_t {
 public:
  explicit shard_group_c(shard_sp shard) : m_shard(std::move(shard)) {
    uint64_t start, end;
    m_shard->get_times(&start, &end);
    m_start_ms = start * 1000;
    m_end_ms = end * 1000;
  }
  bool holds(uint64_t ts_ms) const { return ts_ms >= m_start_ms && ts_ms < m_end_ms; }
  // A single run is written where it lies.
  void add_run(parts_c *parts, std::span<const nom_sample_t> run) {
    if (m_owners.empty() || m_owners.back().first != parts) {
      parts->add();
      m_owners.emplace_back(parts, 0);
    }
    m_owners.back().second += run.size();
    if (m_samples.empty() && m_first.empty()) {
      m_first = run;
      return;
    }
    m_samples.insert(m_samples.end(), m_first.begin(), m_first.end());
    m_first = {};
    m_samples.insert(m_samples.end(), run.begin(), run.end());
  }
  void write() {
    m_shard->write_numeric_asynch(m_samples.empty() ? m_first : std::span<const nom_sample_t>(m_samples), this);
  }

  void on_success() override {
    for (const auto &[parts, count] : m_owners) parts->closure()->on_success();
  }
  void on_error(const raw_write_error_c &error) override {
    for (const auto &[parts, count] : m_owners)
      parts->closure()->on_error(raw_write_error_c(error.get_code(), count, error.get_key()));
  }
  void on_complete() override {
    for (const auto &[parts, count] : m_owners) parts->end();
    delete this;
  }

 private:
  const shard_sp m_shard;
  uint64_t m_start_ms, m_end_ms;
  std::span<const nom_sample_t> m_first;  // the only run so far
  std::vector<nom_sample_t> m_samples;
  std::vector<std::pair<parts_c *, size_t>> m_owners;  // whose samples, and how many
};

shard_group_c *find_group(raw_shard_factory_c *factory, std::vector<shard_group_c *> *groups, uint64_t ts_ms) {
  for (shard_group_c *group : *groups)
    if (group->holds(ts_ms)) return group;
  shard_sp shard = factory->find_shard_for(ts_ms, CREATE_IF_MISSING).shard;
  if (!shard) return nullptr;
  groups->push_back(new shard_group_c(std::move(shard)));
  return groups->back();
}

// Cuts a caller's samples into runs of one shard.
void spread(raw_shard_factory_c *factory, std::span<const nom_sample_t> samples, parts_c *parts,
            std::vector<shard_group_c *> *groups) {
  for (size_t at = 0; at < samples.size();) {
    shard_group_c *group = find_group(factory, groups, samples[at].ts_ms);
    if (!group) {
      parts->closure()->on_error(raw_write_error_c(RAW_WRITE_ERROR_NO_SHARD, 1));
      at++;
      continue;
    }
    size_t end = at + 1;
    while (end < samples.size() && group->holds(samples[end].ts_ms)) end++;
    group->add_run(parts, samples.subspan(at, end - at));
    at = end;
  }
}

// One caller's entries of one shard.
class entries_part_c : public is_raw_write_closure_t {
 public:
  explicit entries_part_c(parts_c *parts) : m_parts(parts) { parts->add(); }
  void on_success() override { m_parts->closure()->on_success(); }
  void on_error(const raw_write_error_c &error) override { m_parts->closure()->on_error(error); }
  void on_complete() override {
    m_parts->end();
    delete this;
  }

 private:
  parts_c *const m_parts;
};

uint64_t time_of(const raw_entry_c &entry) {
  return static_cast<uint64_t>(entry.get_key()->get_orig_key().get_timestamp().count());
}

}  // namespace

void raw_writer_asynch_shim_c::write_numeric_asynch(std::span<const nom_sample_t> samples,
                                                    is_raw_write_closure_t *closure) {
  {
    const krel_lock_c lock(m_mutex);
    m_waiting.push_back({samples, closure});
    if (std::exchange(m_scheduled, true)) return;
  }
  krelev_jobq_run(m_jobq, [this] { drain(); });
}

void raw_writer_asynch_shim_c::drain() {
  std::vector<batch_t> batches;
  for (;;) {
    {
      const krel_lock_c lock(m_mutex);
      batches.clear();
      batches.swap(m_waiting);
      if (batches.empty()) {
        m_scheduled = false;
        return;
      }
    }
    std::vector<shard_group_c *> groups;
    std::vector<parts_c *> callers;
    for (const batch_t &batch : batches) {
      callers.push_back(new parts_c(batch.closure));
      spread(m_factory, batch.samples, callers.back(), &groups);
    }
    for (shard_group_c *group : groups) group->write();
    for (parts_c *parts : callers) parts->end();
  }
}

void raw_writer_asynch_shim_c::write_set_asynch(raw_entry_c *entries, size_t count,
                                                is_raw_write_closure_t *closure) {
  krelev_jobq_run(m_jobq, [this, entries, count, closure] {
    asynch_entry_batch_write(m_factory, entries, count, closure);
  });
}

void asynch_entry_batch_write(raw_shard_factory_c *factory, raw_entry_c *entries, size_t count,
                              is_raw_write_closure_t *closure) {
  auto *parts = new parts_c(closure);
  std::sort(entries, entries + count,
            [](const raw_entry_c &a, const raw_entry_c &b) { return time_of(a) < time_of(b); });
  for (size_t at = 0; at < count;) {
    const found_shard_t found = factory->find_shard_for(time_of(entries[at]), CREATE_IF_MISSING);
    if (!found.shard) {
      closure->on_error(raw_write_error_c(RAW_WRITE_ERROR_NO_SHARD, 1, *entries[at].get_key()));
      at++;
      continue;
    }
    const raw_entry_c *end = std::partition_point(
        entries + at, entries + count, [&](const raw_entry_c &e) { return time_of(e) < found.end_s * 1000; });
    const auto part = static_cast<size_t>(end - (entries + at));
    found.shard->write_set_asynch(entries + at, part, new entries_part_c(parts));
    at += part;
  }
  parts->end();
}

}  // namespace db::raw
