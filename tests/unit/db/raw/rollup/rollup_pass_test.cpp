// A pass over a numeric shard: its cells, what it carries over, what it passes over, and how it goes on.

#include <gtest/gtest.h>
#include <rocksdb/c.h>

#include <fstream>

#include "db/admin/rocksdb_error.h"
#include "db/raw/reader.h"
#include "rollup_fixture.h"
#include "rollup_samples.h"
#include "unit/db/raw/nom/nom_support.h"

namespace db::raw {
namespace {

constexpr uint64_t START = NOW - DAY;  // of the shard that is rolled up

class rollup_pass : public testing::Test {
 protected:
  rollup_pass() {
    init_private_nan();
    for (uint64_t id = 1; id <= 40; id++) lookup.add(id);
    open();
  }
  ~rollup_pass() override { rollup_hooks_clear(); }
  void open(const store_options_t &options = {}) {
    store.reset();
    store = std::make_unique<store_c>(dir.path(), &lookup,
                                      std::vector<rollup_target_c *>{&minutes, &fives, &hours, &days}, options);
  }
  void expect_all_cells(const std::vector<nom_sample_t> &samples, uint64_t from_s = START) {
    for (const fake_target_c *target : {&minutes, &fives, &hours, &days})
      expect_cells(*target, expected_cells(samples, target->get_period_s(), from_s * 1000));
  }
  nom_rollup_progress_c &progress(uint64_t at_s = START) { return store->shard(at_s)->get_rollup_progress(); }
  std::string file(const std::string &name) { return store->shard(START)->get_dir_name() + "/" + name; }
  void put(std::string_view key, std::string_view record, uint64_t id) {
    const auto &handle = store->db(START).get_handle();
    rocksdb_writeoptions_t *options = rocksdb_writeoptions_create();
    velmar_db_admin::rocksdb_error_c error;
    rocksdb_put_cf(handle.db, options, handle.column_family_handles[velmar_db_raw_nom::family_of(id)],
                   key.data(), key.size(), record.data(), record.size(), error.ptr());
    rocksdb_writeoptions_destroy(options);
    ASSERT_FALSE(error);
    store->shard(START)->mark_dirty();
  }

  const temp_dir_c dir;
  fake_lookup_c lookup;
  fake_target_c minutes{60}, fives{300}, hours{3600}, days{86400};
  std::unique_ptr<store_c> store;
};

TEST_F(rollup_pass, gives_the_cells_of_the_plain_rule_in_every_period) {
  const auto samples = make_samples(START, NOW);
  store->write(samples);
  store->roll_up(START);
  expect_all_cells(samples);
  EXPECT_TRUE(progress().is_finished());
  EXPECT_TRUE(shard_metadata_impl_c().check_was_rolled(store->shard(START)->get_dir_name()));
  EXPECT_FALSE(std::filesystem::exists(file(".3_state.done")));
  // one call for each metric and period
  EXPECT_EQ(minutes.calls, 40U);
}

TEST_F(rollup_pass, families_run_side_by_side_while_samples_arrive) {
  open({.family_threads = true});
  auto samples = make_samples(START, NOW);
  store->write(samples);
  store->write({nom_sample_t::of_int32(1, NOW * 1000, 1)});  // the shard that samples are carried to
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (uint64_t id = 41; !stop; id++) store->write({nom_sample_t::of_int32(id, START * 1000, 1)});
  });
  store->roll_up(START);
  stop = true;
  writer.join();
  expect_all_cells(samples);
}

TEST_F(rollup_pass, carries_the_last_sample_so_that_rates_span_shards) {
  auto samples = make_samples(START, NOW, 2);
  const auto second = make_samples(NOW, NOW + DAY, 3);
  store->write(samples);
  store->write(second);
  store->roll_up(START);
  minutes.numbers.clear();
  store->roll_up(NOW);
  samples.insert(samples.end(), second.begin(), second.end());
  expect_cells(minutes, expected_cells(samples, 60, NOW * 1000));
  // and makes no shard for it
  EXPECT_FALSE(store->shard(NOW + DAY, MUST_EXIST));
}

