#pragma once
// Cells by hand, and readers that give what a test has put into them.

#include <gtest/gtest.h>

#include <bit>
#include <map>
#include <vector>

#include "db/ranged/run_iter.h"
#include "support/surrogate_metrics.h"

namespace ranged_support {

using db::kv::code_e;
using db::kv::iter_synch_up;
using db::kv::ranged_c;
using db::kv::ranged_reader_c;

inline nnt_multitype cell_of(double value, uint32_t count = 1) {
  nnt_multitype cell = {};
  cell.type = NNT_TYPE_DOUBLE;
  cell.count = count;
  cell.value.v_double = value;
  return cell;
}

// Bit by bit: the NaNs are part of a cell.
inline bool same(const nnt_multitype &a, const nnt_multitype &b) {
  const auto bits = [](float f) { return std::bit_cast<uint32_t>(f); };
  const auto floats = [&](const nnt_multitype &c) {
    return std::vector<uint32_t>{bits(c.stddev),
                                 bits(c.min),
                                 bits(c.max),
                                 bits(c.derivative),
                                 bits(c.derivative_stddev),
                                 bits(c.derivative_min),
                                 bits(c.derivative_max),
                                 bits(c.counter),
                                 bits(c.counter_stddev),
                                 bits(c.counter_min),
                                 bits(c.counter_max)};
  };
  return a.type == b.type && a.count == b.count && a.stddev_present == b.stddev_present &&
         a.value.v_uint64 == b.value.v_uint64 && floats(a) == floats(b);
}

inline ranged_c::key_c key_of(const metric_locator_sp &metric, uint64_t start_ms, uint64_t end_ms,
                              uint64_t span_ms, bool can_squash = true) {
  return {metric, start_ms, end_ms, span_ms, true, can_squash};
}

struct run_t {
  uint64_t beg, span;
  std::vector<nnt_multitype> cells;
};

// Every run of a read; the iterator must then be at its end. *code: the error it ended with.
inline std::vector<run_t> read_all(const ranged_reader_c &reader, const ranged_c::key_c &key,
                                   code_e *code = nullptr) {
  std::vector<run_t> runs;
  iter_synch_up iter = reader.find_synch(key);
  for (; iter->is_valid(); iter->next()) {
    const ranged_c::value_c &value = iter->get_value();
    EXPECT_EQ(iter->get_key().m_start, value.m_beg);
    EXPECT_EQ(iter->get_key().m_end, value.m_beg + value.m_count * value.m_rollup_span);
    EXPECT_GT(value.m_count, 0U);
    runs.push_back({value.m_beg, value.m_rollup_span, {value.m_value, value.m_value + value.m_count}});
  }
  const code_e ended = iter->get_error().m_is_valid ? iter->get_error().m_code : code_e::NONE;
  if (code) {
    *code = ended;
  } else {
    EXPECT_EQ(ended, code_e::NONE);
  }
  iter->next();
  EXPECT_FALSE(iter->is_valid());
  return runs;
}

// Holds numbers by cell time. Gives the cells of a range in runs of at most `run_cells`, of its own span.
class fake_reader_c : public ranged_reader_c {
 public:
  explicit fake_reader_c(uint64_t span_ms) : span(span_ms) {}

  iter_synch_up find_synch(const ranged_c::key_c &key) const override {
    keys.push_back(key);
    if (code != code_e::NONE) return db::ranged::make_error(key, code);
    const uint64_t count = (key.m_end - key.m_start) / span;
    if (values.empty() || count == 0) return db::ranged::make_no_data();
    std::vector<nnt_multitype> cells(count);
    for (uint64_t i = 0; i < count; i++) {
      const auto found = values.find(key.m_start + i * span);
      if (found != values.end()) cells[i] = cell_of(found->second);
      if (found == values.end() && null_cells) cells[i].type = NNT_TYPE_NULL;
    }
    return std::make_unique<runs_iter_c>(key, std::move(cells), *this);
  }
  std::optional<uint64_t> get_epoch(const ranged_c::key_c &) const override {
    return values.empty() ? std::nullopt : std::optional(values.begin()->first);
  }
  std::optional<uint64_t> get_apocalypse(const ranged_c::key_c &) const override {
    return values.empty() ? std::nullopt : std::optional(values.rbegin()->first);
  }

  const uint64_t span;
  std::map<uint64_t, double> values;
  bool null_cells = false;           // empty cells are nulls
  size_t run_cells = SIZE_MAX;       // of one run
  code_e code = code_e::NONE;        // what every search fails with
  code_e code_after = code_e::NONE;  // what a search ends with behind its first run
  mutable std::vector<ranged_c::key_c> keys;

 private:
  class runs_iter_c : public db::ranged::iter_base_c {
   public:
    runs_iter_c(const ranged_c::key_c &key, std::vector<nnt_multitype> cells, const fake_reader_c &reader)
        : m_of(key), m_cells(std::move(cells)), m_reader(reader) {
      show();
    }
    void next() override {
      if (m_reader.code_after != code_e::NONE) return set_error(m_of, m_reader.code_after);
      m_at += get_value().m_count;
      show();
    }

   private:
    void show() {
      if (m_at >= m_cells.size()) return set_end();
      set_run(m_of.m_metric_locator, {m_of.m_start + m_at * m_reader.span, m_reader.span,
                                      std::min(m_reader.run_cells, m_cells.size() - m_at), &m_cells[m_at]});
    }
    const ranged_c::key_c m_of;
    const std::vector<nnt_multitype> m_cells;
    const fake_reader_c &m_reader;
    size_t m_at = 0;
  };
};

}  // namespace ranged_support
