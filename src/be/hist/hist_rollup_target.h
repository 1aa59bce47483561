#pragma once
// Writes the slots of one period into its shards.

#include "be/hist/hist_rollup_config.h"
#include "db/raw/nom/raw_interfaces.h"
#include "db/raw/rollup/rollup_target.h"

class hist_rollup_target_c : public db::raw::rollup_target_c {
 public:
  hist_rollup_target_c(const hist_rollup_config_t &config, db::raw::raw_writer_asynch_c *writer)
      : m_config(config), m_writer(writer) {}
  unsigned get_period_s() const override { return m_config.period; }
  bool write_numeric(const metric_locator_sp &, uint64_t, std::span<const nnt_multitype>) override {
    return false;
  }
  // A slot takes the place of what was there. Those that the retention would remove at once are left out.
  bool write_histograms(const metric_locator_sp &locator,
                        std::span<const db::raw::histogram_cell_t> cells) override;

 private:
  bool write_some(const metric_locator_sp &locator, std::span<const db::raw::histogram_cell_t> cells);

  const hist_rollup_config_t m_config;
  db::raw::raw_writer_asynch_c *const m_writer;
};
