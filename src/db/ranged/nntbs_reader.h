#pragma once
// Cells from the rollup store: of a period that serves the span, several of them merged into one where the
// span is longer; imported files are asked before the store.

#include "db/ranged/nntbs/rollup_config.h"
#include "db/ranged/ranged.h"

namespace velmar::ranged::from::whisper {
class ctx_c;
}

namespace db::ranged::nntbs {

// What this reader needs of the rollup store; times in seconds. The default is the node's store.
class cell_source_c {
 public:
  virtual ~cell_source_c() = default;
  // Like nntbs_get_range.
  virtual size_t get_range(uint64_t offset, const metric_locator_sp &locator, unsigned period, int64_t count,
                           nnt_multitype *v, std::string *error) const;
  // Like nntbs_get_metadata.
  virtual int get_metadata(const metric_locator_sp &locator, unsigned period, uint64_t *epoch,
                           uint64_t *apocalypse) const;
};
const cell_source_c &node_cell_source();

struct reader_params_t {
  const rollup_config_set_t *rollups = nullptr;
  const cell_source_c *source = &node_cell_source();
  const velmar::ranged::from::whisper::ctx_c *whisper = nullptr;  // null: none
  bool can_coarsen =
      false;  // where no period serves the span, the smallest one that is a multiple of it will do
};

class ctx_c : public db::kv::ranged_reader_c {
 public:
  explicit ctx_c(const reader_params_t &params) : m_params(params) {}

  db::kv::iter_synch_up find_synch(const db::kv::ranged_c::key_c &key) const override;
  std::optional<uint64_t> get_epoch(const db::kv::ranged_c::key_c &key) const override;
  std::optional<uint64_t> get_apocalypse(const db::kv::ranged_c::key_c &key) const override;

 private:
  const rollup_config_t *find_config(const db::kv::ranged_c::key_c &key) const;
  bool get_times(const db::kv::ranged_c::key_c &key, uint64_t *epoch, uint64_t *apocalypse) const;

  const reader_params_t m_params;
};

// Source cells that are in memory at once while they are merged.
constexpr size_t MAX_READ_FOR_COLLAPSE = 8192;

// Fills `request_agg_count` zeroed cells of cfg.period * collapse seconds; their number on return. False with
// the reason when the store holds damaged cells of the range.
bool read_and_accumulate_nntbs(const reader_params_t &params, const metric_locator_sp &locator,
                               uint64_t start_s, uint64_t request_agg_count, unsigned collapse,
                               nnt_multitype *v, const rollup_config_t &cfg, size_t max_read_for_collapse,
                               size_t *read_count, std::string *error);

}  // namespace db::ranged::nntbs
