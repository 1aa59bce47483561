#include "db/ranged/from_raw_reader.h"

#include <cstring>
#include <new>

#include "db/ranged/run_iter.h"
#include "libvelmar/nnt/nnt_accumulator.h"
#include "platform/krel/base/krel_log.h"

namespace velmar_db_ranged_fromRaw {

namespace {

using db::kv::code_e;
using db::kv::ranged_c;
using db::ranged::make_error;
using db::ranged::make_no_data;

metric_value_t value_of(const db::raw::nom_sample_t &sample) {
  metric_value_t value = {};
  value.whence_ms = sample.ts_ms;
  value.type = static_cast<velmar_metric_type_t>(sample.type);
  value.is_null = sample.is_null;
  static_assert(sizeof value.storage == sizeof sample.bits);
  memcpy(&value.storage, &sample.bits, sizeof sample.bits);
  return value;
}

code_e check_range(const ranged_c::key_c &key) {
  const uint64_t start = key.m_start, end = key.m_end, period = key.m_rollup_span;
  if (end < start) {
    krel_log(krel_error, "ERROR: iter_handle_factory_impl_c::create - end < start (%lu < %lu)\n", end, start);
    return code_e::INTERNAL;
  }
  if (period == 0 || start % period != 0 || end % period != 0) {
    krel_log(
        krel_error,
        "ERROR: iter_handle_factory_impl_c::create - end (%zu) or start (%zu) is not period (%zu) aligned\n",
        end, start, period);
    return code_e::UNALIGNED_OFFSET;
  }
  return (end - start) / period > db::ranged::MAX_RUN_CELLS ? code_e::NO_MEM : code_e::NONE;
}

// False, logged: a read failed.
bool accumulate(const db::raw::reader_c &reader, const ranged_c::key_c &key, uint64_t id,
                nnt_accumulator_c *cells) {
  const uint64_t from_ms = key.m_start - std::min(key.m_start, LOOK_BACK_MS);
  std::string error, prev_error;
  bool first = true;
  reader.read_numeric(
      key.m_metric_locator, id, key.m_start, key.m_end,
      [&](std::span<const db::raw::nom_sample_t> samples) {
        if (first) {
          const auto prev = reader.find_last_number(id, from_ms, key.m_start, &prev_error);
          if (prev) cells->set_prev(value_of(*prev));
        }
        first = false;
        for (const db::raw::nom_sample_t &sample : samples) cells->add(value_of(sample));
        return prev_error.empty();
      },
      &error);
  if (error.empty() && prev_error.empty()) return true;
  krel_log(krel_error, "cannot read the samples of %s: %s\n",
           velmar_metric_locator_get_name_with_tags(key.m_metric_locator.get()),
           (error.empty() ? prev_error : error).c_str());
  return false;
}

}  // namespace

std::optional<uint64_t> ctx_c::find_id(const metric_locator_sp &locator) const {
  if (const uint64_t id = velmar_metric_locator_get_surrogate_id(locator.get())) return id;
  return m_lookup ? m_lookup->find(locator) : std::nullopt;
}

db::kv::iter_synch_up ctx_c::find_synch(const ranged_c::key_c &key) const {
  const auto id = find_id(key.m_metric_locator);
  if (!id) return make_no_data();
  if (const code_e code = check_range(key); code != code_e::NONE) return make_error(key, code);
  if (key.m_start == key.m_end) return make_no_data();
  try {
    auto cells = std::make_unique<nnt_accumulator_c>(key.m_start, key.m_end,
                                                     std::span<const uint64_t>(&key.m_rollup_span, 1));
    if (!accumulate(m_reader, key, *id, cells.get())) return make_error(key, code_e::INTERNAL);
    const auto run = cells->get_cells(0);
    const ranged_c::value_c value = {key.m_start, key.m_rollup_span, run.size(), run.data()};
    return std::make_unique<db::ranged::run_iter_c<std::unique_ptr<nnt_accumulator_c>>>(
        key.m_metric_locator, value, std::move(cells));
  } catch (const std::bad_alloc &) {
    return make_error(key, code_e::NO_MEM);
  }
}

std::optional<uint64_t> ctx_c::get_epoch(const ranged_c::key_c &key) const {
  const auto id = find_id(key.m_metric_locator);
  if (!id || key.m_rollup_span == 0) return {};
  std::string error;
  const auto first = m_reader.find_first_time(*id, &error);
  return first ? std::optional(*first - *first % key.m_rollup_span) : std::nullopt;
}

std::optional<uint64_t> ctx_c::get_apocalypse(const ranged_c::key_c &key) const {
  const auto id = find_id(key.m_metric_locator);
  if (!id || key.m_rollup_span == 0) return {};
  std::string error;
  const auto last = m_reader.find_last_time(*id, &error);
  return last ? std::optional(*last - *last % key.m_rollup_span) : std::nullopt;
}

}  // namespace velmar_db_ranged_fromRaw
