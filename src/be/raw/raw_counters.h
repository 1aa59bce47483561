#pragma once
// What a put counts: per request, and per stage for the whole node.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

struct atomic_counters_t {
  std::atomic<uint32_t> processed{0}, successes{0}, noti{0}, errors{0}, timedout{0}, discarded{0};
};

// Work that is given up when it has waited too long: at the default lifetime
// (`//raw/@timeout_in_seconds`, default 10), or what the sender allows.
class expirable_c {
 public:
  using clock_t = std::chrono::steady_clock;
  static void init();  // reads the configuration; at start
  expirable_c();
  void set_stale_time_out(int64_t ms);
  bool is_stale(clock_t::time_point now) const { return _stale_time_point < now; }

 private:
  clock_t::time_point _creation_time_point, _stale_time_point;
};

namespace be::raw {

// What a put that went well is answered with.
std::string put_counts_json(const atomic_counters_t &counters);

// Stage counters: their differences show where requests are waiting.
class ingestion_gate_mgr_c {
 public:
  static void init();  // registers the statistics; at start
  static void count_start();
  static void count_read();
  static void count_parse();
  static void count_surrogate_write();
  static void count_data_write();
  static void count_done();
};

}  // namespace be::raw
