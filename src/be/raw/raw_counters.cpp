#include "be/raw/raw_counters.h"

#include <fmt/core.h>

#include "platform/krel/base/krel_conf.h"
#include "platform/tolvmetrics/stats.h"
#include "util/velmar_stats.h"

namespace {

constexpr uint32_t DEFAULT_STALE_S = 10;
std::chrono::seconds configuration_number_of_seconds_before_put_is_stale{DEFAULT_STALE_S};

}  // namespace

void expirable_c::init() {
  uint32_t seconds = 0;
  if (krel_conf_get_uint32(KREL_CONF_ROOT, "//raw/@timeout_in_seconds", &seconds) && seconds != 0)
    configuration_number_of_seconds_before_put_is_stale = std::chrono::seconds(seconds);
}

expirable_c::expirable_c()
    : _creation_time_point(clock_t::now()),
      _stale_time_point(_creation_time_point + configuration_number_of_seconds_before_put_is_stale) {}

void expirable_c::set_stale_time_out(int64_t ms) {
  _stale_time_point = _creation_time_point + std::chrono::milliseconds(ms);
}

namespace be::raw {

std::string put_counts_json(const atomic_counters_t &c) {
  return fmt::format(
      "{{ \"records\": {}, \"updated\": {}, \"misdirected\": {}, \"discarded\": {}, \"errors\": {} }}",
      c.processed.load(), c.successes.load(), c.noti.load(), c.discarded.load(), c.errors.load());
}

namespace {

enum gate_e { START, READ, PARSE, SURROGATE_WRITE, DATA_WRITE, DONE, GATES };
constexpr const char *GATE_NAMES[GATES] = {"put_start",           "put_read",       "put_parse",
                                           "put_surrogate_write", "put_data_write", "put_done"};
stats_handle_t *gates[GATES];

void count(gate_e gate) {
  if (gates[gate]) stats_add64(gates[gate], 1);
}

}  // namespace

void ingestion_gate_mgr_c::init() {
  for (int i = 0; i < GATES; i++)
    gates[i] =
        velmar_stats_get_handle((std::string("be.raw.gates.") + GATE_NAMES[i]).c_str(), STATS_TYPE_COUNTER);
}
void ingestion_gate_mgr_c::count_start() {
  count(START);
}
void ingestion_gate_mgr_c::count_read() {
  count(READ);
}
void ingestion_gate_mgr_c::count_parse() {
  count(PARSE);
}
void ingestion_gate_mgr_c::count_surrogate_write() {
  count(SURROGATE_WRITE);
}
void ingestion_gate_mgr_c::count_data_write() {
  count(DATA_WRITE);
}
void ingestion_gate_mgr_c::count_done() {
  count(DONE);
}

}  // namespace be::raw
