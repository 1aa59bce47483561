#pragma once
// One put in progress: who asked, what is counted, and who must be told when all its work has ended.
//
// Two sides hold a request: the HTTP side (or another caller) and the work side, which is the root joiner with
// everything started under it. Each lets go once; the last one frees it.

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "be/raw/raw_counters.h"
#include "platform/krel/base/thread_annotations.h"
#include "util/concurrency/libvelmar_join.h"

namespace be::raw {

class raw_put_request_t : public expirable_c {
 public:
  using done_f = std::function<void(raw_put_request_t *)>;
  // `done` runs once, after all work under the joiner has ended, on whichever thread ended it.
  static raw_put_request_t *create(done_f done);
  void let_go();  // the caller's side

  // The first error is kept: the HTTP status and text with which the request is answered.
  void set_error(int code, const std::string &text);
  int get_error(std::string *text);

  libvelmar_join_t joiner;  // the caller holds its first count and commits it
  atomic_counters_t counters;

 private:
  explicit raw_put_request_t(done_f done) : m_done(std::move(done)) {}
  static void join_complete(void *closure);

  done_f m_done;
  std::atomic<int> m_sides{2};
  krel_mutex_c _error_mutex;
  int _error_code GUARDED_BY(_error_mutex) = 0;
  std::string _error_msg GUARDED_BY(_error_mutex);
};

}  // namespace be::raw
