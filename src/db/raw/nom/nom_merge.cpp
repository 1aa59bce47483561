#include "db/raw/nom/nom_merge.h"

#include <algorithm>
#include <vector>

#include "db/raw/nom/nom_resolver.h"
#include "platform/krel/base/krel_log.h"

namespace velmar_db_raw_nom {
namespace {

template <unsigned type>
struct measurement_of_s;
template <>
struct measurement_of_s<NOM_TYPE_INT32> : std::type_identity<int32_measurement_t> {};
template <>
struct measurement_of_s<NOM_TYPE_UINT32> : std::type_identity<uint32_measurement_t> {};
template <>
struct measurement_of_s<NOM_TYPE_INT64> : std::type_identity<int64_measurement_t> {};
template <>
struct measurement_of_s<NOM_TYPE_UINT64> : std::type_identity<uint64_measurement_t> {};
template <>
struct measurement_of_s<NOM_TYPE_DOUBLE> : std::type_identity<double_measurement_t> {};

// function.operator()<measurement>() for a numeric type.
template <typename F>
auto with_measurement(unsigned type, F &&function) {
  switch (type) {
    case NOM_TYPE_INT32:
      return function.template operator()<measurement_of_s<NOM_TYPE_INT32>::type>();
    case NOM_TYPE_UINT32:
      return function.template operator()<measurement_of_s<NOM_TYPE_UINT32>::type>();
    case NOM_TYPE_INT64:
      return function.template operator()<measurement_of_s<NOM_TYPE_INT64>::type>();
    case NOM_TYPE_UINT64:
      return function.template operator()<measurement_of_s<NOM_TYPE_UINT64>::type>();
    default:
      return function.template operator()<measurement_of_s<NOM_TYPE_DOUBLE>::type>();
  }
}

struct scratch_t {
  std::vector<char> record;
  std::vector<std::string_view> sources;  // the records to be joined, in order
};
scratch_t &scratch() {
  thread_local scratch_t s;
  return s;
}

struct preprocessed_t {
  uint8_t type = 0;
  size_t total = 0;  // measurements
};

// Folds type and count of one record; false when its type is none of this store.
bool add_source(preprocessed_t *sum, std::string_view record, std::vector<std::string_view> *sources) {
  const rocks_entry_header_t header = header_of(record);
  if (!is_numeric_type(header.type)) {
    krel_log(krel_error, "Histogram or text merge incorrect routing\n");
    return false;
  }
  sum->type = sum->type == 0 ? header.type : widened_type(sum->type, header.type);
  sum->total += header.entry_count;
  sources->push_back(record);
  return true;
}

bool merge_op_preprocess_operands(preprocessed_t *sum, const operands_t &operands,
                                  std::vector<std::string_view> *sources) {
  for (int i = 0; i < operands.count; ++i) {
    const std::string_view operand = operands[i];
    if (!has_right_checksum(operand)) continue;
    if (is_numeric_type(header_of(operand).type) && !is_well_formed(operand)) continue;
    if (!add_source(sum, operand, sources)) return false;
  }
  if (sum->type == 0) sum->type = NOM_TYPE_INT32;
  return true;
}

template <typename Source, typename Dest>
char *coerce(const char *source, size_t count, char *dest) {
  for (size_t i = 0; i < count; ++i, source += sizeof(Source), dest += sizeof(Dest)) {
    Source from;
    memcpy(&from, source, sizeof from);
    const Dest to{from.bits, static_cast<typename Dest::value_type>(from.value)};
    memcpy(dest, &to, sizeof to);
  }
  return dest;
}

// Appends the source's measurements at `dest` in the destination's type; returns the end.
char *merge_op_coerce_and_copy(std::string_view source, uint8_t dest_type, char *dest) {
  const rocks_entry_header_t header = header_of(source);
  const char *from = source.data() + HEADER_LEN;
  if (header.type == dest_type) {
    memcpy(dest, from, source.size() - HEADER_LEN);
    return dest + source.size() - HEADER_LEN;
  }
  if (!can_type_contain(header.type, dest_type)) {
    krel_log(krel_error, "nom: coerce_and_copy order is incorrect.\n");
    return dest;
  }
  return with_measurement(header.type, [&]<typename Source>() {
    return with_measurement(
        dest_type, [&]<typename Dest>() { return coerce<Source, Dest>(from, header.entry_count, dest); });
  });
}

std::string_view seal(std::vector<char> *record, uint8_t type, size_t count) {
  const size_t length = HEADER_LEN + count * measurement_size(type);
  rocks_entry_header_t header{0, type, static_cast<uint32_t>(count)};
  memcpy(record->data(), &header, sizeof header);
  record->at(0) = static_cast<char>(record_checksum(record->data(), length));
  return {record->data(), length};
}

// Joins the sources behind a header still to be written; returns how many measurements there are.
size_t join(const std::vector<std::string_view> &sources, const preprocessed_t &sum,
            std::vector<char> *record) {
  const size_t needed = HEADER_LEN + sum.total * measurement_size(sum.type);
  if (record->size() < needed) record->resize(std::max(needed, record->size() * 2));
  char *const begin = record->data() + HEADER_LEN, *end = begin;
  for (const std::string_view source : sources) end = merge_op_coerce_and_copy(source, sum.type, end);
  return static_cast<size_t>(end - begin) / measurement_size(sum.type);
}

// Sorts by offset, the first among equals first. What is in order already is only looked at.
template <typename M>
void sort_measurements(M *begin, M *end) {
  const auto by_offset = [](const M &a, const M &b) { return offset_of(a.bits) < offset_of(b.bits); };
  M *const tail = std::is_sorted_until(begin, end, by_offset);
  if (tail == end) return;
  std::stable_sort(tail, end, by_offset);
  std::inplace_merge(begin, tail, end, by_offset);
}

// Resolves conflicts in a sorted list in place; returns how many stay.
template <typename M>
size_t resolve(conflict_resolver_e resolver, M *begin, size_t count) {
  if (count == 0) return 0;
  M *last = begin;
  for (const M *p = begin + 1, *end = begin + count; p != end; ++p) {
    if (offset_of(p->bits) != offset_of(last->bits)) {
      ++last;
      if (last != p) *last = *p;
    } else if (incoming_wins<typename M::value_type>(resolver, p->bits, p->value, last->bits, last->value)) {
      *last = *p;
    }
  }
  return static_cast<size_t>(last - begin) + 1;
}

}  // namespace

bool can_type_contain(unsigned item, unsigned container) {
  krel_assert(item < 6 && item > 0);
  krel_assert(container < 6 && container > 0);
  switch (item) {
    case NOM_TYPE_INT32:
      return container == NOM_TYPE_INT32 || container == NOM_TYPE_INT64 || container == NOM_TYPE_DOUBLE;
    case NOM_TYPE_UINT32:
      return container != NOM_TYPE_INT32;
    case NOM_TYPE_INT64:
      return container == NOM_TYPE_INT64 || container == NOM_TYPE_DOUBLE;
    case NOM_TYPE_UINT64:
      return container == NOM_TYPE_UINT64 || container == NOM_TYPE_DOUBLE;
    default:
      return container == NOM_TYPE_DOUBLE;
  }
}

uint8_t widened_type(uint8_t running, uint8_t operand) {
  krel_assert(is_numeric_type(running) && is_numeric_type(operand));
  static constexpr uint8_t table[6][6] = {
      {0, 0, 0, 0, 0, 0}, {0, 1, 3, 3, 5, 5}, {0, 3, 2, 3, 4, 5},
      {0, 3, 3, 3, 5, 5}, {0, 5, 4, 5, 4, 5}, {0, 5, 5, 5, 5, 5},
  };
  return table[running][operand];
}

conflict_resolver_e conflict_resolver_from_word(std::string_view word) {
  static constexpr std::string_view words[] = {"abs_biggest",       "biggest",          "abs_smallest",
                                               "smallest",          "last_abs_biggest", "last_biggest",
                                               "last_abs_smallest", "last_smallest"};
  for (uint8_t i = 0; i < std::size(words); ++i) {
    if (word == words[i]) return static_cast<conflict_resolver_e>(i);
  }
  return conflict_resolver_e::last_abs_max;
}

std::optional<std::string_view> merge_op_full(conflict_resolver_e resolver,
                                              std::optional<std::string_view> existing,
                                              const operands_t &operands) {
  scratch_t &s = scratch();
  s.sources.clear();
  preprocessed_t sum;
  if (existing) {
    if (existing->size() < HEADER_LEN || !add_source(&sum, *existing, &s.sources)) return std::nullopt;
    if (!is_well_formed(*existing)) {
      krel_log(krel_error, "nom: a stored record of %zu bytes does not hold its %u measurements\n",
               existing->size(), header_of(*existing).entry_count);
      return std::nullopt;
    }
  }
  if (!merge_op_preprocess_operands(&sum, operands, &s.sources)) return std::nullopt;
  const size_t joined = join(s.sources, sum, &s.record);
  const size_t count = with_measurement(sum.type, [&]<typename M>() {
    M *const begin = reinterpret_cast<M *>(s.record.data() + HEADER_LEN);
    sort_measurements(begin, begin + joined);
    return resolve(resolver, begin, joined);
  });
  return seal(&s.record, sum.type, count);
}

std::optional<std::string_view> merge_op_partial(const operands_t &operands) {
  scratch_t &s = scratch();
  s.sources.clear();
  preprocessed_t sum;
  if (!merge_op_preprocess_operands(&sum, operands, &s.sources)) return std::nullopt;
  return seal(&s.record, sum.type, join(s.sources, sum, &s.record));
}

}  // namespace velmar_db_raw_nom
