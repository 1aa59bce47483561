#include <gtest/gtest.h>

#include <map>

#include "db/surrogate/batch_accumulator.h"
#include "db/surrogate/counter_writer_async.h"
#include "support/fake_clock.h"
#include "support/surrogate_metrics.h"

namespace db::surrogate {

namespace {

// Knows even ids, two to a page.
class even_ids_c : public lookup_synch_c {
 public:
  class pages_c : public batch_find_result_t {
   public:
    explicit pages_c(std::span<const uint64_t> ids) : _ids(ids.begin(), ids.end()) {}
    const std::vector<metric_locator_sp> &get_page_locators() const override { return _page; }
    bool fill_next_page() override {
      _page.clear();
      if (_next == _ids.size()) return false;
      for (int i = 0; i < 2 && _next < _ids.size(); ++i, ++_next)
        if (_ids[_next] % 2 == 0) _page.push_back(make_stored_metric(_ids[_next], std::to_string(_ids[_next])));
      return true;
    }

   private:
    const std::vector<uint64_t> _ids;
    size_t _next = 0;
    std::vector<metric_locator_sp> _page;
  };
  void for_each_surrogate(bool (*)(const metric_locator_sp &, void *), void *) override {}
  void for_each_activity(bool (*)(uint64_t, const oil_list_t *, void *), void *) override {}
  std::optional<uint64_t> find(const metric_locator_sp &) override { return {}; }
  metric_locator_sp find_reverse(uint64_t) override { return nullptr; }
  uint64_t get_count_estimate() override { return 12345; }
  std::pair<std::vector<metric_locator_sp>, std::vector<uint64_t>> batch_erase(
      std::span<const uint64_t>) override {
    return {};
  }
  batch_find_result_sp batch_find(std::span<const uint64_t> ids) override {
    return std::make_shared<pages_c>(ids);
  }
  batch_find_result_sp batch_find(const std::vector<metric_locator_sp> &) override { return nullptr; }
  std::vector<metric_locator_sp> side_load_all_surrogates() override { return {}; }
  void side_load_all_surrogates(const std::function<bool(const metric_locator_sp &)> &) override {}
};

struct no_writer_c : writer_asynch_c {
  void write_surrogate_set_asynch(write_entry_c *, size_t count, wrote_cb_f, write_error_cb_f,
                                  void *) override {
    forwarded += count;
  }
  size_t forwarded = 0;
};

}  // namespace

TEST(BatchAccumulator, ResolvesWhatIsKnown) {
  even_ids_c lookup;
  batch_accumulator_c batch(&lookup);
  for (const uint64_t id : {2, 3, 4, 6, 7, 8, 4}) batch.add(id);
  EXPECT_EQ(batch.size(), 6u);
  batch.resolve();
  EXPECT_EQ(name_of(batch.get(6)), "6");
  EXPECT_FALSE(batch.get(3));
  batch.remove(6);
  EXPECT_FALSE(batch.get(6));
  std::map<uint64_t, std::string> seen;
  batch.for_each([&seen](uint64_t id, const metric_locator_sp &locator) {
    seen[id] = name_of(locator);
    return true;
  });
  EXPECT_EQ(seen, (std::map<uint64_t, std::string>{{2, "2"}, {4, "4"}, {8, "8"}}));
}

TEST(CounterWriter, CountsByPeriods) {
  fake_clock_c clock;
  const auto writer = std::make_shared<no_writer_c>();
  counter_writer_async_c counter(writer, std::make_shared<even_ids_c>(), clock);
  const auto write = [&](int from, int to) {
    std::vector<write_entry_c> entries;
    for (int i = from; i < to; ++i) {
      key_c key;
      key.set_data(make_metric("m" + std::to_string(i), static_cast<uint8_t>(i)), std::chrono::milliseconds(0));
      entries.emplace_back(key);
    }
    counter.write_surrogate_set_asynch(entries.data(), entries.size(), nullptr, nullptr, nullptr);
  };
  EXPECT_EQ(counter.get_count_estimate(), 0u);
  write(0, 100);
  write(0, 100);
  EXPECT_NEAR(static_cast<double>(counter.get_count_estimate()), 100, 3);
  clock.advance_s(299);
  write(100, 200);
  EXPECT_NEAR(static_cast<double>(counter.get_count_estimate()), 200, 6);
  clock.advance_s(1);
  write(0, 10);  // a new period; the whole one before is the better answer
  EXPECT_NEAR(static_cast<double>(counter.get_count_estimate()), 200, 6);
  clock.advance_s(301);  // which is too old now
  EXPECT_NEAR(static_cast<double>(counter.get_count_estimate()), 10, 1);
  clock.advance_s(300);
  EXPECT_EQ(counter.get_count_estimate(), 0u);
  EXPECT_EQ(writer->forwarded, 310u);
}

}  // namespace db::surrogate
