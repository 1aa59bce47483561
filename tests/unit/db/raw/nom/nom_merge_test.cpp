#include "db/raw/nom/nom_merge.h"

#include <cmath>
#include <map>
#include <random>

#include "nom_support.h"

namespace {

using namespace nom_support;
using enum conflict_resolver_e;

std::string full(conflict_resolver_e resolver, const std::vector<std::string> &operands,
                 std::optional<std::string> existing = {}) {
  std::optional<std::string_view> base;
  if (existing) base = *existing;
  return std::string(merge_op_full(resolver, base, operand_list_t(operands)).value());
}
std::string partial(const std::vector<std::string> &operands) {
  return std::string(merge_op_partial(operand_list_t(operands)).value());
}

TEST(nom_merge, widening_and_containment) {
  // The narrowest type that contains both, found by trying.
  for (uint8_t a = 1; a <= 5; ++a) {
    for (uint8_t b = 1; b <= 5; ++b) {
      uint8_t narrowest = 1;
      while (!can_type_contain(a, narrowest) || !can_type_contain(b, narrowest)) ++narrowest;
      EXPECT_EQ(widened_type(a, b), narrowest) << int{a} << " " << int{b};
    }
  }
  const std::string contained[] = {"", "135", "2345", "35", "45", "5"};
  for (unsigned item = 1; item <= 5; ++item) {
    std::string containers;
    for (unsigned c = 1; c <= 5; ++c) {
      if (can_type_contain(item, c)) containers += static_cast<char>('0' + c);
    }
    EXPECT_EQ(containers, contained[item]);
  }
  EXPECT_DEATH(can_type_contain(6, 5), "item < 6 && item > 0");
}

TEST(nom_merge, blocks_widen_with_their_values) {
  const std::string int32 = record_builder_c(1).add<int32_t>(1, -7, 3);
  const std::string uint32 = record_builder_c(2).add<uint32_t>(2, 4000000000u);
  const std::string int64 = record_builder_c(3).add<int64_t>(3, -1ll << 40);
  const std::string uint64 = record_builder_c(4).add<uint64_t>(4, 1ull << 63, 0, false);
  EXPECT_EQ(full(last_abs_max, {uint32}, int32),
            std::string(record_builder_c(3).add<int64_t>(1, -7, 3).add<int64_t>(2, 4000000000)));
  EXPECT_EQ(full(last_abs_max, {uint64}, int32),
            std::string(record_builder_c(5).add(1, -7.0, 3).add(4, 0x1p63)));
  const std::string wide = full(last_abs_max, {int64}, uint64);
  EXPECT_EQ(wide, std::string(record_builder_c(5).add(3, -0x1p40).add(4, 0x1p63)));
  EXPECT_EQ(full(last_abs_max, {uint32}, wide),
            std::string(record_builder_c(5).add(2, 4e9).add(3, -0x1p40).add(4, 0x1p63)));
  // The generation and null bits come along.
  EXPECT_EQ(
      full(last_abs_max, {record_builder_c(5).add(9, 1.5)}, record_builder_c(1).add<int32_t>(8, 0, 511, true)),
      std::string(record_builder_c(5).add(8, 0.0, 511, true).add(9, 1.5)));
}

TEST(nom_merge, who_stays_at_one_time) {
  struct case_t {
    conflict_resolver_e resolver;
    double kept, incoming;
    int kept_generation, incoming_generation;
    bool replaced;
  };
  const case_t cases[] = {
      {abs_max, 3, -4, 0, 0, true},      {abs_max, -4, 3, 0, 0, false},     {abs_max, 3, -3, 0, 0, false},
      {abs_max, 5, 4, 0, 1, false},      {max, -4, 3, 0, 0, true},          {max, 3, -4, 0, 0, false},
      {abs_min, -4, 3, 0, 0, true},      {abs_min, 3, -4, 0, 0, false},     {min, 3, -4, 0, 0, true},
      {min, -4, 3, 0, 0, false},         {min, 3, 3, 0, 1, false},          {last_abs_max, 3, -4, 0, 0, true},
      {last_abs_max, 9, 1, 0, 1, true},  {last_abs_max, 1, 9, 1, 0, false}, {last_abs_max, 9, -1, 5, 5, false},
      {last_max, -4, 3, 2, 2, true},     {last_max, 3, -4, 2, 3, true},     {last_max, 3, 4, 3, 2, false},
      {last_abs_min, -4, 3, 2, 2, true}, {last_abs_min, 3, 4, 2, 3, true},  {last_min, 3, -4, 2, 2, true},
      {last_min, 3, -4, 3, 2, false},
  };
  for (const case_t &c : cases) {
    const std::string kept = record_builder_c(5).add(7, c.kept, c.kept_generation);
    const std::string incoming = record_builder_c(5).add(7, c.incoming, c.incoming_generation);
    EXPECT_EQ(full(c.resolver, {incoming}, kept), c.replaced ? incoming : kept)
        << static_cast<int>(c.resolver) << " " << c.kept << " " << c.incoming;
  }
}

TEST(nom_merge, each_type_is_compared_in_its_own_order) {
  const auto stays = [](uint8_t type, auto kept, auto incoming, conflict_resolver_e resolver) {
    const std::string a = record_builder_c(type).add(0, kept), b = record_builder_c(type).add(0, incoming);
    return full(resolver, {a, b}) == b ? 'b' : 'a';
  };
  EXPECT_EQ(stays(1, int32_t{1}, int32_t{-1}, max), 'a');
  EXPECT_EQ(stays(2, uint32_t{1}, ~uint32_t{0}, max), 'b');
  EXPECT_EQ(stays(3, int64_t{-1}, int64_t{1}, max), 'b');
  EXPECT_EQ(stays(4, uint64_t{1}, ~uint64_t{0}, abs_max), 'b');
  EXPECT_EQ(stays(1, INT32_MAX, INT32_MIN, abs_max), 'b');  // whose magnitude fits no int32
  EXPECT_EQ(stays(3, INT64_MIN, INT64_MAX, abs_max), 'a');
  EXPECT_EQ(stays(3, (int64_t{1} << 53) + 1, int64_t{1} << 53, max), 'a');  // equal as doubles
  EXPECT_EQ(stays(5, 1.0, std::nan(""), max), 'a');
}

TEST(nom_merge, a_null_counts_as_zero) {
  const std::string five = record_builder_c(1).add<int32_t>(0, 5);
  const std::string null = record_builder_c(1).add<int32_t>(0, 0, 0, true);
  EXPECT_EQ(full(max, {null}, five), five);
  EXPECT_EQ(full(min, {null}, five), null);
}

TEST(nom_merge, partial_keeps_duplicates_and_order_and_full_removes_them) {
  const std::string late = record_builder_c(1).add<int32_t>(9, 1),
                    early = record_builder_c(1).add<int32_t>(3, 2),
                    again = record_builder_c(1).add<int32_t>(9, 8);
  const std::string joined = partial({late, early, again});
  EXPECT_EQ(joined, std::string(record_builder_c(1).add<int32_t>(9, 1).add<int32_t>(3, 2).add<int32_t>(9, 8)));
  EXPECT_EQ(full(last_abs_max, {joined}),
            std::string(record_builder_c(1).add<int32_t>(3, 2).add<int32_t>(9, 8)));
}

TEST(nom_merge, damaged_operands_disappear) {
  const std::string good = record_builder_c(1).add<int32_t>(3, 2),
                    other = record_builder_c(2).add<uint32_t>(4, 3);
  for (size_t byte = 0; byte < good.size(); ++byte) {
    std::string flipped = other;
    flipped[byte] ^= 0x10;
    EXPECT_EQ(full(last_abs_max, {flipped, good}), good) << byte;
    EXPECT_EQ(full(last_abs_max, {flipped}, good), good) << byte;
    EXPECT_EQ(partial({flipped, good}), good) << byte;
  }
  // A right checksum over a length that does not fit the count.
  std::string cut = other.substr(0, other.size() - 1);
  seal(&cut);
  EXPECT_EQ(full(last_abs_max, {cut, "", good}), good);
  std::string nothing(6, '\0');
  nothing[1] = 1;
  seal(&nothing);
  EXPECT_EQ(full(last_abs_max, {cut}), nothing);
}

TEST(nom_merge, a_type_of_another_store_stops_the_merge) {
  const std::string good = record_builder_c(1).add<int32_t>(3, 2), hist = hist_record(6, {{1, "abc"}});
  EXPECT_FALSE(merge_op_full(max, good, operand_list_t({hist})).has_value());
  EXPECT_FALSE(merge_op_full(max, hist, operand_list_t({good})).has_value());
  EXPECT_FALSE(merge_op_partial(operand_list_t({good, hist})).has_value());
  EXPECT_FALSE(merge_op_full(max, good.substr(0, 9), operand_list_t({good})).has_value());
}

// ---- random sets against a model that knows nothing of bytes

struct model_sample_t {
  uint8_t type;
  uint32_t offset, generation;
  bool is_null;
  int64_t value;  // small: the same number in every type
};

std::string operand_of(const std::vector<model_sample_t> &samples, uint8_t type) {
  record_builder_c builder(type);
  for (const model_sample_t &s : samples) {
    const int64_t v = s.is_null ? 0 : s.value;
    switch (type) {
      case 1:
        builder.add(s.offset, static_cast<int32_t>(v), s.generation, s.is_null);
        break;
      case 2:
        builder.add(s.offset, static_cast<uint32_t>(v), s.generation, s.is_null);
        break;
      case 3:
        builder.add(s.offset, v, s.generation, s.is_null);
        break;
      case 4:
        builder.add(s.offset, static_cast<uint64_t>(v), s.generation, s.is_null);
        break;
      default:
        builder.add(s.offset, static_cast<double>(v), s.generation, s.is_null);
        break;
    }
  }
  return builder;
}

std::string model(conflict_resolver_e resolver, const std::vector<model_sample_t> &samples) {
  bool negative_capable = false, wide = false, is_unsigned64 = false, is_double = false, any_unsigned = false;
  std::map<uint32_t, model_sample_t> kept;
  for (model_sample_t s : samples) {
    negative_capable |= s.type == 1 || s.type == 3;
    any_unsigned |= s.type == 2 || s.type == 4;
    wide |= s.type == 3;
    is_unsigned64 |= s.type == 4;
    is_double |= s.type == 5;
    if (s.is_null) s.value = 0;
    const auto [place, is_new] = kept.try_emplace(s.offset, s);
    if (is_new) continue;
    const int number = static_cast<int>(resolver);
    const bool by_size = number % 2 == 0, greatest = number % 4 < 2;
    const int64_t a = by_size ? std::abs(s.value) : s.value;
    const int64_t b = by_size ? std::abs(place->second.value) : place->second.value;
    bool wins = greatest ? a > b : a < b;
    if (number >= 4 && s.generation != place->second.generation) wins = s.generation > place->second.generation;
    if (wins) place->second = s;
  }
  uint8_t type = 1;
  if (is_double || (is_unsigned64 && negative_capable)) {
    type = 5;
  } else if (is_unsigned64) {
    type = 4;
  } else if (wide || (negative_capable && any_unsigned)) {
    type = 3;
  } else if (any_unsigned) {
    type = 2;
  }
  std::vector<model_sample_t> in_order;
  for (const auto &[offset, s] : kept) in_order.push_back(s);
  return operand_of(in_order, type);
}

TEST(nom_merge, any_way_of_joining_gives_what_the_model_says) {
  std::mt19937 random(20260131);
  const auto below = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
  for (int round = 0; round < 400; ++round) {
    const auto resolver = static_cast<conflict_resolver_e>(round % 8);
    const uint32_t types = 1 + below(5), offsets = 1 + below(40);
    std::vector<model_sample_t> samples(1 + below(60));
    std::vector<std::string> operands;
    for (model_sample_t &s : samples) {
      s = {static_cast<uint8_t>(1 + (below(types) + static_cast<uint32_t>(round)) % 5), below(offsets) * 90001,
           below(3), below(8) == 0, static_cast<int64_t>(below(9))};
      if (s.type == 1 || s.type == 3 || s.type == 5) s.value -= 4;
      operands.push_back(operand_of({s}, s.type));
    }
    const std::string expected = model(resolver, samples);
    ASSERT_EQ(full(resolver, operands), expected) << "round " << round;

    // Neighbours joined by partial merges, and full merges on the way.
    std::optional<std::string> base;
    while (!operands.empty()) {
      const size_t count = std::min<size_t>(operands.size(), 1 + below(6));
      const std::vector<std::string> some(operands.begin(), operands.begin() + static_cast<long>(count));
      operands.erase(operands.begin(), operands.begin() + static_cast<long>(count));
      if (below(2) == 0 && !operands.empty()) {
        operands.insert(operands.begin(), partial(some));
        if (operands.size() > 1)
          operands.front() = partial({operands[0], operands[1]}), operands.erase(operands.begin() + 1);
      } else {
        base = full(resolver, some, base);
      }
    }
    ASSERT_EQ(base, expected) << "round " << round;
  }
}

TEST(nom_merge, words_of_the_resolvers) {
  EXPECT_EQ(conflict_resolver_from_word("abs_biggest"), abs_max);
  EXPECT_EQ(conflict_resolver_from_word("smallest"), min);
  EXPECT_EQ(conflict_resolver_from_word("last_biggest"), last_max);
  EXPECT_EQ(conflict_resolver_from_word("last_smallest"), last_min);
  EXPECT_EQ(conflict_resolver_from_word("newest"), last_abs_max);
}

// ---- histograms

std::string full_hist(conflict_resolver_e resolver, const std::vector<std::string> &operands,
                      std::optional<std::string> existing = {}) {
  std::optional<std::string_view> base;
  if (existing) base = *existing;
  return std::string(merge_op_full_hist(resolver, base, operand_list_t(operands)).value());
}

TEST(nom_merge_hist, blobs_follow_their_measurements) {
  const std::string a = hist_record(6, {{30, "thirty"}}), b = hist_record(6, {{10, "ten"}, {20, "", 7}}),
                    c = hist_record(6, {{25, "twenty-five"}});
  const std::string joined(merge_op_partial_hist(operand_list_t({a, b, c})).value());
  EXPECT_EQ(joined, hist_record(6, {{30, "thirty"}, {10, "ten"}, {20, "", 7}, {25, "twenty-five"}}));
  const std::string sorted = hist_record(6, {{10, "ten"}, {20, "", 7}, {25, "twenty-five"}, {30, "thirty"}});
  EXPECT_EQ(full_hist(last_abs_max, {joined}), sorted);
  EXPECT_EQ(full_hist(last_abs_max, {b, c}, a), sorted);
}

TEST(nom_merge_hist, conflicts_go_by_generation_and_place) {
  const std::string kept = hist_record(8, {{1, "x"}, {5, "old"}, {9, "tail"}});
  const std::string newer = hist_record(8, {{5, "a much newer one", 1}}), same = hist_record(8, {{5, "later"}});
  EXPECT_EQ(full_hist(last_abs_max, {newer}, kept),
            hist_record(8, {{1, "x"}, {5, "a much newer one", 1}, {9, "tail"}}));
  EXPECT_EQ(full_hist(last_min, {newer}, kept),
            hist_record(8, {{1, "x"}, {5, "a much newer one", 1}, {9, "tail"}}));
  // Equal generations: the later one lies further back in the list.
  EXPECT_EQ(full_hist(last_abs_max, {same}, kept), hist_record(8, {{1, "x"}, {5, "later"}, {9, "tail"}}));
  EXPECT_EQ(full_hist(min, {same}, kept), kept);
  EXPECT_EQ(full_hist(last_max, {kept}, newer),
            hist_record(8, {{1, "x"}, {5, "a much newer one", 1}, {9, "tail"}}));
}

TEST(nom_merge_hist, operands_that_do_not_fit_are_left_out) {
  const std::string gauge = hist_record(6, {{1, "gauge"}}), cumulative = hist_record(8, {{2, "cumulative"}});
  EXPECT_EQ(full_hist(last_abs_max, {cumulative}, gauge), gauge);
  EXPECT_EQ(full_hist(last_abs_max, {cumulative, gauge}), cumulative);
  EXPECT_EQ(full_hist(last_abs_max, {record_builder_c(1).add<int32_t>(3, 2)}, gauge), gauge);
  EXPECT_EQ(full_hist(last_abs_max, {hist_record(7, {{2, "compressed"}})}, gauge), gauge);
  for (size_t byte = 0; byte < gauge.size(); ++byte) {
    std::string flipped = gauge;
    flipped[byte] ^= 0x40;
    EXPECT_EQ(full_hist(last_abs_max, {flipped}, gauge), gauge) << byte;
    // With a right checksum over wrong bytes nothing outside the record is touched.
    seal(&flipped);
    full_hist(last_abs_max, {flipped}, gauge);
  }
  EXPECT_DEATH(full_hist(last_abs_max, {gauge}, record_builder_c(1).add<int32_t>(3, 2)),
               "Incorrect histogram data type 1");
}

}  // namespace
