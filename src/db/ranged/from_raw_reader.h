#pragma once
// Cells made from raw samples at the time of the read.

#include <memory>

#include "db/ranged/ranged.h"
#include "db/raw/reader.h"
#include "db/surrogate/surrogate.h"

namespace velmar_db_ranged_fromRaw {

// How far back the sample is looked for that gives the first one in a range its rate.
constexpr uint64_t LOOK_BACK_MS = 86400000;

// The range must be whole cells. A known metric gives one run of all of them, those without samples empty.
class ctx_c : public db::kv::ranged_reader_c {
 public:
  ctx_c(std::shared_ptr<db::surrogate::lookup_synch_c> lookup, const db::raw::raw_shard_factory_c *store)
      : m_lookup(std::move(lookup)), m_reader(store) {}

  db::kv::iter_synch_up find_synch(const db::kv::ranged_c::key_c &key) const override;
  std::optional<uint64_t> get_epoch(const db::kv::ranged_c::key_c &key) const override;
  std::optional<uint64_t> get_apocalypse(const db::kv::ranged_c::key_c &key) const override;

 private:
  std::optional<uint64_t> find_id(const metric_locator_sp &locator) const;

  const std::shared_ptr<db::surrogate::lookup_synch_c> m_lookup;
  const db::raw::reader_c m_reader;
};

}  // namespace velmar_db_ranged_fromRaw
