#include "util/concurrency/tolv_timed.h"

#include "platform/krel/base/krel_util.h"

namespace tolv_timed {

int64_t clock_c::get_time_ms() {
  struct timeval now;
  get_time(&now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

std_clock_c &std_clock_c::get_instance() {
  static std_clock_c instance;
  return instance;
}

void std_clock_c::get_time(struct timeval *now) {
  krel_gettimeofday(now, nullptr);
}

int64_t std_clock_c::get_time_s() {
  struct timeval now;
  get_time(&now);
  return now.tv_sec;
}

}  // namespace tolv_timed
