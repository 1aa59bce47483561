#include "platform/krel/base/krel_clock.h"

#include "platform/krel/base/krel_util.h"

namespace {

class system_clock_c final : public clock_c {
 public:
  uint64_t now_us() const override { return krel_now_us(); }
  uint64_t monotonic_us() const override { return krel_gethrtime() / 1000; }
};

}  // namespace

const clock_c &krel_system_clock() {
  static const system_clock_c *clock = new system_clock_c;
  return *clock;
}
