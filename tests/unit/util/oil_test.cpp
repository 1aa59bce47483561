#include "util/oil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "support/log_capture.h"

namespace {

using intervals_t = std::vector<std::pair<uint32_t, uint32_t>>;

intervals_t intervals_of(const oil_list_t *list) {
  intervals_t all;
  oil_iter(list, [&all](const oil_interval_t &i) { all.emplace_back(i.first, i.last); });
  return all;
}

oil_ptr list_of(const intervals_t &puts) {
  oil_ptr list(oil_alloc());
  for (const auto &[first, last] : puts) oil_put(list.get(), first, last);
  return list;
}

struct put_case_t {
  intervals_t before;
  uint32_t first, last;
  intervals_t after;
};

}  // namespace

TEST(Oil, PutsFollowTheRules) {
  const intervals_t one = {{100, 200}}, two = {{1000, 1100}, {2000, 2100}};
  const put_case_t cases[] = {
      {{}, 0, 0, {}},
      {{}, 5, 4, {}},
      {one, 0, 0, one},
      {{}, 0, 1, {{0, 1}}},
      {one, 150, 150, one},
      {one, 150, 250, {{100, 250}}},
      {one, 296, 296, {{100, 296}}},              // within the slack: the gap joins
      {one, 297, 297, {{100, 200}, {297, 297}}},  // beyond it
      {one, 50, 60, {{50, 200}}},
      {{{500, 600}}, 50, 60, {{50, 60}, {500, 600}}},
      {one, 50, 150, {{50, 200}}},
      {one, 50, 300, {{50, 300}}},
      {two, 1500, 1550, {{1000, 1100}, {1500, 1550}, {2000, 2100}}},
      {two, 1190, 1191, {{1000, 1191}, {2000, 2100}}},  // near the one before
      {two, 1910, 1920, {{1000, 1100}, {1910, 2100}}},  // near the one behind
      {two, 1050, 1101, {{1000, 1101}, {2000, 2100}}},  // one unit over an end
      {two, 1050, 1500, {{1000, 1500}, {2000, 2100}}},
      {two, 1050, 2050, {{1000, 1100}, {1101, 2100}}},  // what is between adjoins
      {two, 1500, 2050, {{1000, 1100}, {1500, 2100}}},  // begins in a gap: that part stays open
      {two, 1500, 2500, {{1000, 1100}, {1500, 2500}}},
      {two, 10, 3000, {{10, 1100}, {1101, 3000}}},
      {one, 4294967295, 4294967295, {{100, 200}, {4294967295, 4294967295}}},
      {{{100, 200}, {4294967290, 4294967295}}, 150, 4294967292, {{100, 200}, {201, 4294967295}}},
  };
  for (const put_case_t &c : cases) {
    const oil_ptr list = list_of(c.before);
    SCOPED_TRACE(oil_dump(list.get()) + " put " + std::to_string(c.first) + "," + std::to_string(c.last));
    EXPECT_EQ(oil_put(list.get(), c.first, c.last), c.before != c.after);
    EXPECT_EQ(intervals_of(list.get()), c.after);
  }
}

TEST(Oil, GrowsInTheStatedSteps) {
  const oil_ptr list(oil_alloc());
  std::vector<uint32_t> capacities = {oil_capacity(list.get())};
  for (uint32_t i = 1; i <= 40; i++) {
    oil_put(list.get(), i * 1000, i * 1000);
    if (oil_capacity(list.get()) != capacities.back()) capacities.push_back(oil_capacity(list.get()));
  }
  EXPECT_EQ(capacities, (std::vector<uint32_t>{1, 2, 8, 16, 32, 48}));
}

TEST(Oil, NullAndEmptyListsAreAlike) {
  const oil_ptr empty(oil_alloc());
  uint32_t first, last;
  EXPECT_TRUE(oil_exact_match(nullptr, empty.get()));
  EXPECT_TRUE(oil_exact_match(nullptr, nullptr));
  EXPECT_FALSE(oil_exact_match(nullptr, list_of({{1, 2}}).get()));
  EXPECT_FALSE(oil_epoch_apoc(nullptr, &first, &last));
  EXPECT_FALSE(oil_epoch_apoc(empty.get(), &first, &last));
  EXPECT_FALSE(oil_range_contains(empty.get(), 0, 4294967295, nullptr));
  EXPECT_TRUE(oil_valid(nullptr));
}

TEST(Oil, MergingCountsChangesAndRefusesItself) {
  const oil_ptr target = list_of({{100, 200}, {1000, 1100}}),
                source = list_of({{150, 180}, {1050, 1200}, {5000, 5001}});
  EXPECT_EQ(oil_merge_inplace(target.get(), source.get()), 2);
  EXPECT_EQ(intervals_of(target.get()), (intervals_t{{100, 200}, {1000, 1200}, {5000, 5001}}));
  log_capture_c log("error");
  EXPECT_EQ(oil_merge_inplace(target.get(), target.get()), 0);
  EXPECT_TRUE(log.text().find("warning: oil_merge_inplace - src") != std::string::npos);
}

