#pragma once
// Two readers as one: what the primary lacks is asked of the backup. The runs of both come in order of time.

#include "db/ranged/ranged.h"

namespace velmar_db_ranged_dispatch {

class ctx_c : public db::kv::ranged_reader_c {
 public:
  // all_gaps: every empty cell of the primary is a gap, else only those behind its last value. The readers
  // outlive this one.
  ctx_c(const db::kv::ranged_reader_c *primary, const db::kv::ranged_reader_c *backup, bool all_gaps)
      : m_primary(primary), m_backup(backup), m_all_gaps(all_gaps) {}

  // An error of either ends the read: nothing is given in its place.
  db::kv::iter_synch_up find_synch(const db::kv::ranged_c::key_c &key) const override;
  std::optional<uint64_t> get_epoch(const db::kv::ranged_c::key_c &key) const override;
  std::optional<uint64_t> get_apocalypse(const db::kv::ranged_c::key_c &key) const override;

 private:
  const db::kv::ranged_reader_c *const m_primary, *const m_backup;
  const bool m_all_gaps;
};

}  // namespace velmar_db_ranged_dispatch
