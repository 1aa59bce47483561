// Ranges of cells in and out, on either engine.

#include "db/ranged/nntbs/nntbs.h"

#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "db/ranged/nntbs/nntbs_hooks.h"
#include "db/ranged/nntbs/rollup_build.h"
#include "support/log_capture.h"
#include "unit/db/ranged/nntbs/nntbs_fixture.h"

namespace db::ranged::nntbs {
namespace {

constexpr uint64_t SPAN = 127 * 60;
constexpr uint64_t B0 = T0 / SPAN * SPAN;  // a block border

class nntbs_test_c : public testing::TestWithParam<const char *> {
 protected:
  nntbs_test_c()
      : store(
            "<shard period='60' size='1d' initial_map_size='262144'/>"
            "<shard period='300' size='1d' initial_map_size='262144'/>",
            std::string("shard_storage_type='") + GetParam() + "'") {}

  // All blocks of a period: how often each was written is seen by what is stored.
  size_t count_blocks(int32_t period) {
    size_t count = 0;
    auto [error, shards] = store.mgr().create_iterator(period, 0, UINT64_MAX);
    for (; shards.is_valid(); shards.advance()) {
      auto [txn_error, txn] = shards.get()->start_read_transaction();
      uint64_t sid, floor;
      for (txn_error = txn->seek_to_first(&sid, &floor, nullptr); !txn_error;
           txn_error = txn->next(&sid, &floor, nullptr))
        ++count;
    }
    return count;
  }
  // Changes a stored block behind the store's back.
  void spoil(uint64_t t, const std::function<void(nntbs_block_t *)> &how) {
    const auto shard = store.mgr().open(t, 60).second;
    auto [error, txn] = shard->start_write_transaction();
    nntbs_block_t block;
    uint64_t floor = block_floor_of(t, 60);
    const uint64_t sid = velmar_metric_locator_get_surrogate_id(metric.get());
    ASSERT_FALSE(txn->seek(sid, &floor, &block));
    how(&block);
    ASSERT_FALSE(txn->put(sid, floor, block));
    ASSERT_FALSE(txn->commit_write());
  }

