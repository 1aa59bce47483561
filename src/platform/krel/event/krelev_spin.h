#pragma once
// Whether a thread that has run out of work should look again for some microseconds before it sleeps.
// It should where most of its recent idle gaps were that short; a thread with long gaps never spins.

#include <cstdint>

#include "platform/krel/base/ck_cxx.h"

class krelev_spin_c {
 public:
  static constexpr uint64_t k_limit_ns = 20000;

  bool worthwhile() const { return s_several_cpus && __builtin_popcount(m_short_gaps) >= 4; }
  // Length of the gap between running out of work and having some again.
  void gap(uint64_t ns) { m_short_gaps = static_cast<uint8_t>(m_short_gaps << 1 | (ns < 3 * k_limit_ns)); }

  // Calls found() until it is true (and returns true) or the limit has passed since `from_ns`.
  template <typename Found>
  static bool spin(uint64_t from_ns, uint64_t (*now_ns)(), Found found) {
    do {
      for (int i = 0; i < 8; ++i) {
        if (found()) return true;
        ck_pr_stall();
      }
    } while (now_ns() - from_ns < k_limit_ns);
    return found();
  }

 private:
  static const bool s_several_cpus;

  uint8_t m_short_gaps = 0xf0;  // the last eight, newest in bit 0; starts willing
};
