#pragma once
// A set of samples turned into RocksDB write batches: the samples of one metric and hour become one merge
// operand, in the order they came; operands are in key order, family by family. A set makes one batch, since
// each costs a write to the log, and more only when it is large. One thread at a time.

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "db/raw/nom/nom_format.h"
#include "db/raw/nom/nom_sample.h"

namespace velmar_db_raw_nom {

enum class sample_fault_e { none, generation, time, type };
// What keeps a numeric sample from being stored.
inline sample_fault_e check_sample(const db::raw::nom_sample_t &sample) {
  if (metric_to_nom_type(sample.type) == 0) return sample_fault_e::type;
  if (sample.generation >= GENERATION_LIMIT) return sample_fault_e::generation;
  if (sample.ts_ms >= TIME_LIMIT_MS) return sample_fault_e::time;
  return sample_fault_e::none;
}

// Where a sample goes, and its place in its set.
struct sample_ref_t {
  uint64_t sort_id;  // the id's bytes read as a big-endian number: the order of keys
  uint32_t floor_s;
  uint32_t index;
};
inline sample_ref_t make_ref(uint64_t surrogate_id, uint64_t ts_ms, uint32_t index) {
  return {__builtin_bswap64(surrogate_id), static_cast<uint32_t>(ts_ms / RECORD_SIZE_MS) * RECORD_SIZE_S,
          index};
}
// Into key order; those of one key stay in order of their index, in which they must come.
void sort_refs(std::vector<sample_ref_t> *refs, std::vector<sample_ref_t> *scratch);

class batch_builder_c {
 public:
  // `batch` is a write batch in its serialised form with `count` operands, valid during the call.
  using write_f = std::function<void(std::string_view batch, size_t count)>;

  // `family_ids`: RocksDB's ids of the database's families.
  void start(std::span<const uint32_t> family_ids);
  void add(uint64_t surrogate_id, uint64_t ts_ms, uint32_t index) {
    m_refs[family_of(surrogate_id, m_num_families)].push_back(make_ref(surrogate_id, ts_ms, index));
  }
  // Of what was added by index: samples that passed check_sample.
  void write_numeric(std::span<const db::raw::nom_sample_t> samples, const write_f &write);
  // One operand for each index; `fill` appends its bytes, with the checksum still to be set.
  void write_each(const std::function<void(uint32_t index, std::string *operand)> &fill, const write_f &write);

 private:
  void start_batch();
  char *append_operand(uint32_t family_id, const sample_ref_t &ref, size_t length);
  void append_group(uint32_t family_id, std::span<const sample_ref_t> group,
                    std::span<const db::raw::nom_sample_t> samples);
  void write_batch(const write_f &write);
  void finish(const write_f &write);

  std::vector<uint32_t> m_family_ids;
  uint32_t m_num_families = 0;
  std::vector<std::vector<sample_ref_t>> m_refs;  // by family
  std::vector<sample_ref_t> m_scratch;
  std::vector<char> m_batch;  // grows only; m_used bytes of it count
  size_t m_used = 0;
  uint32_t m_operands = 0;
};

}  // namespace velmar_db_raw_nom