  nntbs_store_c store;
  const metric_locator_sp metric = make_stored_metric(7, "a");
};
using nntbs = nntbs_test_c;
INSTANTIATE_TEST_SUITE_P(engines, nntbs, testing::Values("lmdb", "mdbx"),
                         [](const auto &of) { return of.param; });

std::vector<nnt_multitype> ramp(size_t count, uint64_t from = 0) {
  std::vector<nnt_multitype> cells(count);
  for (size_t i = 0; i < count; ++i) cells[i] = cell_of(from + i, 1 + static_cast<uint32_t>(i));
  return cells;
}

TEST_P(nntbs, a_range_over_blocks_and_shards) {
  const auto cells = ramp(300);
  ASSERT_EQ(store.put(B0, metric, 60, cells), 0);
  EXPECT_EQ(count_blocks(60), 3U);
  const auto got = store.get(B0, metric, 60, 300);
  for (size_t i = 0; i < 300; ++i) ASSERT_TRUE(same(got[i], cells[i])) << i;
  // from inside a block over the ceiling of its shard
  const uint64_t start = store.mgr().open(B0, 60).second->ceiling_s() - 50 * 60;
  const auto more = ramp(200, 1000);
  ASSERT_EQ(store.put(start, metric, 60, more), 0);
  const auto wide = store.get(start - 60, metric, 60, 202);
  EXPECT_EQ(wide[0].type, NNT_TYPE_ABSENT);
  for (size_t i = 0; i < 200; ++i) ASSERT_TRUE(same(wide[i + 1], more[i])) << i;
  EXPECT_EQ(wide[201].type, NNT_TYPE_ABSENT);
  EXPECT_NE(store.shard_path(start, 60), store.shard_path(start + 50 * 60, 60));
}

TEST_P(nntbs, random_writes_match_a_map) {
  std::mt19937 random(3);
  std::map<uint64_t, nnt_multitype> model;
  for (int round = 0; round < 150; ++round) {
    const uint64_t first = random() % 4000;
    auto cells = ramp(1 + random() % (round % 10 ? 40 : 700), random());
    for (nnt_multitype &cell : cells)
      if (random() % 3 == 0) cell = {};
    const bool keep = random() % 2;
    ASSERT_EQ(
        store.put(B0 + first * 60, metric, 60, cells, keep ? absent_cells_e::keep : absent_cells_e::clear), 0);
    for (size_t i = 0; i < cells.size(); ++i)
      if (cells[i].type != NNT_TYPE_ABSENT || !keep) model[first + i] = cells[i];
    const uint64_t from = random() % 4000;
    const size_t count = 1 + random() % 1500;
    const auto got = store.get(B0 + from * 60, metric, 60, count);
    for (size_t i = 0; i < count; ++i) {
      const auto want = model.find(from + i);
      ASSERT_TRUE(same(got[i], want == model.end() ? nnt_multitype{} : want->second)) << round << " " << i;
    }
  }
}

TEST_P(nntbs, what_a_cell_without_data_does) {
  ASSERT_EQ(store.put(B0, metric, 60, {{}, {}}), 0);  // nothing to clear: nothing is made
  ASSERT_EQ(store.put(B0, metric, 60, {{}, {}}, absent_cells_e::keep), 0);
  EXPECT_EQ(count_blocks(60), 0U);
  ASSERT_EQ(store.put(B0, metric, 60, ramp(3)), 0);
  ASSERT_EQ(store.put(B0, metric, 60, {{}, cell_of(9), {}}, absent_cells_e::keep), 0);
  auto got = store.get(B0, metric, 60, 3);
  EXPECT_TRUE(same(got[0], cell_of(0, 1)) && same(got[1], cell_of(9)) && same(got[2], cell_of(2, 3)));
  ASSERT_EQ(store.put(B0, metric, 60, {{}, cell_of(8), {}}), 0);
  got = store.get(B0, metric, 60, 3);
  EXPECT_TRUE(same(got[0], {}) && same(got[1], cell_of(8)) && same(got[2], {}));
}

TEST_P(nntbs, reads_leave_what_they_do_not_find) {
  ASSERT_EQ(store.put(B0, metric, 60, ramp(1)), 0);
  ASSERT_EQ(store.put(B0 + 3 * SPAN, metric, 60, ramp(1, 5)), 0);  // two blocks between them are not there
  std::vector<nnt_multitype> cells(4 * 127, cell_of(77));
  EXPECT_EQ(nntbs_get_range(B0, metric, 60, 4 * 127, cells.data(), nullptr, nullptr, nullptr), 4 * 127U);
  EXPECT_EQ(cells[0].value.v_uint64, 0U);
  EXPECT_EQ(cells[3 * 127].value.v_uint64, 5U);
  for (const size_t i : {1U, 127U, 300U, 507U}) EXPECT_TRUE(same(cells[i], cell_of(77)));
  // nothing is made by reading, however far; absurd times are no times
  EXPECT_EQ(store.get(B0 + 1000000 * SPAN, metric, 60, 1000).size(), 1000U);
  EXPECT_EQ(store.get(UINT64_MAX - 5, metric, 60, 10).size(), 10U);
  EXPECT_EQ(store.get(UINT64_MAX / 2 - 5, metric, 60, 10).size(), 10U);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(store.path()), {}), 1);
  EXPECT_EQ(nntbs_get_range(B0, metric, 60, 0, cells.data(), nullptr, nullptr, nullptr), 0U);
  EXPECT_EQ(nntbs_get_range(B0, metric, 60, -1, cells.data(), nullptr, nullptr, nullptr), 0U);
}

TEST_P(nntbs, metrics_by_name) {
  const auto fresh = make_metric("fresh");
  EXPECT_TRUE(store.get(B0, fresh, 60, 3).empty());
  EXPECT_EQ(nntbs_get_metadata(fresh, 60, nullptr, nullptr), -1);
  std::string error;
  EXPECT_EQ(nntbs_delete(60, B0, fresh, &error), 0);
  ASSERT_EQ(store.put(B0, fresh, 60, ramp(2)), 0);
  EXPECT_EQ(store.get(B0, fresh, 60, 2)[1].value.v_uint64, 1U);
  store.metrics->fails = true;
  EXPECT_NE(store.put(B0, make_metric("other"), 60, ramp(1)), 0);
  EXPECT_NE(store.put(B0, {}, 60, ramp(1)), 0);
}

