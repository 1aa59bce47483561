#include "platform/krel/event/krelev_aco_stack.h"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev_aco_switch.h"

#if defined(KRELEV_ASAN) || defined(KRELEV_TSAN)
const size_t krelev_aco_stacks_c::k_size = 512 * 1024;  // instrumented frames are larger
#else
const size_t krelev_aco_stacks_c::k_size = 128 * 1024;
#endif

namespace {

constexpr size_t k_guard = 64 * 1024;  // more than a page: a large frame must not step over it
constexpr size_t k_keep = 64;
constexpr size_t k_trim_at_once = 128;  // a loop stands still meanwhile

void unmap(void *stack) {
  krelev_forget_frames(stack, krelev_aco_stacks_c::k_size);
  munmap(static_cast<char *>(stack) - k_guard, krelev_aco_stacks_c::k_size + k_guard);
}

}  // namespace

krelev_aco_stacks_c::~krelev_aco_stacks_c() {
  for (void *stack : m_kept) unmap(stack);
}

void *krelev_aco_stacks_c::take() {
  if (!m_kept.empty()) {
    void *stack = m_kept.back();
    m_kept.pop_back();
    m_unneeded = std::min(m_unneeded, m_kept.size());
    return stack;
  }
  void *mapping =
      mmap(nullptr, k_size + k_guard, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  char *stack = static_cast<char *>(mapping) + k_guard;
  if (mapping == MAP_FAILED || mprotect(stack, k_size, PROT_READ | PROT_WRITE) != 0)
    krel_fatal("no stack for a coroutine: %s (vm.max_map_count allows half its number of them)\n",
               strerror(errno));
  return stack;
}

void krelev_aco_stacks_c::give(void *stack) {
  krelev_forget_frames(stack, k_size);
  m_kept.push_back(stack);
}

void krelev_aco_stacks_c::trim() {
  for (size_t excess = std::min((m_unneeded + 1) / 2, k_trim_at_once); excess > 0 && m_kept.size() > k_keep;
       --excess) {
    unmap(m_kept.back());
    m_kept.pop_back();
  }
  m_unneeded = m_kept.size();
}
