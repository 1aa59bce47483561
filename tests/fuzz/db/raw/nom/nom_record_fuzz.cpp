// Records as a peer may send them: what passes the test of records is walked, cut and merged.
#include <cstdlib>

#include "db/raw/nom/iter_wrapper.h"
#include "db/raw/nom/nom_merge.h"

using namespace velmar_db_raw_nom;

namespace {

void walk(nom_merge_type_e datatype, std::string_view record, uint64_t ts_ms) {
  iter_wrapper_c iter(datatype, 1, 0, record);
  for (bool valid = iter.find(ts_ms, db::raw::SEEK_NEXT_ON_MISS); valid; valid = iter.do_next()) {
    nom_position_value_t value;
    std::string error;
    if (!iter.get_current_value(&value, &error)) continue;
    if (datatype == histogram && !value.value.is_null) {
      const auto *const bytes = static_cast<const char *>(value.value.storage.v_bytes->bytes);
      for (size_t i = 0; i < value.value.storage.v_bytes->length; ++i) (void)*(bytes + i);
    }
  }
  if (iter.find(ts_ms, db::raw::SEEK_PREV_ON_MISS)) {
    iter.delete_from_curr_thru_index(iter.get_current_index());
    if (record_is_bad(datatype, iter.get_key(), iter.get_record()) != nullptr) abort();
  }
}

}  // namespace

// The first byte chooses the kind of store, the next two a time; the rest is cut in two operands.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 4) return 0;
  const nom_merge_type_e datatype = data[0] & 1 ? histogram : numeric;
  const uint64_t ts_ms = (data[1] | data[2] << 8u) * 55ull;
  std::string bytes(reinterpret_cast<const char *>(data) + 3, size - 3);
  const size_t cut = data[0] / 2 % (bytes.size() + 1);
  std::string parts[2] = {bytes.substr(0, cut), bytes.substr(cut)};
  const char *operands[2];
  size_t lengths[2];
  for (int i = 0; i < 2; ++i) {
    if (parts[i].size() >= HEADER_LEN && data[0] < 0xf0) {
      parts[i][0] = static_cast<char>(record_checksum(parts[i].data(), parts[i].size()));
    }
    operands[i] = parts[i].data();
    lengths[i] = parts[i].size();
    char key[KEY_LEN] = {1};
    if (record_is_bad(datatype, {key, KEY_LEN}, parts[i]) == nullptr) walk(datatype, parts[i], ts_ms);
  }
  const operands_t list{operands, lengths, 2};
  const auto resolver = static_cast<conflict_resolver_e>(data[1] % 8);
  const auto merged = datatype == numeric ? merge_op_full(resolver, std::nullopt, list)
                                          : merge_op_full_hist(resolver, std::nullopt, list);
  if (merged && (!has_right_checksum(*merged) || !is_well_formed(*merged))) abort();
  return 0;
}
