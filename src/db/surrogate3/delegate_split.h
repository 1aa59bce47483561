#pragma once
// How work is divided among the readers. For the coordinator's sources only.

#include <utility>

#include "db/surrogate3/coordinator.h"
#include "db/surrogate3/lookup_delegate.h"
#include "db/surrogate3/write_delegate.h"
#include "util/concurrency/single_barrier.h"

namespace db::surrogate3 {

// The places of 0..count-1 by the delegate that delegate_of(place) names; NO_DELEGATE leaves one out.
constexpr uint32_t NO_DELEGATE = UINT32_MAX;

template <typename Of>
std::vector<coordinator_c::places_t> coordinator_c::split(size_t count, Of &&delegate_of) const {
  std::vector<places_t> places(_num_threads);
  for (size_t i = 0; i < count; ++i) {
    const uint32_t delegate = delegate_of(i);
    if (delegate != NO_DELEGATE) places[delegate].push_back(static_cast<uint32_t>(i));
  }
  return places;
}

template <typename F>
void coordinator_c::run_on_delegates(const std::vector<places_t> &places, F &&function) {
  krel_assert(!_jobq_delegates.on_own_thread());
  uint32_t count = 0;
  for (const places_t &of_one : places) count += !of_one.empty();
  if (count == 0) return;
  util::concurrency::single_barrier_c barrier(count);
  for (uint32_t i = 0; i < places.size(); ++i) {
    if (places[i].empty()) continue;
    const bool taken = _jobq_delegates.submit(
        [&, i] {
          function(*_delegates[i], places[i]);
          _delegates[i]->settle();
          barrier.count_down();
        },
        i);
    krel_assert(taken);
  }
  barrier.wait();
}

}  // namespace db::surrogate3
