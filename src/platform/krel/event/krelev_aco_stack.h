#pragma once
// Stacks of coroutines: small mappings above a guard area, kept for the next one up to a number.
// One thread.

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

 private:
  std::vector<void *> m_kept;
};
