#pragma once
// tolv_asynch on job queues.

#include "util/concurrency/tolv_asynch.h"

namespace tolv_asynch_krel {

class runner_c : public tolv_asynch::runner_c {
 public:
  // The queue of that name, made when missing. One that exists must have the wanted memory safety and is
  // left standing later. What the configuration says of the queue (//krelev/config/jobq_NAME) beats params.
  runner_c(const std::string &name, const tolv_asynch::runner_params_t &params);
  ~runner_c() override;
  runner_c(const runner_c &) = delete;
  runner_c &operator=(const runner_c &) = delete;
  void add(krelev_event_t event) override;
  bool try_add(krelev_event_t event) override;
  krelev_jobq_t *jobq() const { return m_jobq; }

 private:
  krelev_jobq_t *m_jobq;
  bool preexisting;
};

class default_runner_c : public tolv_asynch::runner_c {
 public:
  void add(krelev_event_t event) override;
  bool try_add(krelev_event_t event) override;
};

class factory_c : public tolv_asynch::factory_c {
 public:
  static factory_c &get_instance();
  tolv_asynch::runner_c *get_default_runner() override { return &m_default; }
  tolv_asynch::runner_c *create_runner(const std::string &name,
                                       const tolv_asynch::runner_params_t &params) override;
  void free_runner(tolv_asynch::runner_c *runner) override;
  krelev_event_t create_cb(krelev_callback_t callback, void *closure) override;

 private:
  default_runner_c m_default;
};

}  // namespace tolv_asynch_krel
