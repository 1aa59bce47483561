#pragma once
// A ranged reader that gives the runs it was told to, then an error if one is set.

#include <utility>
#include <vector>

#include "db/ranged/ranged.h"

class fake_reader_c final : public db::kv::ranged_reader_c {
 public:
  struct run_t {
    uint64_t beg_ms, span_ms;
    std::vector<nnt_multitype> cells;
  };
  std::vector<run_t> runs;
  db::kv::code_e error = db::kv::code_e::NONE;
  std::optional<uint64_t> epoch_ms, last_ms;
  mutable std::vector<db::kv::ranged_c::key_c> keys;  // that were asked for

  db::kv::iter_synch_up find_synch(const db::kv::ranged_c::key_c &key) const override {
    keys.push_back(key);
    return std::make_unique<iter_c>(*this, key);
  }
  std::optional<uint64_t> get_epoch(const db::kv::ranged_c::key_c &) const override { return epoch_ms; }
  std::optional<uint64_t> get_apocalypse(const db::kv::ranged_c::key_c &) const override { return last_ms; }

 private:
  class iter_c final : public db::kv::iter_synch_c {
   public:
    iter_c(const fake_reader_c &reader, const db::kv::ranged_c::key_c &key) : m_reader(reader), m_key(key) {
      show();
    }
    bool is_valid() const override { return m_at < m_reader.runs.size(); }
    const db::kv::ranged_c::key_c &get_key() const override { return m_key; }
    const db::kv::ranged_c::value_c &get_value() const override { return m_value; }
    const db::kv::read_error_c &get_error() const override { return m_error; }
    void next() override {
      m_at++;
      show();
    }

   private:
    void show() {
      if (!is_valid()) {
        m_error = {m_reader.error != db::kv::code_e::NONE, m_key, m_reader.error};
        return;
      }
      const run_t &run = m_reader.runs[m_at];
      m_value = {run.beg_ms, run.span_ms, run.cells.size(), run.cells.data()};
    }
    const fake_reader_c &m_reader;
    const db::kv::ranged_c::key_c m_key;
    size_t m_at = 0;
    db::kv::ranged_c::value_c m_value;
    db::kv::read_error_c m_error;
  };
};

inline nnt_multitype cell_of(uint64_t value) {
  nnt_multitype cell{};
  cell.type = NNT_TYPE_UINT64;
  cell.count = 1;
  cell.value.v_uint64 = value;
  return cell;
}

inline metric_locator_sp locator_of(const char *name) {
  const uint8_t uuid[16] = {1, 2, 3};
  mem_reader_t reader;
  mem_reader_init_mem(&reader, name, strlen(name));
  return metric_locator_adopt(velmar_metric_locator_create(uuid, &reader, METRIC_TYPE_NUMERIC));
}
