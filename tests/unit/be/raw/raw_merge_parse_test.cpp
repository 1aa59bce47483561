// A peer's merge: which lines are samples, which name metrics, and what each costs when it is bad.

#include "be/raw/raw_merge_parse.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "libvelmar/topo/topo.h"
#include "platform/krel/base/krel_memory.h"
#include "platform/krel/base/krel_util.h"

namespace be::raw {
namespace {

constexpr const char *ME = "11111111-1111-4111-8111-111111111111",
                     *CHECK = "c9b0e0f2-6a6e-4b53-9a62-3f6f3e6f1a11";

// This node alone owns everything.
void be_the_owner() {
  static bool done = false;
  if (std::exchange(done, true)) return;
  topo_init_globals();
  std::string error;
  auto topology =
      topo_compile_text(fmt::format("<nodes write_copies=\"1\"><node id=\"{}\" address=\"127.0.0.1\" "
                                    "port=\"1\" apiport=\"1\" weight=\"10\"/></nodes>",
                                    ME),
                        nullptr, &error);
  ASSERT_TRUE(topology) << error;
  topo_uuid_t me;
  ASSERT_EQ(krel_uuid_parse(ME, me.data()), 0);
  topo_initialize(topo_retain(std::move(topology)), nullptr, me);
  ASSERT_EQ(topo_set_node(me), 0);
}

struct merged_t {
  std::vector<std::string> samples, named;
  uint32_t errors, processed;
  bool journaled;
};

merged_t merge(std::string text) {
  be_the_owner();
  merged_t merged = {};
  const krel_memory_section_c section;
  known_metrics_c known;
  raw_batch_t batch;
  std::vector<metric_locator_sp> named;
  raw_put_request_t *request = raw_put_request_t::create(nullptr);
  const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
  EXPECT_TRUE(rest_raw_mgr_reconstitute_metrics_parse(request, &known, text.data(), text.size(), lines, &batch,
                                                      &named));
  for (const batch_numeric_t &n : batch.numerics)
    merged.samples.emplace_back(velmar_metric_locator_get_name_with_tags(n.locator.get()));
  for (const metric_locator_sp &l : named)
    merged.named.push_back(fmt::format("{}/{}/{}", velmar_metric_locator_get_account_id(l.get()),
                                       velmar_metric_locator_get_name_with_tags(l.get()),
                                       static_cast<int>(velmar_metric_locator_get_type(l.get()))));
  merged.errors = request->counters.errors;
  merged.processed = request->counters.processed;
  merged.journaled = batch.journal == batch_journal_e::journal;
  libvelmar_join_commit(request->joiner);
  request->let_go();
  return merged;
}

std::string sample(const std::string &name) {
  return fmt::format("M\t{}\thost`check`c_1`{}\t{}\tn\t1.5\n", krel_now_ms() / 1000, CHECK, name);
}
std::string naming(const std::string &name, const std::string &category = "1") {
  return fmt::format("M\t1\t{}\tcheck\t{}\t{}\n", CHECK, name, category);
}

TEST(raw_merge_parse, samples_and_names_may_be_mixed) {
  const merged_t merged = merge(sample("a") + naming("x|ST[b:2,a:1]") + sample("b") + "\n" + naming("y", "2") +
                                naming("z", "0") + sample("c"));
  EXPECT_EQ(merged.samples, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(merged.named, (std::vector<std::string>{"1/x|ST[a:1,b:2]/1", "1/y/2", "1/z/1"}));
  EXPECT_EQ(merged.errors, 0U);
  EXPECT_EQ(merged.processed, 7U);
  EXPECT_FALSE(merged.journaled);
}

TEST(raw_merge_parse, each_bad_line_is_one_error) {
  const merged_t merged = merge(naming("x|ST[a") + naming("x", "8") + naming("x", "one") + "M\t1\n" +
                                fmt::format("M\t1\t{}\n", CHECK) + fmt::format("M\t1\t{}\tcheck\n", CHECK) +
                                "Q\tnothing\n" + sample("bad|ST[a") + sample("good") + naming("good"));
  EXPECT_EQ(merged.samples, std::vector<std::string>{"good"});
  EXPECT_EQ(merged.named, std::vector<std::string>{"1/good/1"});
  EXPECT_EQ(merged.errors, 8U);
  EXPECT_EQ(merged.processed, 10U);
}

}  // namespace
}  // namespace be::raw
