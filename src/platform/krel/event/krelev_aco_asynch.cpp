// Coroutines that have functions run on queues: one at a time, or a group under a gate.
#include <memory>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/event/krelev_aco.h"
#include "platform/krel/event/krelev_jobq.h"
#include "platform/krel/event/krelev_thread.h"

namespace {

// Runs a function on a queue thread, then goes over to the coroutine's loop.
class aco_job_c : public krelev_job_c, public krelev_task_c {
 public:
  aco_job_c(krelev_loop_c &loop, uint64_t subqueue_, void (*function)(void *), void *closure)
      : m_loop(loop), m_function(function), m_closure(closure) {
    subqueue = subqueue_;
  }
  void work() noexcept final {
    krelev_guarded("coroutine's job", nullptr, [this] { m_function(m_closure); });
  }
  void finish() noexcept final { m_loop.post(this); }
  void drop() noexcept override = 0;

 protected:
  ~aco_job_c() = default;

 private:
  krelev_loop_c &m_loop;
  void (*m_function)(void *);
  void *m_closure;
};

class single_job_c final : public aco_job_c {
 public:
  single_job_c(krelev_aco_c *aco, uint64_t subqueue_, void (*function)(void *), void *closure)
      : aco_job_c(krelev_aco_loop(aco), subqueue_, function, closure), m_aco(aco) {}
  void run(krelev_loop_c &) override {
    krelev_aco_c *aco = m_aco;
    delete this;
    krelev_aco_resume(aco);
  }
  void drop() noexcept override { delete this; }

 private:
  krelev_aco_c *m_aco;
};

krelev_jobq_t *or_default(krelev_jobq_t *jobq) {
  return jobq != nullptr ? jobq : krelev_jobqs_c::get().default_queue();
}

}  // namespace

// Counted by its jobs and by whoever is to wait for it; touched by its loop's thread alone.
struct krelev_aco_gate_s {
  krelev_loop_c &loop;
  krelev_aco_c *waiter = nullptr;
  uint32_t jobs = 0;
  bool waited_for = false;  // the waiter is gone: the last job frees the gate

  void job_ended() {
    if (--jobs > 0) return;
    if (waited_for)
      delete this;
    else if (waiter != nullptr)
      krelev_aco_resume(waiter);
  }
};

namespace {

class gated_job_c final : public aco_job_c {
 public:
  gated_job_c(krelev_aco_gate_t gate, uint64_t subqueue_, void (*function)(void *), void *closure)
      : aco_job_c(gate->loop, subqueue_, function, closure), m_gate(gate) {}
  void run(krelev_loop_c &) override {
    krelev_aco_gate_t gate = m_gate;
    delete this;
    gate->job_ended();
  }
  void drop() noexcept override {  // all loops have ended, so nobody waits any more
    m_gate->job_ended();
    delete this;
  }

 private:
  krelev_aco_gate_t m_gate;
};

}  // namespace

void krelev_aco_simple_asynch_queue_subqueue(krelev_jobq_t *jobq, uint64_t subqueue, void (*function)(void *),
                                             void *closure) {
  krelev_aco_c *aco = krelev_aco_current();
  krel_assert(aco != nullptr);
  or_default(jobq)->add(std::make_unique<single_job_c>(aco, subqueue, function, closure).release());
  krelev_aco_wait();
}

krelev_aco_gate_t krelev_aco_gate() {
  krelev_aco_c *aco = krelev_aco_current();
  krel_assert(aco != nullptr);
  return std::make_unique<krelev_aco_gate_s>(krelev_aco_gate_s{krelev_aco_loop(aco)}).release();
}

void krelev_aco_run_asynch_queue_subqueue_gated(krelev_aco_gate_t gate, krelev_jobq_t *jobq, uint64_t subqueue,
                                                void (*function)(void *), void *closure) {
  krel_assert(krelev_loop_c::current() == &gate->loop);
  ++gate->jobs;
  or_default(jobq)->add(std::make_unique<gated_job_c>(gate, subqueue, function, closure).release());
}

void krelev_aco_gate_wait(krelev_aco_gate_t gate) {
  krel_assert(krelev_loop_c::current() == &gate->loop && gate->waiter == nullptr);
  struct leave_t {
    krelev_aco_gate_t gate;
    ~leave_t() {  // also when the loop ends and the wait throws
      if (gate->jobs == 0)
        delete gate;
      else
        gate->waited_for = true;
    }
  } leave{gate};
  gate->waiter = krelev_aco_current();
  if (gate->jobs > 0) krelev_aco_wait();
}