TEST_P(nntbs, cells_that_cannot_be_stored) {
  auto cells = ramp(3);
  cells[1].type = NNT_TYPE_STRING;
  EXPECT_NE(store.put(B0, metric, 60, cells), 0);
  EXPECT_EQ(count_blocks(60), 0U);
  EXPECT_NE(store.put(B0, metric, 0, ramp(1)), 0);
  EXPECT_NE(store.put(B0, metric, 77, ramp(1)), 0);
  EXPECT_EQ(store.put(B0, metric, 60, {}), 0);
}

TEST_P(nntbs, metadata) {
  uint64_t epoch = 0, apocalypse = 0;
  ASSERT_EQ(store.put(B0 + 600, metric, 60, ramp(2000)), 0);
  ASSERT_EQ(nntbs_get_metadata(metric, 60, &epoch, &apocalypse), 0);
  EXPECT_EQ(epoch, B0 + 600);
  EXPECT_EQ(apocalypse, B0 + 600 + 1999 * 60);
  EXPECT_EQ(nntbs_get_metadata(metric, 300, &epoch, &apocalypse), -1);  // that period has none
  EXPECT_EQ(nntbs_get_metadata(metric, 120, &epoch, &apocalypse), 0);   // out of cells of 60
  EXPECT_EQ(nntbs_get_metadata(metric, 90, &epoch, &apocalypse), -1);
  std::vector<nnt_multitype> cells(1);
  epoch = apocalypse = 0;
  EXPECT_EQ(nntbs_get_range(B0, metric, 60, 1, cells.data(), &epoch, &apocalypse, nullptr), 1U);
  EXPECT_EQ(apocalypse - epoch, 1999 * 60U);
  nntbs_delete(60, B0 + 6000, metric, nullptr);
  ASSERT_EQ(nntbs_get_metadata(metric, 60, &epoch, &apocalypse), 0);
  EXPECT_EQ(epoch, std::string(GetParam()) == "mdbx" ? B0 + 6000 : B0 + 600);
}

TEST_P(nntbs, a_damaged_block) {
  ASSERT_EQ(store.put(B0, metric, 60, ramp(300)), 0);
  spoil(B0 + SPAN, [](nntbs_block_t *block) { block->datum[100].value ^= 4; });
  std::string error;
  auto got = store.get(B0, metric, 60, 300, &error);
  EXPECT_EQ(error,
            "CRC check failed for block at offset: " + std::to_string(B0 + SPAN) + " and surrogate: 7\n");
  for (size_t i = 0; i < 127; ++i) EXPECT_EQ(got[i].value.v_uint64, i);
  for (size_t i = 127; i < 300; ++i) EXPECT_EQ(got[i].type, NNT_TYPE_ABSENT);
  // A write to it makes it anew: the damage does not get a good checksum.
  log_capture_c errors("error");
  ASSERT_EQ(store.put(B0 + SPAN + 600, metric, 60, {cell_of(5)}), 0);
  EXPECT_TRUE(errors.contains("is written anew"));
  error.clear();
  got = store.get(B0, metric, 60, 300, &error);
  EXPECT_EQ(error, "");
  EXPECT_EQ(got[137].value.v_uint64, 5U);
  EXPECT_EQ(got[227].type, NNT_TYPE_ABSENT);
  EXPECT_EQ(got[299].value.v_uint64, 299U);
  spoil(B0, [](nntbs_block_t *block) { block->version = 2; });
  store.get(B0, metric, 60, 1, &error);
  EXPECT_EQ(error, "block of unknown version 2 at offset: " + std::to_string(B0) + " and surrogate: 7\n");
}

TEST_P(nntbs, a_block_keeps_the_time_it_was_made) {
  ASSERT_EQ(store.put(B0, metric, 60, ramp(1)), 0);
  spoil(B0, [](nntbs_block_t *block) { block->creation_ts = 12345; });
  ASSERT_EQ(store.put(B0, metric, 60, ramp(127)), 0);
  spoil(B0, [](nntbs_block_t *block) {
    EXPECT_EQ(uint64_t{block->creation_ts}, 12345U);
    EXPECT_TRUE(block_is_sound(*block));
  });
}

