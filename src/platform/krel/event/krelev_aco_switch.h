#pragma once
// What has to change along with the stack when a thread goes over to a coroutine or back: the C++
// run-time's exceptions in flight and, in instrumented builds, the sanitizers' idea of the stack.

#include <cxxabi.h>

#include <cstddef>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#define KRELEV_ASAN 1
#endif
#if defined(__SANITIZE_THREAD__)
#define KRELEV_TSAN 1
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KRELEV_ASAN 1
#endif
#if __has_feature(thread_sanitizer)
#define KRELEV_TSAN 1
#endif
#endif

#ifdef KRELEV_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif
#ifdef KRELEV_TSAN
#include <sanitizer/tsan_interface.h>
#endif

inline void krelev_forget_frames([[maybe_unused]] void *stack, [[maybe_unused]] size_t size) {
#ifdef KRELEV_ASAN
  __asan_unpoison_memory_region(stack, size);
#endif
}

// The exceptions being handled on the present stack (the layout is the C++ ABI's).
struct krelev_exceptions_t {
  void *caught = nullptr;
  unsigned int uncaught = 0;

  void swap() {
    void *current = abi::__cxa_get_globals();
    krelev_exceptions_t own;
    std::memcpy(static_cast<void *>(&own), current, sizeof own);
    std::memcpy(current, static_cast<const void *>(this), sizeof own);
    *this = own;
  }
};

// One coroutine's part; each switch is announced on the stack that is left and ended on the one reached.
class krelev_switch_c {
 public:
  krelev_switch_c(const void *stack, size_t size) {
    m_stack = stack;
    m_size = size;
#ifdef KRELEV_TSAN
    m_fiber = __tsan_create_fiber(0);
#endif
  }
  ~krelev_switch_c() {
#ifdef KRELEV_TSAN
    __tsan_destroy_fiber(m_fiber);
#endif
  }
  krelev_switch_c(const krelev_switch_c &) = delete;
  krelev_switch_c &operator=(const krelev_switch_c &) = delete;

  // ---- on the loop's stack, around a resume
  void before_resume() {
    m_exceptions.swap();
#ifdef KRELEV_ASAN
    __sanitizer_start_switch_fiber(&m_loop_frames, m_stack, m_size);
#endif
#ifdef KRELEV_TSAN
    m_loop_fiber = __tsan_get_current_fiber();
    __tsan_switch_to_fiber(m_fiber, 0);
#endif
  }
  void after_resume() {
#ifdef KRELEV_ASAN
    __sanitizer_finish_switch_fiber(m_loop_frames, nullptr, nullptr);
#endif
    m_exceptions.swap();
  }

  // ---- on the coroutine's stack
  void arrived() {  // at its start and after each wait
#ifdef KRELEV_ASAN
    __sanitizer_finish_switch_fiber(m_frames, &m_loop_stack, &m_loop_size);
#endif
  }
  void before_wait([[maybe_unused]] bool for_good) {
#ifdef KRELEV_ASAN
    __sanitizer_start_switch_fiber(for_good ? nullptr : &m_frames, m_loop_stack, m_loop_size);
#endif
#ifdef KRELEV_TSAN
    __tsan_switch_to_fiber(m_loop_fiber, 0);
#endif
  }

 private:
  krelev_exceptions_t m_exceptions;  // of whichever stack is not running
  [[maybe_unused]] const void *m_stack;
  [[maybe_unused]] size_t m_size;
#ifdef KRELEV_ASAN
  void *m_frames = nullptr, *m_loop_frames = nullptr;
  const void *m_loop_stack = nullptr;
  size_t m_loop_size = 0;
#endif
#ifdef KRELEV_TSAN
  void *m_fiber, *m_loop_fiber = nullptr;
#endif
};
