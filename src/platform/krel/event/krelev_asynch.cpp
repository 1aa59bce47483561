// Jobs with an event: WORK and CLEANUP on a queue thread, then over to the owner's loop for COMPLETE.
#include <memory>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev_event.h"
#include "platform/krel/event/krelev_jobq.h"
#include "platform/krel/event/krelev_loop.h"
#include "platform/krel/event/krelev_pool.h"
#include "platform/krel/event/krelev_thread.h"

namespace {

class asynch_event_c final : public krelev_event_s, public krelev_job_c, public krelev_task_c {
 public:
  asynch_event_c(krelev_callback_t callback_, void *closure_)
      : krelev_event_s(krelev_kind_e::asynch, KRELEV_ASYNCH_COMPLETE, callback_, closure_) {}
  ~asynch_event_c() = default;

  void work() noexcept override { call(KRELEV_ASYNCH_WORK); }
  // The hand-over: leaves the queue thread, reaches the owner's loop.
  void finish() noexcept override {
    call(KRELEV_ASYNCH_CLEANUP);
    loop->post(this);
  }
  void run(krelev_loop_c &) override {
    call(KRELEV_ASYNCH_COMPLETE);
    delete this;
  }
  void drop() noexcept override { delete this; }

 private:
  void call(int phase) noexcept {
    krelev_guarded("job", callback, [&] {
      struct timeval now = krelev_timeval(static_cast<int64_t>(krel_now_us()));
      int result = callback(this, phase, closure, &now);
      if (result != 0)
        krel_log(krel_error, "job %s returned %d for mask %d\n", krelev_name_for_callback(callback), result,
                 phase);
    });
  }
};

class function_job_c final : public krelev_job_c {
 public:
  explicit function_job_c(std::function<void()> function) : m_function(std::move(function)) {}
  void work() noexcept override { krelev_guarded("job", nullptr, m_function); }
  void finish() noexcept override { delete this; }
  void drop() noexcept override { delete this; }

 private:
  std::function<void()> m_function;
};

asynch_event_c *asynch_event(krelev_event_t event) {
  krelev_event_s *e = krelev_event_of(event);
  krel_assert(e->kind == krelev_kind_e::asynch);
  return static_cast<asynch_event_c *>(e);
}

asynch_event_c *prepared(krelev_event_t event, uint64_t subqueue) {
  asynch_event_c *job = asynch_event(event);
  krelev_owner_of(job);
  job->subqueue = subqueue;
  return job;
}

krelev_jobq_t *or_default(krelev_jobq_t *jobq) {
  return jobq != nullptr ? jobq : krelev_jobqs_c::get().default_queue();
}

}  // namespace

krelev_event_t krelev_alloc_asynch(krelev_callback_t callback, void *closure) {
  return std::make_unique<asynch_event_c>(callback, closure).release();
}

void krelev_asynch_free(krelev_event_s *event) {
  delete asynch_event(event);
}

void krelev_add_asynch(krelev_jobq_t *jobq, krelev_event_t event) {
  or_default(jobq)->add(prepared(event, KRELEV_NO_SUBQUEUE));
}

void krelev_add_asynch_subqueue(krelev_jobq_t *jobq, krelev_event_t event, uint64_t subqueue) {
  or_default(jobq)->add(prepared(event, subqueue));
}

bool krelev_try_add_asynch(krelev_jobq_t *jobq, krelev_event_t event) {
  return or_default(jobq)->try_add(prepared(event, KRELEV_NO_SUBQUEUE));
}

bool krelev_try_add_asynch_subqueue(krelev_jobq_t *jobq, krelev_event_t event, uint64_t subqueue) {
  return or_default(jobq)->try_add(prepared(event, subqueue));
}

void krelev_jobq_run(krelev_jobq_t *jobq, std::function<void()> function) {
  or_default(jobq)->add(std::make_unique<function_job_c>(std::move(function)).release());
}
