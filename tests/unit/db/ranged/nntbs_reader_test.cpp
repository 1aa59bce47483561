// The reader of rollups over a store that a test has filled.

#include "db/ranged/nntbs_reader.h"

#include <deque>

#include "db/ranged/nntbs/nntbs_hooks.h"
#include "db/ranged/whisper_reader.h"
#include "ranged_support.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "whisper_builder.h"

namespace db::ranged::nntbs {
namespace {

using namespace ranged_support;

constexpr uint64_t T = 1699999200;  // a whole hour
static_assert(T % 3600 == 0);

// Cells by period and time; remembers the reads.
class fake_source_c : public cell_source_c {
 public:
  struct read_t {
    uint64_t offset;
    unsigned period;
    int64_t count;
    bool operator==(const read_t &) const = default;
  };
  size_t get_range(uint64_t offset, const metric_locator_sp &, unsigned period, int64_t count, nnt_multitype *v,
                   std::string *error) const override {
    reads.push_back({offset, period, count});
    if (cells.empty()) return 0;
    if (damaged_from && offset + static_cast<uint64_t>(count) * period > damaged_from)
      *error = "CRC check failed for block at offset: 1 and surrogate: 2\n";
    for (int64_t i = 0; i < count; i++) {
      const auto found = cells.find({period, offset + static_cast<uint64_t>(i) * period});
      if (found != cells.end()) v[i] = found->second;
    }
    return static_cast<size_t>(count);
  }
  int get_metadata(const metric_locator_sp &, unsigned period, uint64_t *epoch,
                   uint64_t *apocalypse) const override {
    const auto first = cells.lower_bound({period, 0}), last = cells.lower_bound({period + 1, 0});
    if (first == last) return -1;
    *epoch = first->first.second;
    *apocalypse = std::prev(last)->first.second;
    return 0;
  }
  std::map<std::pair<unsigned, uint64_t>, nnt_multitype> cells;
  uint64_t damaged_from = 0;
  mutable std::vector<read_t> reads;
};

class nntbs_reader : public testing::Test {
 protected:
  void configure(std::initializer_list<unsigned> periods) {
    for (const unsigned period : periods) {
      configs.emplace_back();
      configs.back().period = period;
      set.configs.push_back(&configs.back());
    }
    rollup_config_init(&set);
  }
  reader_params_t params(bool can_coarsen = false) {
    reader_params_t out;
    out.rollups = &set;
    out.source = &source;
    out.whisper = whisper.get();
    out.can_coarsen = can_coarsen;
    return out;
  }
  void put(unsigned period, uint64_t time, double value, uint32_t count = 1) {
    source.cells[{period, time}] = cell_of(value, count);
  }
  ranged_c::key_c range(uint64_t start_s, uint64_t end_s, uint64_t span_s, bool can_squash = true) const {
    return key_of(metric, start_s * 1000, end_s * 1000, span_s * 1000, can_squash);
  }
  code_e error_of(const ctx_c &reader, const ranged_c::key_c &key) {
    code_e code;
    EXPECT_TRUE(read_all(reader, key, &code).empty());
    return code;
  }
  void import(const std::vector<std::pair<uint32_t, double>> &points) {
    velmar::ranged::from::whisper::directory_t directory = {dir.path(), {}, 1};
    memcpy(directory.check_uuid.data(), velmar_metric_locator_get_check_uuid(metric.get()), 16);
    whisper = std::make_unique<velmar::ranged::from::whisper::ctx_c>();
    whisper->add(directory);
    whisper_builder_c::write(dir / "rolled/up.wsp",
                             whisper_builder_c({whisper_builder_c::ring(60, 1000, points)}).bytes());
  }