TEST_F(rollup_pass, what_is_carried_is_no_sample_of_the_next_shard) {
  store->write(
      {nom_sample_t::of_int32(7, NOW * 1000 - 500, 1), nom_sample_t::of_int32(8, NOW * 1000 + 500, 2)});
  store->roll_up(START);
  const auto next = store->shard(NOW);
  std::string error;
  const auto carried = next->find_last_numeric(7, 0, NOW * 1000, raw_reader_asynch_c::nulls_e::take, &error);
  ASSERT_TRUE(carried);
  EXPECT_EQ(carried->ts_ms, NOW * 1000 - 500);
  std::vector<uint64_t> ids;
  next->accumulate_all_primary_keys([&](uint64_t id) { ids.push_back(id); });
  EXPECT_EQ(ids, (std::vector<uint64_t>{8}));
  for (const auto seek : {SEEK_EXACT, SEEK_NEXT_ON_MISS, SEEK_PREV_ON_MISS})
    for (const uint64_t ts_ms : {NOW * 1000 - 500, NOW * 1000 + 100}) {
      bool found = true;
      next->find_asynch(
          nom_support::key_of(7, ts_ms), seek,
          [](raw_iter_manager_asynch_c *manager, raw_iter_reader_asynch_c *reader, void *closure) {
            *static_cast<bool *>(closure) = reader->is_valid();
            manager->close_asynch(reader);
          },
          &found);
      EXPECT_FALSE(found) << seek << " at " << ts_ms;
    }
  // backwards from a sample of its own the walk ends at the shard's start
  store->write({nom_sample_t::of_int32(7, NOW * 1000 + 9, 1)});
  std::vector<uint64_t> times;
  next->find_asynch(
      nom_support::key_of(7, NOW * 1000 + 9), SEEK_EXACT,
      [](raw_iter_manager_asynch_c *manager, raw_iter_reader_asynch_c *reader, void *closure) {
        if (!reader->is_valid()) return manager->close_asynch(reader);
        static_cast<std::vector<uint64_t> *>(closure)->push_back(
            static_cast<uint64_t>(reader->get_key().get_orig_key().get_timestamp().count()));
        manager->prev_asynch(reader);
      },
      &times);
  EXPECT_EQ(times, (std::vector<uint64_t>{NOW * 1000 + 9}));
  size_t blocks = 0;
  next->stream_for_reconstitute(
      0, NOW + DAY, &blocks, [](void *, uint64_t) { return reconstitute_metric_e::send; },
      [](void *closure, uint64_t, uint32_t, std::string_view) {
        return ++*static_cast<size_t *>(closure) > 0;
      });
  EXPECT_EQ(blocks, 2U);
}

TEST_F(rollup_pass, a_repeat_carries_only_what_has_changed) {
  store->write(
      {nom_sample_t::of_int32(7, NOW * 1000 - 500, 1), nom_sample_t::of_int32(8, NOW * 1000 + 500, 2)});
  store->roll_up(START);
  store->roll_up(NOW);
  ASSERT_TRUE(progress(NOW).is_finished());
  store->write({nom_sample_t::of_int32(7, NOW * 1000 - 900, 5)});
  store->roll_up(START);
  EXPECT_TRUE(progress(NOW).is_finished());
  store->write({nom_sample_t::of_int32(7, NOW * 1000 - 100, 6)});
  store->roll_up(START);
  EXPECT_TRUE(progress(NOW).is_dirty());
}

TEST_F(rollup_pass, bad_records_are_passed_over_and_the_rest_is_rolled_up) {
  using namespace velmar_db_raw_nom;
  const log_capture_c log("error");
  const std::vector<nom_sample_t> good = {nom_sample_t::of_int32(7, START * 1000, 1),
                                          nom_sample_t::of_int32(7, (START + 2 * HOUR) * 1000, 2)};
  store->write(good);
  char key[KEY_LEN];
  std::string record = nom_support::record_builder_c(NOM_TYPE_INT32).add<int32_t>(5, 1);
  put("short", record, 0);
  make_key(7, NOW, key);
  put({key, KEY_LEN}, record, 7);  // behind the shard
  make_key(7, START + 3 * HOUR, key);
  put({key, KEY_LEN}, nom_support::hist_record(NOM_TYPE_HISTOGRAM, {{5, "x"}}), 7);
  make_key(7, START + 4 * HOUR, key);
  put({key, KEY_LEN},
      std::string(nom_support::record_builder_c(NOM_TYPE_INT32).add<int32_t>(9, 1).add<int32_t>(8, 7)), 7);
  make_key(7, START + 5 * HOUR, key);
  record += "more";
  nom_support::seal(&record);
  put({key, KEY_LEN}, record, 7);
  record[0] ^= 1;
  make_key(7, START + HOUR, key);
  put({key, KEY_LEN}, record, 7);
  store->roll_up(START);
  auto expected = good;
  expected.push_back(nom_sample_t::of_int32(7, (START + 4 * HOUR) * 1000 + 9, 1));
  expect_cells(minutes, expected_cells(expected, 60, START * 1000));
  for (const char *text : {"invalid key length", "invalid timestamp_s", "invalid checksum",
                           "bad numeric record", "invalid length", "out of order"})
    EXPECT_TRUE(log.contains(text)) << text;
  EXPECT_TRUE(progress().is_finished());
}

