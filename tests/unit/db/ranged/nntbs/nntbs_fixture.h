#pragma once
// The store of rollups on a directory and a configuration of its own, with metrics that carry their ids.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "db/ranged/nntbs/nntbs.h"
#include "db/ranged/nntbs/nntbs_storage.h"
#include "db/surrogate/surrogate.h"
#include "platform/krel/base/krel_conf.h"
#include "support/surrogate_metrics.h"
#include "support/temp_dir.h"

namespace db::ranged::nntbs {

constexpr uint64_t T0 = 1'700'000'000 / 86400 * 86400;  // a midnight

inline nnt_multitype cell_of(uint64_t value, uint32_t count = 1) {
  nnt_multitype cell{};
  cell.type = NNT_TYPE_UINT64;
  cell.count = count;
  cell.value.v_uint64 = value;
  cell.derivative = static_cast<float>(value);
  return cell;
}
inline bool same(const nnt_multitype &a, const nnt_multitype &b) {
  return memcmp(&a, &b, sizeof a) == 0;
}

// Knows the metrics that were written by name.
class known_metrics_c final : public surrogate::skeleton_decorator_lookup_synch_c,
                              public surrogate::writer_asynch_c,
                              public surrogate::value_manager_c,
                              public surrogate::value_reader_c {
 public:
  known_metrics_c() : skeleton_decorator_lookup_synch_c(nullptr) {}
  std::optional<uint64_t> find(const metric_locator_sp &locator) override {
    const auto found = ids.find(name_of(locator));
    return found == ids.end() ? std::nullopt : std::optional(found->second);
  }
  void for_each_surrogate(bool (*callback)(const metric_locator_sp &, void *), void *closure) override {
    for (const metric_locator_sp &locator : stored)
      if (!callback(locator, closure)) return;
  }
  void write_surrogate_set_asynch(surrogate::write_entry_c *entries, size_t, surrogate::wrote_cb_f wrote,
                                  surrogate::write_error_cb_f failed, void *closure) override {
    const auto &locator = entries[0].get_key().get_metric_locator();
    if (fails) {
      failed(entries[0].get_key(), nullptr, closure);
      m_value.no_data();
    } else {
      const uint64_t id = ids.emplace(name_of(locator), 5000 + ids.size()).first->second;
      m_value.set_data(id, entries[0].get_key());
    }
    wrote(this, this, closure);
  }
  surrogate::value_c *get_values() override { return &m_value; }
  void **get_passthroughs() override { return nullptr; }
  size_t get_count() const override { return 1; }
  metric_locator_sp get_canonical_locator(uint64_t) override { return {}; }
  void free_values(surrogate::value_reader_c *) override {}

  std::map<std::string, uint64_t> ids;
  std::vector<metric_locator_sp> stored;
  bool fails = false;

 private:
  surrogate::value_c m_value;
};

class nntbs_store_c {
 public:
  // `shards` is what stands in <nntbs>.
  explicit nntbs_store_c(const std::string &shards, const std::string &attributes = "") {
    open(shards, attributes);
  }
  ~nntbs_store_c() { close(); }

  void open(const std::string &shards, const std::string &attributes = "") {
    krel_assert(
        krel_conf_load_text("<velmar><nntbs " + attributes + ">" + shards + "</nntbs></velmar>", "test.conf"));
    for (const auto &section : krel_conf_get_sections_read(KREL_CONF_ROOT, "//nntbs/shard")) {
      int32_t period = 0;
      krel_conf_get_int32(section, "@period", &period);
      m_configs.push_back(std::make_unique<rollup_config_t>());
      m_configs.back()->period = static_cast<unsigned>(period);
      set.configs.push_back(m_configs.back().get());
    }
    rollup_config_init(&set);
    metrics = std::make_shared<known_metrics_c>();
    nntbs_init(path(), &set, metrics, metrics);
  }
  void close() {
    nntbs_close();
    set.configs.clear();
    m_configs.clear();
  }
  std::string path() const { return m_dir / "nntbs"; }
  rollup_shard_mgr_c &mgr() const { return *nntbs_get_shard_mgr(); }
  std::string shard_path(uint64_t ts, int32_t period) const {
    return mgr().open(ts, period, shard_modes_c(ONLINE) | OFFLINE | OFFLINE_CORRUPTED).second->path();
  }

  static std::vector<nnt_multitype> get(uint64_t offset, const metric_locator_sp &metric, unsigned period,
                                        size_t count, std::string *error = nullptr) {
    std::vector<nnt_multitype> cells(count);
    if (nntbs_get_range(offset, metric, period, static_cast<int64_t>(count), cells.data(), nullptr, nullptr,
                        error) != count)
      cells.clear();
    return cells;
  }
  static int put(uint64_t offset, const metric_locator_sp &metric, unsigned period,
                 const std::vector<nnt_multitype> &cells, absent_cells_e absent = absent_cells_e::clear) {
    return nntbs_put_range(offset * 1000, metric, cells.data(), cells.size(), period, absent);
  }

  rollup_config_set_t set;
  std::shared_ptr<known_metrics_c> metrics;

 private:
  temp_dir_c m_dir;
  std::vector<std::unique_ptr<rollup_config_t>> m_configs;
};

}  // namespace db::ranged::nntbs
