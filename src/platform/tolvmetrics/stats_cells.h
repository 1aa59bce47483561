#pragma once
// Per-thread cells under counters and histograms. Only its thread writes a cell, so an update is a load and
// a store; readers add up the cells of all threads and what threads that ended left behind.
//
// Slots come from one pool for the whole process. A slot is freed when nobody updates it any more.

#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/tolvllhist/tolvllhist.h"

namespace stats_cells {

struct hist_deleter_t {
  void operator()(histogram_t *hist) const { hist_free(hist); }
};
using hist_ptr = std::unique_ptr<histogram_t, hist_deleter_t>;

constexpr uint32_t CHUNK_CELLS = 64;
struct alignas(64) chunk_t {
  std::atomic<int64_t> cells[CHUNK_CELLS] = {};
};

// Counts by bin, open addressing; key 0 is a free place.
struct bins_t;

// The directories of one thread: only it changes them, and only under the pool's lock.
struct thread_cells_t {
  chunk_t **chunks;
  uint32_t chunk_count;
  bins_t **bins;
  uint32_t bins_count;
};
extern thread_local constinit thread_cells_t *t_cells;  // null before the first and after the last update

uint32_t alloc_counter();
void free_counter(uint32_t slot);
int64_t sum(uint32_t slot);
void add_slow(uint32_t slot, int64_t amount);

inline void add(uint32_t slot, int64_t amount) {
  const thread_cells_t *cells = t_cells;
  const uint32_t chunk = slot / CHUNK_CELLS;
  if (cells != nullptr && chunk < cells->chunk_count && cells->chunks[chunk] != nullptr) [[likely]] {
    std::atomic<int64_t> &cell = cells->chunks[chunk]->cells[slot % CHUNK_CELLS];
    const auto have = static_cast<uint64_t>(cell.load(std::memory_order_relaxed));
    cell.store(static_cast<int64_t>(have + static_cast<uint64_t>(amount)), std::memory_order_relaxed);
  } else {
    add_slow(slot, amount);
  }
}

uint32_t alloc_histogram();
void free_histogram(uint32_t slot);
hist_ptr merged(uint32_t slot);
void insert(uint32_t slot, hist_bucket_t bucket, uint64_t count);

}  // namespace stats_cells
