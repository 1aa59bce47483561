#pragma once
// Keeps a chain of "next" calls from within callbacks flat: a wish made inside the callback is carried out
// by the loop that called it, after it has returned.

#include <atomic>
#include <thread>

#include "platform/krel/base/thread_annotations.h"

namespace velmar_db_nonest {

enum nesting_e {
  NOT_NESTING = 0,
  NESTING = 1,
  POSTPONED_NEXT = 2,
  POSTPONED_PREV = 3,
  POSTPONED_CLOSE = 4,
};

class impl_c {
 public:
  // Around a callback, on the thread that runs it. unnest gives the wish that was made meanwhile, or
  // NOT_NESTING: then another thread may already have ended this object.
  void nest() ACQUIRE(m_nesting_lock);
  nesting_e unnest() RELEASE(m_nesting_lock);
  // True: go on now; a callback running on another thread has been waited out. False: this thread is
  // inside the callback, and the wish is noted.
  bool will_seek(bool forward) { return try_run(forward ? POSTPONED_NEXT : POSTPONED_PREV); }
  bool will_close() { return try_run(POSTPONED_CLOSE); }

 private:
  bool try_run(nesting_e wish);

  krel_mutex_c m_nesting_lock;  // held while a callback runs
  std::atomic<std::thread::id> m_nesting_thread{};
  nesting_e m_nesting = NOT_NESTING;  // the nesting thread's alone
};

}  // namespace velmar_db_nonest