TEST_F(rollup_pass, a_sample_that_arrives_midway_repeats_it) {
  auto samples = make_samples(START, NOW);
  store->write(samples);
  struct late_t {
    store_c *store;
    int records = 0;
  } late{store.get()};
  rollup_step_hook_register(
      "late",
      [](void *closure, const char *, const char *step) {
        auto *self = static_cast<late_t *>(closure);
        if (std::string_view(step) == "record" && self->records++ == 400)
          self->store->write({nom_sample_t::of_double(1, START * 1000, 77)});
      },
      &late);
  store->roll_up(START);
  rollup_hooks_clear();
  EXPECT_FALSE(progress().is_finished());
  EXPECT_FALSE(progress().rollup_in_progress());
  EXPECT_TRUE(std::filesystem::exists(store->shard(START)->get_dir_name()));
  EXPECT_EQ(store->shard(START)->in_manager(), IN_MANAGER_NO);
  // the next look finds it quiet, and the pass begins anew
  store->set_now(NOW + 9 * HOUR);
  EXPECT_EQ(store->steps.run_all(), 1U);
  EXPECT_TRUE(progress().is_finished());
  samples.insert(samples.begin(), nom_sample_t::of_double(1, START * 1000, 77));
  expect_cells(hours, [&] {
    std::stable_sort(samples.begin(), samples.end(), [](const nom_sample_t &a, const nom_sample_t &b) {
      return std::tie(a.surrogate_id, a.ts_ms) < std::tie(b.surrogate_id, b.ts_ms);
    });
    return expected_cells(samples, 3600, START * 1000);
  }());
}

TEST_F(rollup_pass, cells_that_are_not_stored_repeat_it_and_hold_the_state_back) {
  const log_capture_c log("error");
  const auto samples = make_samples(START, NOW);
  store->write(samples);
  hours.fails_at_id = 9;
  uint64_t saved = 0;
  struct watch_t {
    std::string path;
    uint64_t *saved;
  } watch{file(".1_state"), &saved};  // 9 lies in family 1, behind 1 and before 10, 17 and so on
  rollup_step_hook_register(
      "watch",
      [](void *closure, const char *, const char *step) {
        const auto *self = static_cast<watch_t *>(closure);
        if (std::string_view(step) == "joined")
          std::ifstream(self->path, std::ios::binary).read(reinterpret_cast<char *>(self->saved), 8);
      },
      &watch);
  store->roll_up(START);
  rollup_hooks_clear();
  EXPECT_EQ(saved, 1U);
  EXPECT_FALSE(progress().is_finished());
  EXPECT_TRUE(log.contains("failed to write to one or more rollup shards"));
  hours.fails_at_id = 0;
  store->set_now(NOW + 9 * HOUR);
  EXPECT_EQ(store->steps.run_all(), 1U);
  EXPECT_TRUE(progress().is_finished());
  expect_all_cells(samples);
}

TEST_F(rollup_pass, an_id_without_a_metric_produces_nothing) {
  store->write(make_samples(START, NOW));
  lookup.metrics.clear();
  store->roll_up(START);
  EXPECT_EQ(minutes.calls, 0U);
  EXPECT_TRUE(progress().is_finished());
}

TEST_F(rollup_pass, suppressed_metrics_get_no_cells) {
  lookup.add(2, METRIC_TYPE_NUMERIC, "a|ST[quiet:yes]");
  open({.suppress = "and(quiet:yes)"});
  suppress_rollup_filter_hook_register(
      "three", [](void *, const metric_locator_sp &locator) { return fake_target_c::id_of(locator) == 3; },
      nullptr);
  store->write({nom_sample_t::of_int32(1, START * 1000, 1), nom_sample_t::of_int32(2, START * 1000, 1),
                nom_sample_t::of_int32(3, START * 1000, 1)});
  store->roll_up(START);
  EXPECT_EQ(days.numbers.size(), 1U);
  EXPECT_EQ(days.numbers.begin()->first.id, 1U);
}

TEST_F(rollup_pass, a_shard_before_the_retention_is_done_without_being_read) {
  store->write(make_samples(START, NOW));
  open({.oldest_retention_s = NOW + 1});
  size_t records = 0;
  rollup_step_hook_register(
      "count",
      [](void *closure, const char *, const char *step) {
        *static_cast<size_t *>(closure) += std::string_view(step) == "record";
      },
      &records);
  store->roll_up(START);
  EXPECT_EQ(records, 0U);
  EXPECT_TRUE(progress().is_finished());
}

