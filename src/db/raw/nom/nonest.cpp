#include "db/raw/nom/nonest.h"

#include "platform/krel/base/krel_log.h"

namespace velmar_db_nonest {

void impl_c::nest() {
  m_nesting_lock.lock();
  krel_assert(m_nesting == NOT_NESTING);
  m_nesting = NESTING;
  m_nesting_thread.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

nesting_e impl_c::unnest() {
  const nesting_e wish = m_nesting == NESTING ? NOT_NESTING : m_nesting;
  m_nesting = NOT_NESTING;
  m_nesting_thread.store(std::thread::id(), std::memory_order_relaxed);
  m_nesting_lock.unlock();
  return wish;
}

bool impl_c::try_run(nesting_e wish) {
  if (m_nesting_thread.load(std::memory_order_relaxed) == std::this_thread::get_id()) {
    krel_assert(m_nesting == NESTING);
    m_nesting = wish;
    return false;
  }
  m_nesting_lock.lock();
  m_nesting_lock.unlock();
  return true;
}

}  // namespace velmar_db_nonest
