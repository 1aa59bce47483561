#pragma once
// A numeric raw store of real databases in a directory of its own, on a clock that stands still.

#include <gtest/gtest.h>

#include <memory>
#include <span>
#include <vector>

#include "db/raw/nom/factory.h"
#include "db/raw/nom/nom_type.h"
#include "db/raw/raw_shard_factory.h"
#include "db/raw/record/raw_write_error.h"
#include "support/temp_dir.h"
#include "util/concurrency/tolv_timed_mock.h"

class raw_store_c {
 public:
  // A midnight, before which all samples of a test lie.
  static constexpr uint64_t NOW_S = 1700006400, DAY_S = 86400, DAY_MS = DAY_S * 1000;

  explicit raw_store_c(uint64_t granularity_s = DAY_S) {
    velmar_db_admin_rocksdb_init_types(&m_types);
    velmar_db_raw_nom::data_db_params_t db_params;
    db_params.manager = &m_manager;
    db_params.type = velmar_db_raw_nom_create_type(&m_types);
    m_dbs = std::make_unique<velmar_db_raw_nom::factory_c>(db_params);
    const struct timeval now = {static_cast<time_t>(NOW_S), 0};
    static_cast<tolv_timed_mock::runner_c *>(m_timers.get_default_runner())->run_until(now);
    db::raw::raw_shard_factory_params_t params;
    params.basedir = m_dir.path();
    params.description = "test";
    params.granularity_s = granularity_s;
    params.min_delete_age_s = 365 * DAY_S;
    params.db_factory = m_dbs.get();
    params.timer_factory = &m_timers;
    m_shards = std::make_unique<db::raw::raw_shard_factory_c>(params);
    m_shards->scan();
  }
  ~raw_store_c() {
    m_shards.reset();
    velmar_db_admin_rocksdb_uninit(&m_types);
  }

  db::raw::raw_shard_factory_c *shards() { return m_shards.get(); }
  std::shared_ptr<db::raw::raw_shard_c> shard_of(uint64_t ts_ms) {
    return std::dynamic_pointer_cast<db::raw::raw_shard_c>(
        m_shards->find_shard_for(ts_ms, db::raw::CREATE_IF_MISSING).shard);
  }
  // Any order; each goes to the shard of its time.
  void write(std::span<const db::raw::nom_sample_t> samples) {
    for (size_t from = 0, to; from < samples.size(); from = to) {
      const auto shard = shard_of(samples[from].ts_ms);
      ASSERT_TRUE(shard);
      uint64_t start_s, end_s;
      shard->get_times(&start_s, &end_s);
      for (to = from; to < samples.size(); to++)
        if (samples[to].ts_ms < start_s * 1000 || samples[to].ts_ms >= end_s * 1000) break;
      write_to(shard.get(), samples.subspan(from, to - from));
    }
  }
  // To that shard, whatever its span: what a rollup carries over lies before it.
  static void write_to(db::raw::raw_shard_c *shard, std::span<const db::raw::nom_sample_t> samples) {
    struct closure_t : db::raw::is_raw_write_closure_t {
      void on_success() override {}
      void on_error(const db::raw::raw_write_error_c &) override { errors++; }
      void on_complete() override { completes++; }
      int errors = 0, completes = 0;
    } closure;
    shard->write_numeric_asynch(samples, &closure);
    EXPECT_EQ(closure.errors, 0);
    EXPECT_EQ(closure.completes, 1);
  }
  void take_offline(uint64_t ts_ms) {
    EXPECT_TRUE(shard_of(ts_ms)->request_maintenance_mode(db::raw::OFFLINE, std::chrono::seconds(10)).ok);
  }

 private:
  const temp_dir_c m_dir;
  velmar_db_admin_rocksdb_types_t m_types;
  velmar_db_admin_rocksdb_manager_t m_manager;
  std::unique_ptr<velmar_db_raw_nom::factory_c> m_dbs;
  tolv_timed_mock::factory_c m_timers;
  std::unique_ptr<db::raw::raw_shard_factory_c> m_shards;
};