// Random puts against a plain set of units. What a put may cover beyond its own interval is told by gaps: only
// whole gaps of up to the slack.
namespace {

constexpr uint32_t UNITS = 2500;

class model_c {
 public:
  bool holds(uint32_t unit) const { return m_units[unit]; }
  void put(uint32_t first, uint32_t last) {
    for (uint32_t u = first; u <= last; u++) m_units[u] = true;
  }
  // Takes over what the list covers, which must be all of this and else only short gaps in it.
  void follow(const intervals_t &list) {
    std::vector<char> covered(UNITS);
    for (const auto &[first, last] : list)
      for (uint32_t u = first; u <= last; u++) covered[u] = true;
    for (uint32_t u = 0; u < UNITS;) {
      if (m_units[u]) {
        ASSERT_TRUE(covered[u]) << "lost " << u;
        u++;
        continue;
      }
      uint32_t end = u, filled = 0;
      for (; end < UNITS && !m_units[end]; end++) filled += static_cast<uint32_t>(covered[end]);
      if (filled > 0) {
        ASSERT_EQ(filled, end - u) << "a gap closed in part at " << u;
        ASSERT_LE(filled, OIL_SLACK) << "at " << u;
        ASSERT_TRUE(u > 0 && end < UNITS);
      }
      u = end;
    }
    m_units = covered;
  }

 private:
  std::vector<char> m_units = std::vector<char>(UNITS);
};

void expect_searches(const oil_list_t *list, const model_c &model, uint32_t first, uint32_t last) {
  const intervals_t all = intervals_of(list);
  uint32_t index = 0;
  ASSERT_EQ(oil_find(list, first, &index), model.holds(first));
  if (model.holds(first)) {
    ASSERT_TRUE(all[index].first <= first && first <= all[index].second);
  }
  bool overlaps = false;
  for (uint32_t u = first; u <= last && !overlaps; u++) overlaps = model.holds(u);
  ASSERT_EQ(oil_range_contains(list, first, last, &index), overlaps);
  if (overlaps) {
    ASSERT_TRUE(all[index].second >= first && (index == 0 || all[index - 1].second < first));
  }
}

}  // namespace

TEST(Oil, RandomPutsAgreeWithASetOfUnits) {
  for (uint32_t seed = 1; seed <= 40; seed++) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const oil_ptr list(oil_alloc_cap(random() % 4));
    model_c model;
    const uint32_t longest = std::vector<uint32_t>{1, 30, 300, 1500}[seed % 4];
    for (int step = 0; step < 120; step++) {
      const uint32_t first = 1 + random() % (UNITS - longest - 1), last = first + random() % longest;
      const intervals_t before = intervals_of(list.get());
      const bool changed = oil_put(list.get(), first, last);
      ASSERT_EQ(changed, before != intervals_of(list.get()));
      ASSERT_TRUE(oil_valid(list.get())) << oil_dump(list.get());
      model.put(first, last);
      ASSERT_NO_FATAL_FAILURE(model.follow(intervals_of(list.get()))) << "put " << first << "," << last;
      const uint32_t from = random() % UNITS, to = from + random() % (UNITS - from);
      ASSERT_NO_FATAL_FAILURE(expect_searches(list.get(), model, from, to));
    }
    ASSERT_TRUE(oil_exact_match(list.get(), oil_ptr(oil_clone(list.get())).get()));
  }
}

TEST(Oil, ReadersSeeAValidListWhileWritersChangeIt) {
  const oil_ptr list(oil_alloc());
  std::atomic<bool> done = false;
  std::atomic<int> invalid = 0;
  const auto write = [&list](uint32_t start) {
    for (uint32_t i = 0; i < 3000; i++) oil_put(list.get(), start + i * 40, start + i * 40 + 3 + i % 300);
  };
  const auto read = [&] {
    while (!done) {
      if (!oil_valid(list.get())) invalid++;
      uint32_t first, last;
      if (oil_epoch_apoc(list.get(), &first, &last) && first > last) invalid++;
    }
  };
  std::thread reader_a(read), reader_b(read), low(write, 1000), high(write, 500000);
  std::thread merger([&list] {
    const oil_ptr other = list_of({{2000, 2100}, {900000, 900100}});
    for (int i = 0; i < 500; i++) oil_merge_inplace(list.get(), other.get());
  });
  for (std::thread *t : {&low, &high, &merger}) t->join();
  done = true;
  reader_a.join();
  reader_b.join();
  EXPECT_EQ(invalid, 0);
  for (uint32_t i = 0; i < 3000; i++)
    for (const uint32_t start : {1000u, 500000u})
      ASSERT_TRUE(oil_find(list.get(), start + i * 40, nullptr) &&
                  oil_find(list.get(), start + i * 40 + 3, nullptr));
}
