// Lines into batches: what is counted and logged, and that a metric known already costs a look-up.

#include <gmock/gmock.h>

#include <algorithm>
#include <string>

#include "be/graphite/rest_graphite_mgr.h"
#include "be/raw/raw_put_parse.h"
#include "platform/krel/base/krel_memory.h"
#include "platform/krel/base/krel_util.h"
#include "support/log_capture.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace be::graphite {
namespace {

const source_t SOURCE{{1, 2, 3}, 7};

class graphite_parse : public testing::Test {
 protected:
  void SetUp() override { rest_graphite_mgr_init(); }

  std::string at_now(const std::string &text) const { return text + " " + std::to_string(now_s) + "\n"; }
  void parse(const std::string &text) {
    const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    rest_graphite_mgr_parse_ingestion_data(SOURCE, &counters, &known, text.data(), text.size(), lines, &batch);
  }
  std::string name(size_t i) const {
    return velmar_metric_locator_get_name_with_tags(batch.numerics[i].locator.get());
  }
  void make_known(const std::string &canonical, const raw::metric_name_t &sent) {
    mem_reader_t reader;
    mem_reader_init_mem(&reader, canonical.data(), canonical.size());
    const auto locator = metric_locator_adopt(velmar_metric_locator_create_full(
        SOURCE.account_id, METRIC_TYPE_NUMERIC, SOURCE.check_uuid.data(), &reader));
    velmar_metric_locator_set_surrogate_id(locator.get(), 42);
    velmar_metric_locator_set_canonical(locator.get());
    known.insert(sent, locator.get());
  }

  const krel_memory_section_c section;
  const uint64_t now_s = krel_now_ms() / 1000;
  raw::known_metrics_c known;
  raw::raw_batch_t batch;
  atomic_counters_t counters;
};

TEST_F(graphite_parse, a_bad_line_costs_itself_alone) {
  const log_capture_c log("error/graphite");
  const std::string long_name(4096, 'n');
  parse(at_now("first 1") + "nothing\n" + at_now(long_name + " 1") + "one 1\n" + "old 1 100\n" +
        "new 1 99999999999\n" + at_now("word word") + at_now("huge 1e999") + at_now("tags;a=b|ST[c:d] 1") +
        at_now(" 1") + at_now(";no_tag 1") + at_now("bad\x01name 1") + "\n" + at_now("last 2.5"));
  ASSERT_EQ(batch.size(), 2U);
  EXPECT_EQ(name(0), "first");
  EXPECT_EQ(name(1), "last");
  EXPECT_EQ(batch.samples[1].ts_ms, now_s * 1000);
  EXPECT_EQ(batch.samples[1].type, 'n');
  EXPECT_EQ(counters.processed, 14U);
  EXPECT_EQ(counters.discarded, 2U);
  EXPECT_EQ(counters.errors, 10U);
  const std::string time = std::to_string(now_s), bad = "Invalid graphite record, ";
  EXPECT_THAT(log.lines(), ElementsAre(bad + "can't find the first space or tab in: nothing",
                                       bad + "metric name too long: " + long_name.substr(0, 1000),
                                       bad + "can't find the second space or tab in: one 1",
                                       bad + "weird or really old timestamp: old 1 100",
                                       bad + "weird or really futuristic timestamp: new 1 99999999999",
                                       bad + "no digits in value: word word " + time,
                                       bad + "strtod cannot parse value: huge 1e999 " + time,
                                       "Invalid graphite record: cannot parse metric name \"tags;a=b|ST[c:d]\"",
                                       "Invalid graphite record: cannot parse metric name \"\"",
                                       "Invalid graphite record: cannot parse metric name \";no_tag\"",
                                       "Invalid graphite record: cannot parse metric name \"bad\\x01name\"",
                                       bad + "can't find the first space or tab in: "));
}

TEST_F(graphite_parse, tags_are_canonical_and_the_metric_is_the_sources) {
  parse(at_now("foo;c=d;junk;a=b 1") + at_now("foo;a=\"q\" 1") + at_now("foo;junk 1"));
  ASSERT_EQ(batch.size(), 3U);
  EXPECT_EQ(name(0), "foo|ST[a:b,c:d]");
  const velmar_metric_locator_t *locator = batch.numerics[0].locator.get();
  EXPECT_EQ(velmar_metric_locator_get_account_id(locator), 7);
  EXPECT_EQ(memcmp(velmar_metric_locator_get_check_uuid(locator), SOURCE.check_uuid.data(), 16), 0);
  EXPECT_EQ(name(1), "foo|ST[a:b\"InEi\"]");
  EXPECT_EQ(name(2), "foo");
}

TEST_F(graphite_parse, a_known_metric_is_not_parsed_again) {
  const log_capture_c log("debug/graphite");
  make_known("foo|ST[a:b]",
             {SOURCE.check_uuid.data(), SOURCE.account_id, "foo;a=b", raw::name_form_e::graphite});
  parse(at_now("foo;a=b 1") + at_now("foo;a=c 1"));
  ASSERT_EQ(batch.size(), 2U);
  EXPECT_EQ(batch.samples[0].surrogate_id, 42U);
  EXPECT_EQ(name(0), "foo|ST[a:b]");
  EXPECT_EQ(batch.samples[1].surrogate_id, 0U);
  EXPECT_FALSE(log.contains("Reformatted graphite name: foo|ST[a:b]"));
  EXPECT_TRUE(log.contains("Reformatted graphite name: foo|ST[a:c]"));
}

TEST_F(graphite_parse, a_metric_of_the_same_bytes_in_the_other_grammar_is_another) {
  make_known("foo;a=b", {SOURCE.check_uuid.data(), SOURCE.account_id, "foo;a=b"});
  make_known("plain", {SOURCE.check_uuid.data(), SOURCE.account_id, "plain"});
  parse(at_now("foo;a=b 1") + at_now("plain 1"));
  ASSERT_EQ(batch.size(), 2U);
  EXPECT_EQ(name(0), "foo|ST[a:b]");
  EXPECT_EQ(batch.samples[1].surrogate_id, 42U) << "a name without tags is the same in both";
}

TEST_F(graphite_parse, the_discard_filter_drops_and_counts) {
  raw::raw_mgr_set_discard_filter([](int32_t account, const velmar_metric_locator_t *locator) {
    return account == 7 && velmar_metric_locator_get_name_with_tags(locator)[0] == 'd';
  });
  parse(at_now("drop;a=b 1") + at_now("keep;a=b 1"));
  raw::raw_mgr_set_discard_filter(nullptr);
  ASSERT_EQ(batch.size(), 1U);
  EXPECT_EQ(name(0), "keep|ST[a:b]");
  EXPECT_EQ(counters.discarded, 1U);
  EXPECT_EQ(batch.samples.size(), 1U);
}

}  // namespace
}  // namespace be::graphite
