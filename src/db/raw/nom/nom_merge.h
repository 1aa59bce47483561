#pragma once
// How operands become a record. Pure functions over bytes: safe from any thread; results lie in a buffer
// of the calling thread and are valid until its next merge.

#include <cstdint>
#include <optional>
#include <string_view>

#include "db/raw/nom/nom_format.h"

namespace velmar_db_raw_nom {

// Which of two samples of one metric and time stays. The last_ forms look at the generation first.
enum class conflict_resolver_e : uint8_t {
  abs_max = 0,
  max = 1,
  abs_min = 2,
  min = 3,
  last_abs_max = 4,
  last_max = 5,
  last_abs_min = 6,
  last_min = 7,
  newest = 8,  // the one written last; no word of the configuration
};
// "abs_biggest" and so on; any other word is last_abs_max.
conflict_resolver_e conflict_resolver_from_word(std::string_view word);

// Numeric types: can `container` hold every value of `item`? Both must be 1 to 5.
bool can_type_contain(unsigned item, unsigned container);
// The narrowest numeric type that holds both.
uint8_t widened_type(uint8_t running, uint8_t operand);

// The operands of one merge, oldest first.
struct operands_t {
  const char *const *data;
  const size_t *lengths;
  int count;
  std::string_view operator[](int i) const { return {data[i], lengths[i]}; }
};

// An operand with a wrong checksum or length is left out, and its samples with it. Among equal samples the
// one that came first stays. None: a type that cannot be in this kind of store, or a base that is no record.
std::optional<std::string_view> merge_op_full(conflict_resolver_e resolver,
                                              std::optional<std::string_view> existing,
                                              const operands_t &operands);
// Joins operands in order; drops nothing but damaged ones.
std::optional<std::string_view> merge_op_partial(const operands_t &operands);

// The same for histograms. Operands of another type than the base (without one, the first) are left out.
std::optional<std::string_view> merge_op_full_hist(conflict_resolver_e resolver,
                                                   std::optional<std::string_view> existing,
                                                   const operands_t &operands);
std::optional<std::string_view> merge_op_partial_hist(const operands_t &operands);

}  // namespace velmar_db_raw_nom
