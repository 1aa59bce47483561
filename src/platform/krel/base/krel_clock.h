#pragma once
// Time that logic depends on comes through this interface, so that tests can turn it.

#include <cstdint>

class clock_c {
 public:
  virtual ~clock_c() = default;
  virtual uint64_t now_us() const = 0;        // wall clock since 1970
  virtual uint64_t monotonic_us() const = 0;  // never goes back; its zero means nothing
  uint64_t now_ms() const { return now_us() / 1000; }
  uint64_t now_s() const { return now_us() / 1000000; }
};

// The system's clocks; lives for ever, safe from any thread.
const clock_c &krel_system_clock();
