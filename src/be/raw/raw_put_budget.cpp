#include "be/raw/raw_put_budget.h"

#include <algorithm>
#include <vector>

namespace be::raw {

namespace {
constexpr size_t BUDGET = 96 * 1024 * 1024;
}

raw_put_budget_c &raw_put_budget() {
  static raw_put_budget_c budget(BUDGET);
  return budget;
}

bool raw_put_budget_c::try_take(size_t bytes) {
  const krel_lock_c lock(m_mutex);
  bytes = std::min(bytes, m_capacity);
  if (m_left < bytes || !m_waiting.empty()) return false;
  m_left -= bytes;
  return true;
}

bool raw_put_budget_c::take_or_wait(size_t bytes, std::function<void()> granted) {
  const krel_lock_c lock(m_mutex);
  bytes = std::min(bytes, m_capacity);
  if (m_left < bytes || !m_waiting.empty()) {
    m_waiting.push_back({bytes, std::move(granted)});
    return false;
  }
  m_left -= bytes;
  return true;
}

void raw_put_budget_c::give_back(size_t bytes) {
  std::vector<std::function<void()>> granted;
  {
    const krel_lock_c lock(m_mutex);
    m_left += std::min(bytes, m_capacity);
    for (; !m_waiting.empty() && m_waiting.front().bytes <= m_left; m_waiting.pop_front()) {
      m_left -= m_waiting.front().bytes;
      granted.push_back(std::move(m_waiting.front().granted));
    }
  }
  for (const auto &g : granted) g();
}

}  // namespace be::raw