TEST_F(rollup_pass, periods_that_the_shard_does_not_hold_whole_are_left_out) {
  const log_capture_c log("error");
  open({.granularity_s = HOUR});
  store->write({nom_sample_t::of_int32(1, START * 1000, 1)});
  store->roll_up(START);
  EXPECT_EQ(hours.numbers.size(), 1U);
  EXPECT_TRUE(days.numbers.empty());
  EXPECT_TRUE(log.contains("does not hold whole cells of 86400 s"));
}

// ---- going on after a stop

TEST_F(rollup_pass, goes_on_where_it_was_cut_short) {
  const auto samples = make_samples(START, NOW);
  store->write(samples);
  struct closure_t {
    store_c *store;
    std::vector<std::string> steps;
    std::thread stopper;
  } closure{store.get(), {}, {}};
  rollup_step_hook_register(
      "stop",
      [](void *c, const char *, const char *step) {
        auto *self = static_cast<closure_t *>(c);
        self->steps.push_back(step);
        // in the third family, behind its second metric
        const auto count = [&](const char *what) {
          return std::count(self->steps.begin(), self->steps.end(), what);
        };
        if (count("done") == 2 && count("state") == 12 && !self->stopper.joinable()) {
          // stop waits for the pass: on a thread of its own; the pass sees it at one of the next records
          self->stopper = std::thread([self] { self->store->ctx->stop(); });
          while (self->store->ctx->force_rollup(START) != force_rollup_e::refused) std::this_thread::yield();
        }
      },
      &closure);
  ASSERT_EQ(store->ctx->force_rollup(START), force_rollup_e::submitted);
  store->steps.run_all();
  closure.stopper.join();
  rollup_hooks_clear();
  EXPECT_TRUE(progress().rollup_in_progress());
  EXPECT_TRUE(std::filesystem::exists(file(".1_state.done")));
  EXPECT_FALSE(std::filesystem::exists(file(".2_state.done")));
  const size_t calls = minutes.calls;

  open();
  std::vector<std::string> starts;
  rollup_step_hook_register(
      "starts",
      [](void *c, const char *, const char *step) {
        if (std::string_view(step) == "start") static_cast<std::vector<std::string> *>(c)->push_back(step);
      },
      &starts);
  store->set_now(NOW + HOUR);  // the delay after a start
  EXPECT_EQ(store->steps.run_all(), 1U);
  rollup_hooks_clear();
  EXPECT_EQ(starts.size(), 6U);       // two families were done
  EXPECT_EQ(minutes.calls, 40 + 1U);  // the last metric of the cut is done again
  EXPECT_LT(calls, 40U);
  EXPECT_TRUE(progress().is_finished());
  expect_all_cells(samples);
}

TEST_F(rollup_pass, begins_anew_when_samples_came_between_the_cut_and_the_resume) {
  auto samples = make_samples(START, NOW);
  store->write(samples);
  progress().mark_clean();
  progress().start_rollup();
  for (int family = 0; family < 8; family++) std::ofstream(file(fmt::format(".{}_state.done", family)));
  open();
  EXPECT_TRUE(progress().rollup_in_progress());
  store->write({nom_sample_t::of_int32(5, NOW * 1000 - 1, 77)});
  samples.push_back(nom_sample_t::of_int32(5, NOW * 1000 - 1, 77));
  store->set_now(NOW + HOUR);
  EXPECT_EQ(store->steps.run_all(), 0U);  // not quiet
  store->set_now(NOW + 10 * HOUR);
  EXPECT_EQ(store->steps.run_all(), 1U);
  EXPECT_TRUE(progress().is_finished());
  expect_cells(days, expected_cells(samples, 86400, START * 1000));
}

TEST_F(rollup_pass, a_damaged_place_of_resume_begins_the_family_anew) {
  const log_capture_c log("error");
  const auto samples = make_samples(START, NOW);
  store->write(samples);
  progress().mark_clean();
  progress().start_rollup();
  const uint64_t id = 10;
  std::ofstream(file(".2_state"), std::ios::binary).write(reinterpret_cast<const char *>(&id), 8);
  char key[velmar_db_raw_nom::KEY_LEN];
  velmar_db_raw_nom::make_key(id, START - HOUR, key);
  put({key, sizeof key}, std::string("broken"), id);
  progress().mark_clean();
  progress().start_rollup();
  open();
  store->set_now(NOW + HOUR);
  EXPECT_EQ(store->steps.run_all(), 1U);
  EXPECT_TRUE(log.contains("checksum invalid on initial iter"));
  expect_cells(days, expected_cells(samples, 86400, START * 1000));
}

}  // namespace
}  // namespace db::raw
