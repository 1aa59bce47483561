#pragma once
// Metrics that this node has met, found by what a sample says of them. Whatever is derived from a metric's
// name (canonical text, tags, hash, owners, surrogate) is derived when it is first met; a further sample
// costs one hash and one comparison, takes no lock and allocates nothing.
//
// Reading needs an open memory section, in which the entries found stay valid. A metric that was erased
// from the surrogate database has lost its canonical mark and counts as not known.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/krel/base/thread_annotations.h"
#include "util/metric_locator.h"

struct topo_config;

namespace be::raw {

constexpr int32_t ANY_ACCOUNT = INT32_MIN;  // who asks does not know the account

// The grammar that a name is written in: the same bytes may name one metric in the one, another in the other.
enum class name_form_e : uint8_t { metric, graphite };

// What a sample says of its metric.
struct metric_name_t {
  const uint8_t *uuid;  // 16 bytes
  int32_t account_id;
  std::string_view name;  // as it was sent
  name_form_e form = name_form_e::metric;
};

class known_metrics_c {
 public:
  struct entry_t {
    uint64_t hash;
    velmar_metric_locator_t *locator;  // canonical, with a surrogate id; the entry holds a reference
    // The newest activity unit (300 s) that is known to be recorded and on disk; 0 none.
    std::atomic<uint32_t> recorded_unit;
    // Under which topology the metric is owned here; another one in force: work it out again.
    std::atomic<const topo_config *> owned_under;
    uint32_t alias_size;  // the name as sent, when it is not the canonical one; its bytes follow
    name_form_e form;     // of the alias
    const char *alias() const { return reinterpret_cast<const char *>(this + 1); }
  };

  known_metrics_c();
  ~known_metrics_c();
  known_metrics_c(const known_metrics_c &) = delete;
  known_metrics_c &operator=(const known_metrics_c &) = delete;

  entry_t *find(const metric_name_t &name) const;
  // Remembers the canonical locator under the name as it was sent. From any thread.
  void insert(const metric_name_t &name, velmar_metric_locator_t *canonical);
  size_t size() const { return m_size.load(std::memory_order_relaxed); }

 private:
  struct table_t {
    size_t mask;
    size_t used;  // by the shard's writer
    std::atomic<entry_t *> slots[];
  };
  struct shard_t {
    krel_mutex_c mutex;  // writers; readers go by the published table
    std::atomic<table_t *> table{nullptr};
  };
  static constexpr size_t SHARDS = 64;
  static constexpr size_t FIRST_SLOTS = 64;
  // Names that are not canonical, above one for each metric; beyond, they are just slower.
  static constexpr size_t SPARE_ALIASES = 1000000;

  static uint64_t hash_of(const metric_name_t &name);
  static bool matches(const entry_t &entry, uint64_t hash, const metric_name_t &name);
  static table_t *make_table(size_t slots);
  static void grow(shard_t *shard);
  shard_t &shard_for(uint64_t hash) { return m_shards[hash >> 58]; }
  const shard_t &shard_for(uint64_t hash) const { return m_shards[hash >> 58]; }

  std::array<shard_t, SHARDS> m_shards;
  std::atomic<size_t> m_size{0}, m_aliases{0};
};

}  // namespace be::raw
