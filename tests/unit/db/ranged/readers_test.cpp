// The readers as a node has them, over real stores.

#include "db/ranged/readers.h"

#include "db/ranged/nntbs/nntbs.h"
#include "platform/krel/base/krel_conf.h"
#include "ranged_support.h"
#include "support/raw_store.h"
#include "support/temp_dir.h"
#include "whisper_builder.h"

namespace db::ranged {
namespace {

using namespace ranged_support;

constexpr uint64_t ID = 3, T = raw_store_c::NOW_S - 7200;  // seconds; a whole hour
static_assert(T % 3600 == 0);

class no_surrogates_c : public db::surrogate::skeleton_decorator_lookup_synch_c {
 public:
  no_surrogates_c() : skeleton_decorator_lookup_synch_c(nullptr) {}
  std::optional<uint64_t> find(const metric_locator_sp &) override { return {}; }
};

// One metric with cells of a minute and of five, and samples, each where a test puts them.
class readers : public testing::Test {
 protected:
  readers() {
    init_private_nan();
    for (size_t i = 0; i < 2; i++) {
      configs[i].period = i ? 300 : 60;
      set.configs.push_back(&configs[i]);
    }
    rollup_config_init(&set);
    EXPECT_TRUE(krel_conf_load_text(
        "<velmar><nntbs path=\"{node}\"><shard period=\"60\" size=\"1d\" initial_map_size=\"1048576\"/>"
        "<shard period=\"300\" size=\"1d\" initial_map_size=\"1048576\"/></nntbs><graphite><whisper "
        "directory=\"" +
            dir.path() + "/whisper\" account_id=\"1\" check_uuid=\"abcdef00-0000-0000-0000-000000000001\"/>" +
            "</graphite></velmar>",
        "conf"));
    nntbs_init(dir / "nntbs", &set, nullptr, nullptr);
  }
  ~readers() override {
    ranged_readers_close();
    nntbs_close();
  }
  void init(bool with_raw = true) {
    ranged_readers_params_t params;
    params.rollups = &set;
    params.raw = with_raw ? store.shards() : nullptr;
    params.lookup = std::make_shared<no_surrogates_c>();
    ranged_readers_init(params);
  }
  // Minutes of the two hours.
  void put_cells(unsigned period, int from, int to, double value) {
    const std::vector<nnt_multitype> cells(static_cast<size_t>(to - from) * 60 / period, cell_of(value));
    ASSERT_EQ(nntbs_put_range((T + static_cast<uint64_t>(from) * 60) * 1000, metric, cells.data(), cells.size(),
                              period),
              0);
  }
  void put_samples(int from, int to, double value) {
    std::vector<db::raw::nom_sample_t> samples;
    for (int minute = from; minute < to; minute++)
      samples.push_back(
          db::raw::nom_sample_t::of_double(ID, (T + static_cast<uint64_t>(minute) * 60 + 1) * 1000, value));
    store.write(samples);
  }
  // The runs of the two hours as words: first minute, minutes of a cell, then a letter for each cell.
  std::string read(const db::kv::ranged_reader_c *reader, uint64_t span_s = 60) {
    std::string out;
    for (const run_t &run : read_all(*reader, key_of(metric, T * 1000, (T + 7200) * 1000, span_s * 1000))) {
      out += fmt::format("{}{}:{}:", out.empty() ? "" : " ", (run.beg / 1000 - T) / 60, run.span / 60000);
      for (const nnt_multitype &cell : run.cells)
        out += cell.type < NNT_TYPE_INT32 ? '-' : static_cast<char>('a' + nnt_multitype_double(cell));
    }
    return out;
  }
  static std::string times(const std::string &text, int count) {
    std::string out;
    while (count-- > 0) out += text;
    return out;
  }