// Two threads fill small maps with ranges that cross shards: both go on after each growth, every cell is there.
TEST_P(nntbs, growing_on_the_way) {
  constexpr uint64_t METRICS = 24;
  const auto cells = ramp(6000);
  std::vector<std::thread> writers;
  for (uint64_t w = 0; w < 2; ++w)
    writers.emplace_back([&, w] {
      for (uint64_t n = w; n < METRICS; n += 2)
        ASSERT_EQ(store.put(B0 + 60 * n, make_stored_metric(100 + n, "m" + std::to_string(n)), 60, cells), 0);
    });
  for (std::thread &t : writers) t.join();
  EXPECT_GT(store.mgr().open(B0, 60).second->get_resize_gen(), 0U);
  for (uint64_t n = 0; n < METRICS; ++n) {
    const auto got = store.get(B0 + 60 * n, make_stored_metric(100 + n, "x"), 60, cells.size());
    for (size_t i = 0; i < cells.size(); ++i) ASSERT_TRUE(same(got[i], cells[i])) << n << " " << i;
  }
}

TEST_P(nntbs, shards_that_are_not_there_for_it) {
  ASSERT_EQ(store.put(B0, metric, 60, ramp(1)), 0);
  const auto shard = store.mgr().open(B0, 60).second;
  const uint64_t ceiling = shard->ceiling_s();
  shard->set_maintenance_mode(OFFLINE_RECONSTITUTE);
  EXPECT_TRUE(nntbs_shard_maintenance_is_offline(60, B0, B0 + 1));
  // begun in a shard that is being rebuilt, a range is dropped; one that only reaches it is an error
  EXPECT_EQ(store.put(B0, metric, 60, ramp(5, 50)), 0);
  EXPECT_EQ(store.get(B0, metric, 60, 1)[0].type, NNT_TYPE_ABSENT);
  shard->set_maintenance_mode(ONLINE);
  ASSERT_EQ(store.put(ceiling, metric, 60, ramp(1)), 0);
  store.mgr().open(ceiling, 60).second->set_maintenance_mode(OFFLINE_RECONSTITUTE);
  EXPECT_EQ(store.put(ceiling - 60, metric, 60, ramp(2, 50)), static_cast<int>(storage_errc_e::wrong_mode));
  store.mgr().open(ceiling, 60, OFFLINE_RECONSTITUTE).second->set_maintenance_mode(ONLINE);
  EXPECT_EQ(store.get(B0, metric, 60, 1)[0].value.v_uint64, 0U);
}

TEST_P(nntbs, cells_below_the_least_time) {
  store.close();
  const uint64_t day = 12 * SPAN, floor = (B0 / day + 1) * day;
  store.open("<shard period='60' size='1d'/>", "minimum_shard_floor='" + std::to_string(floor) + "'");
  ASSERT_EQ(store.put(floor - 300 * 60, metric, 60, ramp(302)), 0);
  const auto got = store.get(floor - 300 * 60, metric, 60, 302);
  EXPECT_EQ(got[299].type, NNT_TYPE_ABSENT);
  EXPECT_EQ(got[300].value.v_uint64, 300U);
  EXPECT_EQ(got[301].value.v_uint64, 301U);
}

TEST_P(nntbs, kept_over_a_restart) {
  ASSERT_EQ(store.put(B0, metric, 60, ramp(2000)), 0);
  store.close();
  store.open("<shard period='60' size='1d'/>");  // whatever engine is configured now
  const auto got = store.get(B0, metric, 60, 2000);
  for (size_t i = 0; i < 2000; ++i) ASSERT_EQ(got[i].value.v_uint64, i);
}

// ---- coarser cells

TEST_P(nntbs, a_coarser_cell_from_its_span) {
  const uint64_t ten = T0 + 10 * 3600;  // 10:00:00
  std::vector<nnt_multitype> cells;
  for (const uint64_t value : {2U, 4U, 6U, 8U, 10U}) cells.push_back(cell_of(value, 2));
  cells[3] = {};
  ASSERT_EQ(store.put(ten, metric, 60, cells), 0);
  ASSERT_EQ(nntbs_do_rollup(ten + 4 * 60 + 59, *store.set.configs[0], *store.set.configs[1], metric), 0);
  nnt_multitype want{};
  nnt_multitype_rollup(&want, 0, 5, cells.data(), 1);
  const auto got = store.get(ten - 300, metric, 300, 3);
  EXPECT_EQ(got[0].type, NNT_TYPE_ABSENT);
  EXPECT_EQ(got[1].value.v_double, want.value.v_double);
  EXPECT_EQ(got[1].count, 8U);
  EXPECT_EQ(got[2].type, NNT_TYPE_ABSENT);
  // cells that are gone take the coarser one with them
  ASSERT_EQ(store.put(ten, metric, 60, std::vector<nnt_multitype>(5)), 0);
  ASSERT_EQ(nntbs_do_rollup(ten, *store.set.configs[0], *store.set.configs[1], metric), 0);
  EXPECT_EQ(store.get(ten, metric, 300, 1)[0].type, NNT_TYPE_ABSENT);
  EXPECT_EQ(nntbs_do_rollup(ten, *store.set.configs[0], *store.set.configs[1], make_metric("none")), 1);
}

