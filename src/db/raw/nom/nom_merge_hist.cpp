#include <algorithm>
#include <vector>

#include "db/raw/nom/nom_merge.h"
#include "db/raw/nom/nom_resolver.h"
#include "platform/krel/base/krel_log.h"

namespace velmar_db_raw_nom {
namespace {

// A measurement and its blob in the record it came from.
struct item_t {
  uint32_t bits;
  uint64_t place;  // of the blob in the list that the item stands in
  const char *blob;
  uint64_t blob_length;  // with the length in front
};

struct scratch_t {
  std::vector<item_t> items, kept;
  std::vector<char> record;
};
scratch_t &scratch() {
  thread_local scratch_t s;
  return s;
}

bool is_joinable(unsigned type) {
  return type == NOM_TYPE_HISTOGRAM || type == NOM_TYPE_HISTOGRAM_CUMUL;
}

// Appends the items of a record that is well formed.
void merge_op_coerce_and_copy_hist(std::string_view record, std::vector<item_t> *items) {
  const rocks_entry_header_t header = header_of(record);
  if (!is_histogram_type(header.type)) krel_fatal("Incorrect histogram data type %u\n", header.type);
  const char *measurements = record.data() + HEADER_LEN;
  const char *const blobs = measurements + header.entry_count * sizeof(hist_offset_measurement_t);
  uint64_t place = items->empty() ? 0 : items->back().place + items->back().blob_length;
  for (uint32_t i = 0; i < header.entry_count; ++i, measurements += sizeof(hist_offset_measurement_t)) {
    hist_offset_measurement_t measurement;
    memcpy(&measurement, measurements, sizeof measurement);
    const char *const blob = blobs + measurement.value;
    uint64_t length;
    memcpy(&length, blob, sizeof length);
    items->push_back({measurement.bits, place, blob, length + BLOB_LENGTH_LEN});
    place += items->back().blob_length;
  }
}

// Collects the items of all operands that fit; settles the type when there is none yet.
void merge_op_preprocess_operands_hist(uint8_t *type, const operands_t &operands, std::vector<item_t> *items) {
  for (int i = 0; i < operands.count; ++i) {
    const std::string_view operand = operands[i];
    const rocks_entry_header_t header =
        operand.size() >= HEADER_LEN ? header_of(operand) : rocks_entry_header_t{};
    if (!has_right_checksum(operand)) {
      krel_log(krel_error, "Unable to merge histogram block with %u records due to bad checksum\n",
               header.entry_count);
    } else if (!is_joinable(header.type) || !is_well_formed(operand)) {
      krel_log(krel_error, "Unable to merge histogram block with %u records due to bad record type\n",
               header.entry_count);
    } else if (*type != 0 && header.type != *type) {
      krel_log(krel_error, "WARNING: nom record type mismatch: %u != %u\n", header.type, *type);
    } else {
      *type = header.type;
      merge_op_coerce_and_copy_hist(operand, items);
    }
  }
  if (*type == 0) *type = NOM_TYPE_HISTOGRAM;
}

void sort_items(std::vector<item_t> *items) {
  const auto by_offset = [](const item_t &a, const item_t &b) { return offset_of(a.bits) < offset_of(b.bits); };
  const auto tail = std::is_sorted_until(items->begin(), items->end(), by_offset);
  if (tail == items->end()) return;
  std::stable_sort(tail, items->end(), by_offset);
  std::inplace_merge(items->begin(), tail, items->end(), by_offset);
}

// The numbers that conflicts are decided by are the blobs' places, each in its own list.
void resolve(conflict_resolver_e resolver, const std::vector<item_t> &sorted, std::vector<item_t> *kept) {
  kept->clear();
  for (const item_t &item : sorted) {
    if (kept->empty() || offset_of(kept->back().bits) != offset_of(item.bits)) {
      const uint64_t place = kept->empty() ? 0 : kept->back().place + kept->back().blob_length;
      kept->push_back(item);
      kept->back().place = place;
      continue;
    }
    item_t &last = kept->back();
    if (!incoming_wins<uint64_t>(resolver, item.bits, item.place, last.bits, last.place)) continue;
    const uint64_t place = last.place;
    last = item;
    last.place = place;
  }
}

std::string_view write_record(uint8_t type, const std::vector<item_t> &items, std::vector<char> *record) {
  if (!is_histogram_type(type)) krel_fatal("Incorrect data type for hist\n");
  const size_t blobs = HEADER_LEN + items.size() * sizeof(hist_offset_measurement_t);
  const size_t length = blobs + (items.empty() ? 0 : items.back().place + items.back().blob_length);
  if (record->size() < length) record->resize(std::max(length, record->size() * 2));
  const rocks_entry_header_t header{0, type, static_cast<uint32_t>(items.size())};
  memcpy(record->data(), &header, sizeof header);
  char *at = record->data() + HEADER_LEN;
  for (const item_t &item : items) {
    const hist_offset_measurement_t measurement{item.bits, item.place};
    memcpy(at, &measurement, sizeof measurement);
    at += sizeof measurement;
    krel_assert(blobs + item.place + item.blob_length <= length);
    memcpy(record->data() + blobs + item.place, item.blob, item.blob_length);
  }
  record->at(0) = static_cast<char>(record_checksum(record->data(), length));
  return {record->data(), length};
}

}  // namespace

std::optional<std::string_view> merge_op_full_hist(conflict_resolver_e resolver,
                                                   std::optional<std::string_view> existing,
                                                   const operands_t &operands) {
  scratch_t &s = scratch();
  s.items.clear();
  uint8_t type = 0;
  if (existing) {
    if (existing->size() < HEADER_LEN) return std::nullopt;
    type = header_of(*existing).type;
    if (!is_histogram_type(type)) krel_fatal("Incorrect histogram data type %u\n", type);
    if (!is_well_formed(*existing)) {
      krel_log(krel_error, "nom: a stored histogram record of %zu bytes does not hold its %u measurements\n",
               existing->size(), header_of(*existing).entry_count);
      return std::nullopt;
    }
    merge_op_coerce_and_copy_hist(*existing, &s.items);
  }
  merge_op_preprocess_operands_hist(&type, operands, &s.items);
  sort_items(&s.items);
  resolve(resolver, s.items, &s.kept);
  return write_record(type, s.kept, &s.record);
}

std::optional<std::string_view> merge_op_partial_hist(const operands_t &operands) {
  scratch_t &s = scratch();
  s.items.clear();
  uint8_t type = 0;
  merge_op_preprocess_operands_hist(&type, operands, &s.items);
  return write_record(type, s.items, &s.record);
}

}  // namespace velmar_db_raw_nom
