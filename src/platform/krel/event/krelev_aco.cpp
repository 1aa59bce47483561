#include "platform/krel/event/krelev_aco.h"

#include <boost/context/fiber.hpp>
#include <memory>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_memory.h"
#include "platform/krel/event/krelev_aco_stack.h"
#include "platform/krel/event/krelev_aco_switch.h"
#include "platform/krel/event/krelev_pool.h"
#include "platform/krel/event/krelev_thread.h"

namespace {

using fiber_t = boost::context::fiber;

thread_local krelev_aco_c *t_aco = nullptr;

struct ended_t {};  // thrown out of a wait when the loop ends

struct stack_allocator_t {
  krelev_aco_stacks_c *stacks;
  void *stack;

  boost::context::stack_context allocate() {
    boost::context::stack_context context;
    context.size = krelev_aco_stacks_c::k_size;
    context.sp = static_cast<char *>(stack) + context.size;
    return context;
  }
  void deallocate(boost::context::stack_context &) noexcept { stacks->give(stack); }
};

}  // namespace

class krelev_aco_c {
 public:
  krelev_aco_c(krelev_loop_c &loop_, void (*function_)(void *), void *argument_, void *stack)
      : loop(loop_), function(function_), argument(argument_), switching(stack, krelev_aco_stacks_c::k_size) {
    fiber = fiber_t(std::allocator_arg, stack_allocator_t{&loop.aco_stacks(), stack},
                    [this](fiber_t &&main) { return body(std::move(main)); });
    next = loop.acos();
    if (next != nullptr) next->prev = this;
    loop.acos() = this;
  }
  ~krelev_aco_c() {
    (prev != nullptr ? prev->next : loop.acos()) = next;
    if (next != nullptr) next->prev = prev;
  }

  fiber_t body(fiber_t &&main);

  krelev_loop_c &loop;
  void (*function)(void *);
  void *argument;
  bool ending = false;  // waits throw from now on
  krelev_switch_c switching;
  fiber_t fiber;  // while it waits
  fiber_t from;   // while it runs: the loop's stack
  krelev_aco_c *prev = nullptr, *next = nullptr;
};

fiber_t krelev_aco_c::body(fiber_t &&main) {
  switching.arrived();
  from = std::move(main);
  try {
    function(argument);
  } catch (const ended_t &) {
  } catch (...) {
    krelev_log_exception("coroutine", nullptr);
  }
  switching.before_wait(true);
  return std::move(from);
}

krelev_aco_c *krelev_aco_current() {
  return t_aco;
}

krelev_loop_c &krelev_aco_loop(krelev_aco_c *aco) {
  return aco->loop;
}

void krelev_aco_resume(krelev_aco_c *aco) {
  krel_assert(t_aco == nullptr && krelev_loop_c::current() == &aco->loop);
  t_aco = aco;
  aco->switching.before_resume();
  fiber_t back = std::move(aco->fiber).resume();
  aco->switching.after_resume();
  t_aco = nullptr;
  if (back)
    aco->fiber = std::move(back);
  else
    std::unique_ptr<krelev_aco_c>{aco};
}

void krelev_aco_wait() {
  krelev_aco_c *aco = t_aco;
  krel_assert(aco != nullptr && !krel_memory_in_cs());
  if (aco->ending) throw ended_t{};
  aco->switching.before_wait(false);
  aco->from = std::move(aco->from).resume();
  aco->switching.arrived();
  if (aco->ending) throw ended_t{};
}

void krelev_aco_begin(krelev_loop_c &loop, void (*function)(void *), void *argument) {
  void *stack = loop.aco_stacks().take();
  krelev_aco_resume(std::make_unique<krelev_aco_c>(loop, function, argument, stack).release());
}

void krelev_aco_end_all(krelev_loop_c &loop) {
  while (krelev_aco_c *aco = loop.acos()) {
    aco->ending = true;
    krelev_aco_resume(aco);
  }
}

void krelev_aco_start(void (*function)(void *), void *argument) {
  krelev_loop_c *loop = krelev_default_owner();
  krel_assert(loop != nullptr);
  krelev_post_on(loop, [loop, function, argument] { krelev_aco_begin(*loop, function, argument); });
}

bool krelev_is_aco() {
  return t_aco != nullptr;
}

void *krelev_aco_arg() {
  krel_assert(t_aco != nullptr);
  return t_aco->argument;
}

void krelev_aco_sleep(const struct timeval *duration) {
  krel_assert(t_aco != nullptr);
  int64_t us = krelev_us(*duration);
  t_aco->loop.sleep_aco(t_aco, us <= 0 ? 0 : static_cast<uint64_t>(us) * 1000);
  krelev_aco_wait();
}
