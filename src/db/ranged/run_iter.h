#pragma once
// The iterators of readers that give one run of cells at most.

#include <memory>
#include <utility>
#include <vector>

#include "db/ranged/ranged.h"

namespace db::ranged {

// Cells of one run; more than any request may ask for is refused before memory is taken for it.
constexpr uint64_t MAX_RUN_CELLS = uint64_t{1} << 24;

// What every iterator shows, and the moves between its states.
class iter_base_c : public db::kv::iter_synch_c {
 public:
  bool is_valid() const override { return m_key.m_is_valid; }
  const db::kv::ranged_c::key_c &get_key() const override { return m_key; }
  const db::kv::ranged_c::value_c &get_value() const override { return m_value; }
  const db::kv::read_error_c &get_error() const override { return m_error; }

 protected:
  void set_run(const metric_locator_sp &locator, const db::kv::ranged_c::value_c &value) {
    m_value = value;
    m_key.m_metric_locator = locator;
    m_key.m_start = value.m_beg;
    m_key.m_end = value.m_beg + value.m_count * value.m_rollup_span;
    m_key.m_rollup_span = value.m_rollup_span;
    m_key.m_is_valid = true;
  }
  void set_end() {
    m_value = {};
    m_key.m_is_valid = false;
  }
  void set_error(const db::kv::ranged_c::key_c &key, db::kv::code_e code) {
    set_end();
    m_error = {true, key, code};
  }

 private:
  db::kv::ranged_c::key_c m_key;
  db::kv::ranged_c::value_c m_value;
  db::kv::read_error_c m_error;
};

// One run, with whatever holds its cells. No cells: no data.
template <typename Holder>
class run_iter_c : public iter_base_c {
 public:
  run_iter_c(const metric_locator_sp &locator, const db::kv::ranged_c::value_c &value, Holder holder)
      : m_holder(std::move(holder)) {
    if (value.m_count > 0) set_run(locator, value);
  }
  void next() override { set_end(); }

 private:
  const Holder m_holder;
};

// Neither data nor error, or an error.
class no_run_iter_c : public iter_base_c {
 public:
  no_run_iter_c() = default;
  no_run_iter_c(const db::kv::ranged_c::key_c &key, db::kv::code_e code) { set_error(key, code); }
  void next() override {}
};

inline db::kv::iter_synch_up make_no_data() {
  return std::make_unique<no_run_iter_c>();
}
inline db::kv::iter_synch_up make_error(const db::kv::ranged_c::key_c &key, db::kv::code_e code) {
  return std::make_unique<no_run_iter_c>(key, code);
}

}  // namespace db::ranged
