#pragma once
// Reading cells of one metric over a span of time, wherever they come from: rollups, raw samples, imported
// files. Readers stack behind one interface: the caller sees one sequence of runs of cells.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "libvelmar/nnt/nnt_multitype.h"
#include "util/metric_locator.h"

namespace db::kv {

struct ranged_c {
  // What is asked for: a half-open range and the span of a cell, all in milliseconds.
  struct key_c {
    metric_locator_sp m_metric_locator;
    uint64_t m_start = 0, m_end = 0;
    uint64_t m_rollup_span = 0;
    bool m_is_valid = false;
    bool m_can_squash = true;  // a stored period that only divides the span will do
  };
  // One run of cells, which the iterator owns: cell i covers m_beg + i * m_rollup_span on. The span can be
  // coarser than the key's.
  struct value_c {
    uint64_t m_beg = 0, m_rollup_span = 0;  // milliseconds
    uint64_t m_count = 0;
    const nnt_multitype *m_value = nullptr;
  };
};

enum class code_e {
  NONE = 0,
  INTERNAL = 1,
  NO_MEM = 2,
  UNALIGNED_OFFSET = 3,
  METRIC_NAME_TOO_LONG = 4,
  NO_SUCH_ROLLUP = 5,
  TOO_MANY_JOBS = 6,
};
// The words for a client; "unknown error" for a code outside of the list.
const char *ranged_error_text(code_e code);

struct read_error_c {
  bool m_is_valid = false;
  ranged_c::key_c m_key;
  code_e m_code = code_e::NONE;
};

// A position among the runs of one read: valid, or at the end, or an error. One thread at a time. Destroying it
// closes everything behind it.
class iter_synch_c {
 public:
  virtual ~iter_synch_c() = default;
  virtual bool is_valid() const = 0;
  virtual const ranged_c::key_c &get_key() const = 0;      // of the run
  virtual const ranged_c::value_c &get_value() const = 0;  // until next
  virtual const read_error_c &get_error() const = 0;
  virtual void next() = 0;  // blocks
};
using iter_synch_up = std::unique_ptr<iter_synch_c>;

// Without state after its construction: shared by all requests, from any thread.
class ranged_reader_c {
 public:
  virtual ~ranged_reader_c() = default;
  // The first run, or an iterator that is not valid. Never null. Blocks: not on a loop thread.
  virtual iter_synch_up find_synch(const ranged_c::key_c &key) const = 0;
  // The first and last time of the metric at the key's span, in milliseconds; none: no data.
  virtual std::optional<uint64_t> get_epoch(const ranged_c::key_c &key) const = 0;
  virtual std::optional<uint64_t> get_apocalypse(const ranged_c::key_c &key) const = 0;
};

}  // namespace db::kv