TEST_P(nntbs, a_period_made_anew) {
  const auto text = make_stored_metric(8, "text", 1, 1, METRIC_TYPE_TEXT);
  store.metrics->stored = {metric, make_stored_metric(9, "empty"), text};
  const auto cells = ramp(1503, 1);
  const uint64_t first = T0 + 120;  // inside a cell of 300
  ASSERT_EQ(store.put(first, metric, 60, cells), 0);
  ASSERT_EQ(store.put(first, text, 60, cells), 0);
  ASSERT_EQ(store.put(T0 - 3000, metric, 300, ramp(1, 99)), 0);  // nothing finer is there for this one
  ASSERT_EQ(store.put(T0 + 300, metric, 300, ramp(1, 99)), 0);
  ASSERT_TRUE(nntbs_generate_rollup(300));
  const auto got = store.get(T0, metric, 300, 302);
  std::vector<nnt_multitype> padded(2);
  padded.insert(padded.end(), cells.begin(), cells.end());
  padded.resize(1510);
  for (size_t i = 0; i < 302; ++i) {
    nnt_multitype want{};
    nnt_multitype_rollup(&want, 0, 5, &padded[i * 5], 1);
    ASSERT_EQ(got[i].count, want.count) << i;
    ASSERT_EQ(got[i].value.v_uint64, want.value.v_uint64) << i;
  }
  EXPECT_EQ(store.get(T0 - 3000, metric, 300, 1)[0].value.v_uint64, 99U);
  EXPECT_EQ(store.get(T0, text, 300, 1)[0].type, NNT_TYPE_ABSENT);
  log_capture_c errors("error");
  EXPECT_FALSE(nntbs_generate_rollup(60));
  EXPECT_FALSE(nntbs_generate_rollup(77));
  EXPECT_FALSE(nntbs_generate_rollup(600));
  const std::vector<std::string> want = {
      "nntbs_generate_rollup: cannot generate 60 - lower than any existing rollup",
      "nntbs_generate_rollup: rollup 77 has no acceptable lower rollup to build from",
      "nntbs_generate_rollup: rollup 600 not found in config"};
  EXPECT_EQ(errors.lines(), want);
}

// ---- hooks: they stay for the process, so they look for their metric

TEST_P(nntbs, hooks) {
  static const auto hooked = make_stored_metric(4711, "hooked");
  static bool registered = false;
  if (!std::exchange(registered, true)) {
    put_nntbs_range_hook_register(
        [](void *, const metric_locator_sp &m, uint64_t start, unsigned period, size_t count,
           const nnt_multitype *) -> int {
          return m == hooked && start == B0 && period == 60 && count == 2 ? NNTBS_HOOK_ABORT
                                                                          : NNTBS_HOOK_CONTINUE;
        },
        nullptr);
    get_nntbs_metadata_hook_register(
        [](void *, uint64_t sid, unsigned, uint64_t *epoch, uint64_t *apocalypse) -> int {
          if (sid != 4711) return NNTBS_HOOK_CONTINUE;
          if (epoch) *epoch = 11;
          if (apocalypse) *apocalypse = 22;
          return NNTBS_HOOK_DONE;
        },
        nullptr);
  }
  log_capture_c errors("error");
  EXPECT_EQ(store.put(B0, hooked, 60, ramp(2)), -1);
  EXPECT_TRUE(errors.contains("nntbs_put_range: hook aborted operation"));
  EXPECT_EQ(count_blocks(60), 0U);
  EXPECT_EQ(store.put(B0, hooked, 60, ramp(3)), 0);
  uint64_t epoch = 0, apocalypse = 0;
  EXPECT_EQ(nntbs_get_metadata(hooked, 60, &epoch, &apocalypse), 0);
  EXPECT_EQ(epoch, 11U);
  EXPECT_EQ(apocalypse, 22U);
}

}  // namespace
}  // namespace db::ranged::nntbs