  const temp_dir_c dir;
  raw_store_c store;
  const metric_locator_sp metric = make_stored_metric(ID, "web.load");
  rollup_config_t configs[2];
  rollup_config_set_t set;
};

TEST_F(readers, rollups_first_then_samples) {
  init();
  put_cells(60, 0, 30, 1);
  put_cells(60, 40, 80, 1);
  put_samples(20, 120, 2);
  EXPECT_EQ(read(outer_nnt_reader()),
            "0:1:" + times("b", 30) + times("-", 10) + times("b", 40) + times("-", 40));
  EXPECT_EQ(read(fromRaw_reader()), "0:1:" + times("-", 20) + times("c", 100));
  EXPECT_EQ(read(simple_dispatch_reader()),
            "0:1:" + times("b", 30) + times("-", 10) + times("b", 40) + " 80:1:" + times("c", 40));
  EXPECT_EQ(read(simple_dispatch_reader(), 180),
            "0:3:" + times("b", 10) + "---" + times("b", 14) + " 81:3:" + times("c", 13));
}

TEST_F(readers, what_both_lack_comes_from_coarser_rollups) {
  init();
  put_cells(60, 0, 30, 1);
  put_samples(60, 90, 2);
  put_cells(300, 0, 120, 3);
  EXPECT_EQ(read(inner_dispatch_reader(), 300), "0:5:" + times("d", 12) + " 60:5:cccccc 90:5:dddddd");
  // a minute's store exists, so the smallest period that could stand in for a minute is the minute's own
  EXPECT_EQ(read(coarsen_dispatch_reader()), "0:1:" + times("b", 30) + " 30:1:" + times("-", 30) +
                                                 " 60:1:" + times("c", 30) + " 90:1:" + times("-", 30));
}

TEST_F(readers, a_span_finer_than_all_periods) {
  init();
  put_cells(60, 0, 60, 1);
  put_samples(90, 91, 2);
  code_e code;
  const auto key = key_of(metric, T * 1000, (T + 7200) * 1000, 10000);
  read_all(*outer_nnt_reader(), key, &code);
  EXPECT_EQ(code, code_e::NO_SUCH_ROLLUP);
  const auto runs = read_all(*coarsen_dispatch_reader(), key);
  ASSERT_EQ(runs.size(), 3U);
  EXPECT_EQ(runs[0].span, 60000U);
  EXPECT_EQ(runs[0].cells.size(), 90U);
  EXPECT_EQ(runs[0].cells[59].value.v_double, 1);
  EXPECT_EQ(runs[1].span, 10000U);
  EXPECT_EQ(runs[1].beg, (T + 90 * 60) * 1000);
  EXPECT_EQ(read_all(*simple_dispatch_reader(), key).size(), 1U);
}

TEST_F(readers, without_a_raw_store) {
  init(false);
  put_cells(60, 0, 60, 1);
  EXPECT_EQ(fromRaw_reader(), nullptr);
  EXPECT_EQ(inner_dispatch_reader(), nullptr);
  EXPECT_EQ(simple_dispatch_reader(), coarsen_dispatch_reader());
  EXPECT_EQ(read(simple_dispatch_reader(), 180), "0:3:" + times("b", 20) + " 60:3:" + times("-", 20));
}

TEST_F(readers, imported_cells_stand_before_stored_ones) {
  std::vector<std::pair<uint32_t, double>> points;
  for (uint32_t minute = 0; minute < 20; minute++)
    points.push_back({static_cast<uint32_t>(T + minute * 60), 4});
  whisper_builder_c::write(dir / "whisper/web/load.wsp",
                           whisper_builder_c({whisper_builder_c::ring(60, 500, points)}).bytes());
  init();
  put_cells(60, 10, 40, 1);
  put_samples(30, 60, 2);
  EXPECT_EQ(read(simple_dispatch_reader()), "0:1:" + times("e", 20) + times("b", 20) +
                                                " 40:1:" + times("-", 0) + times("c", 20) + times("-", 60));
}

TEST_F(readers, nothing_of_an_unknown_metric) {
  init();
  const auto unknown = make_metric("unknown");
  for (const auto *reader : {outer_nnt_reader(), inner_nnt_reader(), fromRaw_reader(), simple_dispatch_reader(),
                             inner_dispatch_reader(), coarsen_dispatch_reader()}) {
    EXPECT_TRUE(read_all(*reader, key_of(unknown, T * 1000, (T + 3600) * 1000, 60000)).empty());
    EXPECT_EQ(reader->get_epoch(key_of(unknown, 0, 60000, 60000)), std::nullopt);
  }
  put_cells(60, 5, 10, 1);
  put_samples(8, 20, 1);
  EXPECT_EQ(simple_dispatch_reader()->get_epoch(key_of(metric, 0, 60000, 60000)), (T + 5 * 60) * 1000);
  EXPECT_EQ(simple_dispatch_reader()->get_apocalypse(key_of(metric, 0, 60000, 60000)), (T + 19 * 60) * 1000);
}

}  // namespace
}  // namespace db::ranged