  const temp_dir_c dir;
  const metric_locator_sp metric = make_metric("rolled.up");
  std::deque<rollup_config_t> configs;
  rollup_config_set_t set;
  fake_source_c source;
  std::unique_ptr<velmar::ranged::from::whisper::ctx_c> whisper;
};

TEST_F(nntbs_reader, which_period_serves_a_span) {
  configure({60, 300, 3600});
  put(60, T, 1);
  const ctx_c outer(params()), inner(params(true));
  read_all(outer, range(T, T + 3600, 300));
  EXPECT_EQ(source.reads.back(), (fake_source_c::read_t{T, 300, 12}));
  read_all(outer, range(T, T + 3600, 900));  // three of the largest that divides it
  EXPECT_EQ(source.reads.back(), (fake_source_c::read_t{T, 300, 12}));
  EXPECT_EQ(error_of(outer, range(T, T + 3600, 90)), code_e::NO_SUCH_ROLLUP);
  EXPECT_EQ(error_of(outer, range(T, T + 3600, 900, false)), code_e::NO_SUCH_ROLLUP);
  EXPECT_EQ(error_of(outer, range(T, T + 60, 10)), code_e::NO_SUCH_ROLLUP);
  EXPECT_EQ(error_of(inner, range(T, T + 60, 10, false)), code_e::NO_SUCH_ROLLUP);
  EXPECT_EQ(error_of(inner, range(T, T + 70, 7)), code_e::NO_SUCH_ROLLUP);
  const auto coarse = read_all(inner, range(T, T + 600, 10));
  ASSERT_EQ(coarse.size(), 1U);
  EXPECT_EQ(coarse[0].span, 60000U);
  EXPECT_EQ(coarse[0].cells.size(), 10U);
  EXPECT_TRUE(read_all(inner, range(T, T + 50, 10)).empty());  // less than a cell
  configs[0].since = T;
  EXPECT_EQ(error_of(outer, range(T - 3600, T, 60)), code_e::NO_SUCH_ROLLUP);
  read_all(inner, range(T - 3600, T, 10));
  EXPECT_EQ(source.reads.back().period, 300U);
}

TEST_F(nntbs_reader, spans_of_split_seconds) {
  configure({1, 60});
  put(1, T, 1);
  log_capture_c log("error");
  EXPECT_EQ(error_of(ctx_c(params()), key_of(metric, T * 1000, (T + 3) * 1000, 1500)), code_e::NO_SUCH_ROLLUP);
  EXPECT_TRUE(
      log.contains("db/ranged/nntbs error: requested metric rolled.up period 1 s does not divide "
                   "requested period 1500 ms."));
  EXPECT_EQ(error_of(ctx_c(params()), key_of(metric, T * 1000, (T + 3) * 1000, 500)), code_e::NO_SUCH_ROLLUP);
  const auto runs = read_all(ctx_c(params(true)), key_of(metric, T * 1000, (T + 3) * 1000, 500));
  ASSERT_EQ(runs.size(), 1U);
  EXPECT_EQ(runs[0].span, 1000U);
  EXPECT_EQ(error_of(ctx_c(params(true)), key_of(metric, T * 1000, T * 1000 + 1000, 0)),
            code_e::UNALIGNED_OFFSET);
}

TEST_F(nntbs_reader, cells_of_a_longer_span_are_merged_window_by_window) {
  configure({1});
  constexpr uint64_t COLLAPSE = 30, CELLS = 700;  // 21,000 source cells, windows of 8192
  std::vector<nnt_multitype> expected(CELLS);
  for (uint64_t i = 0; i < COLLAPSE * CELLS; i++) {
    if (i % 7 == 0 || i / COLLAPSE % 11 == 3) continue;
    put(1, T + i, static_cast<double>(i % 97), 1 + static_cast<uint32_t>(i % 3));
  }
  for (uint64_t i = 0; i < COLLAPSE * CELLS; i++) {
    const auto found = source.cells.find({1, T + i});
    const nnt_multitype from = found == source.cells.end() ? nnt_multitype{} : found->second;
    nnt_multitype_accum(&expected[i / COLLAPSE], &from);
  }
  const auto runs = read_all(ctx_c(params()), range(T, T + COLLAPSE * CELLS, COLLAPSE));
  ASSERT_EQ(runs.size(), 1U);
  EXPECT_EQ(runs[0].span, COLLAPSE * 1000);
  ASSERT_EQ(runs[0].cells.size(), CELLS);
  for (size_t i = 0; i < CELLS; i++) ASSERT_TRUE(same(runs[0].cells[i], expected[i])) << i;
  for (const auto &read : source.reads) EXPECT_LE(read.count, 8192);
  EXPECT_EQ(source.reads.size(), 3U);
}

TEST_F(nntbs_reader, an_unknown_metric_and_an_empty_range_give_nothing) {
  configure({60});
  EXPECT_TRUE(read_all(ctx_c(params()), range(T, T + 600, 60)).empty());
  put(60, T, 1);
  EXPECT_TRUE(read_all(ctx_c(params()), range(T, T, 60)).empty());
  EXPECT_EQ(error_of(ctx_c(params()), range(T, T - 60, 60)), code_e::INTERNAL);
  EXPECT_EQ(error_of(ctx_c(params()), range(T, T + (uint64_t{1} << 40), 60)), code_e::NO_MEM);
}

TEST_F(nntbs_reader, damaged_cells_are_an_error_not_a_gap) {
  configure({60});
  put(60, T, 1);
  source.damaged_from = T + 300;
  log_capture_c log("error");
  EXPECT_EQ(error_of(ctx_c(params()), range(T, T + 600, 60)), code_e::INTERNAL);
  EXPECT_EQ(error_of(ctx_c(params()), range(T, T + 600, 120)), code_e::INTERNAL);
  EXPECT_TRUE(log.contains("CRC check failed for block at offset: 1 and surrogate: 2"));
  EXPECT_EQ(read_all(ctx_c(params()), range(T, T + 300, 60)).size(), 1U);
}

TEST_F(nntbs_reader, an_imported_file_comes_first_and_the_store_goes_on_behind_it) {
  configure({60, 300});
  std::vector<std::pair<uint32_t, double>> points;
  for (uint32_t i = 0; i < 100; i++) points.push_back({static_cast<uint32_t>(T + 60 * i), 1000.0 + i});
  import(points);
  for (uint32_t i = 0; i < 150; i++) put(60, T + 60 * i, i);
  auto runs = read_all(ctx_c(params()), range(T, T + 150 * 60, 60));
  ASSERT_EQ(runs.size(), 1U);
  for (uint32_t i = 0; i < 150; i++) ASSERT_EQ(runs[0].cells[i].value.v_double, i < 100 ? 1000.0 + i : i) << i;
  EXPECT_EQ(source.reads.size(), 1U);
  EXPECT_EQ(source.reads[0], (fake_source_c::read_t{T + 100 * 60, 60, 50}));

  source.reads.clear();
  read_all(ctx_c(params()), range(T, T + 100 * 60, 60));
  EXPECT_TRUE(source.reads.empty());
  runs = read_all(ctx_c(params()), range(T, T + 150 * 60, 120));  // 99, 100 in one cell: one of each
  EXPECT_EQ(nnt_multitype_double(runs[0].cells[49]), 1098.5);
  EXPECT_EQ(nnt_multitype_double(runs[0].cells[50]), 100.5);
  // unknown to the store: the file is all there is
  source.cells.clear();
  runs = read_all(ctx_c(params()), range(T, T + 150 * 60, 60));
  ASSERT_EQ(runs.size(), 1U);
  EXPECT_EQ(runs[0].cells.size(), 100U);

  whisper_builder_c::write(dir / "rolled/up.wsp", "short");
  log_capture_c log("error");
  EXPECT_TRUE(read_all(ctx_c(params()), range(T, T + 60, 60)).empty());
  EXPECT_TRUE(log.contains("Whisper error while reading rolled.up at timestamp 1699999200 with period 60: "));
}

TEST_F(nntbs_reader, first_and_last_time) {
  configure({60, 300});
  put(60, T + 60, 1);
  put(60, T + 660, 1);
  const ctx_c reader(params());
  EXPECT_EQ(reader.get_epoch(range(0, 60, 60)), (T + 60) * 1000);
  EXPECT_EQ(reader.get_apocalypse(range(0, 60, 60)), (T + 660) * 1000);
  EXPECT_EQ(reader.get_epoch(range(0, 300, 300)), std::nullopt);
}

// Last: hooks stay registered for the life of the process.
TEST_F(nntbs_reader, z_hooks_may_read_in_place_of_the_store) {
  configure({60});
  put(60, T, 1);
  static int result;
  static std::vector<int> asked;
  static const auto hook = [](void *closure, const metric_locator_sp &, uint64_t start_s, size_t count,
                              unsigned collapse, nnt_multitype *cells, const rollup_config_t *cfg,
                              size_t window, size_t *read_count) {
    const int which = *static_cast<int *>(closure);
    asked.push_back(which);
    if (start_s != T || cfg->period != 60 || collapse != 2 || window != MAX_READ_FOR_COLLAPSE) return 0;
    cells[0] = cell_of(100 + which);
    *read_count = std::min<uint64_t>(count, 3);
    return which == 2 ? result : 0;
  };
  static int first = 1, second = 2;
  fetch_nntbs_data_hook_register(hook, &first);
  fetch_nntbs_data_hook_register(hook, &second);
  const ctx_c reader(params());
  const auto read = [&] {
    asked.clear();
    source.reads.clear();
    return read_all(reader, range(T, T + 1200, 120)).at(0).cells;
  };
  result = 2;
  auto cells = read();
  EXPECT_EQ(asked, std::vector{2});
  ASSERT_EQ(cells.size(), 3U);
  EXPECT_EQ(cells[0].value.v_double, 102);
  EXPECT_TRUE(source.reads.empty());
  result = 1;
  cells = read();
  EXPECT_EQ(asked, (std::vector{2, 1}));
  EXPECT_EQ(cells[0].value.v_double, 101);
  EXPECT_TRUE(source.reads.empty());
  result = 0;
  EXPECT_EQ(read().size(), 10U);
  EXPECT_EQ(source.reads.size(), 1U);
}

}  // namespace
}  // namespace db::ranged::nntbs
