#pragma once
// Stacks of coroutines: small mappings above a guard area. Free ones are kept for the next coroutines;
// what nobody needed for a while goes back to the system bit by bit. One thread.

#include <cstddef>
#include <vector>

class krelev_aco_stacks_c {
 public:
  static const size_t k_size;

  krelev_aco_stacks_c() = default;
  ~krelev_aco_stacks_c();
  krelev_aco_stacks_c(const krelev_aco_stacks_c &) = delete;
  krelev_aco_stacks_c &operator=(const krelev_aco_stacks_c &) = delete;

  void *take();  // lowest byte of k_size usable ones; fatal when the system gives no more
  void give(void *stack);
  void trim();  // once in a while: gives back half of what was not needed since the last time
  size_t kept() const { return m_kept.size(); }

 private:
  std::vector<void *> m_kept;
  size_t m_unneeded = 0;  // fewest kept since the last trim
};
