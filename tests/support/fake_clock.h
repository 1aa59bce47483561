#pragma once
// A clock that tests turn by hand. Safe from any thread.

#include <atomic>

#include "platform/krel/base/krel_clock.h"

class fake_clock_c final : public clock_c {
 public:
  explicit fake_clock_c(uint64_t now_us = 1'700'000'000'000'000) : m_now_us(now_us) {}
  uint64_t now_us() const override { return m_now_us.load(); }
  uint64_t monotonic_us() const override { return m_monotonic_us.load(); }

  void advance_us(uint64_t us) {
    m_now_us += us;
    m_monotonic_us += us;
  }
  void advance_ms(uint64_t ms) { advance_us(ms * 1000); }
  void advance_s(uint64_t s) { advance_us(s * 1000000); }
  // Steps the wall clock alone, as an operator or a time server does.
  void set_now_us(uint64_t now_us) { m_now_us = now_us; }

 private:
  std::atomic<uint64_t> m_now_us;
  std::atomic<uint64_t> m_monotonic_us{1'000'000'000};
};
