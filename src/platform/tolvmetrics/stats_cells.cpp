#include "platform/tolvmetrics/stats_cells.h"

#include <algorithm>
#include <vector>

#include "platform/krel/base/thread_annotations.h"

namespace stats_cells {

thread_local constinit thread_cells_t *t_cells = nullptr;

struct bins_t {
  struct place_t {
    std::atomic<uint32_t> key{0};
    std::atomic<uint64_t> count{0};
  };

  explicit bins_t(uint32_t size) : places(size), mask(size - 1) {}

  static uint32_t key_of(hist_bucket_t bucket) {
    return (uint32_t{static_cast<uint8_t>(bucket.val)} << 8 | static_cast<uint8_t>(bucket.exp)) + 1;
  }
  static hist_bucket_t bucket_of(uint32_t key) {
    return {static_cast<int8_t>((key - 1) >> 8), static_cast<int8_t>(key - 1)};
  }

  // False when the bin is new and would fill more than half of the places.
  bool insert(uint32_t key, uint64_t amount) {
    uint32_t i = key * 0x9e3779b1u >> 15 & mask;
    for (;; i = (i + 1) & mask) {
      place_t &place = places[i];
      const uint32_t have = place.key.load(std::memory_order_relaxed);
      if (have == key) {
        const uint64_t total = place.count.load(std::memory_order_relaxed) + amount;
        place.count.store(total < amount ? UINT64_MAX : total, std::memory_order_relaxed);
        return true;
      }
      if (have != 0) continue;
      if ((used + 1) * 2 > mask + 1) return false;
      ++used;
      place.count.store(amount, std::memory_order_relaxed);
      place.key.store(key, std::memory_order_release);
      return true;
    }
  }

  void add_to(histogram_t *hist) const {
    for (const place_t &place : places) {
      const uint32_t key = place.key.load(std::memory_order_acquire);
      if (key != 0) hist_insert_raw(hist, bucket_of(key), place.count.load(std::memory_order_relaxed));
    }
  }

  std::vector<place_t> places;
  uint32_t mask;
  uint32_t used = 0;  // the thread's own
};

namespace {

constexpr uint32_t FIRST_BINS = 16;

// A thread's cells with their ownership.
struct owned_cells_t : thread_cells_t {
  owned_cells_t() : thread_cells_t{} {}
  std::vector<std::unique_ptr<chunk_t>> owned_chunks;
  std::vector<std::unique_ptr<bins_t>> owned_bins;
  std::vector<chunk_t *> chunk_directory;
  std::vector<bins_t *> bins_directory;

  void set_chunk(uint32_t at, std::unique_ptr<chunk_t> chunk) {
    if (at >= chunk_directory.size()) {
      chunk_directory.resize(at + 1);
      owned_chunks.resize(at + 1);
    }
    chunk_directory[at] = chunk.get();
    owned_chunks[at] = std::move(chunk);
    chunks = chunk_directory.data();
    chunk_count = static_cast<uint32_t>(chunk_directory.size());
  }
  // On behalf of another thread, which reads the other entries meanwhile.
  void drop_bins(uint32_t at) {
    bins_directory[at] = nullptr;
    owned_bins[at].reset();
  }
  void set_bins(uint32_t at, std::unique_ptr<bins_t> table) {
    if (at >= bins_directory.size()) {
      bins_directory.resize(at + 1);
      owned_bins.resize(at + 1);
    }
    bins_directory[at] = table.get();
    owned_bins[at] = std::move(table);
    bins = bins_directory.data();
    bins_count = static_cast<uint32_t>(bins_directory.size());
  }
};

// Everything of the process. Never destroyed: threads may outlive statics.
struct pool_t {
  krel_mutex_c mutex;
  std::vector<owned_cells_t *> threads GUARDED_BY(mutex);
  std::vector<uint64_t> ended_counts GUARDED_BY(mutex);  // by slot
  std::vector<hist_ptr> ended_hists GUARDED_BY(mutex);   // by slot
  std::vector<uint32_t> free_counters GUARDED_BY(mutex);
  std::vector<uint32_t> free_hists GUARDED_BY(mutex);
};

pool_t &pool() {
  static pool_t *const the_pool = std::make_unique<pool_t>().release();
  return *the_pool;
}

thread_local constinit bool t_ended = false;

// Lives as long as its thread; its end folds the cells into the totals.
class thread_guard_c {
 public:
  thread_guard_c() : m_cells(std::make_unique<owned_cells_t>()) {
    pool_t &all = pool();
    const krel_lock_c lock(all.mutex);
    all.threads.push_back(m_cells.get());
    t_cells = m_cells.get();
  }
  ~thread_guard_c() {
    pool_t &all = pool();
    const krel_lock_c lock(all.mutex);
    t_cells = nullptr;
    t_ended = true;
    all.threads.erase(std::find(all.threads.begin(), all.threads.end(), m_cells.get()));
    for (uint32_t i = 0; i < all.ended_counts.size() && i / CHUNK_CELLS < m_cells->chunk_count; ++i) {
      const chunk_t *chunk = m_cells->chunks[i / CHUNK_CELLS];
      if (chunk != nullptr)
        all.ended_counts[i] +=
            static_cast<uint64_t>(chunk->cells[i % CHUNK_CELLS].load(std::memory_order_relaxed));
    }
    for (uint32_t i = 0; i < m_cells->bins_count; ++i)
      if (m_cells->bins[i] != nullptr) m_cells->bins[i]->add_to(all.ended_hists[i].get());
  }
  thread_guard_c(const thread_guard_c &) = delete;
  thread_guard_c &operator=(const thread_guard_c &) = delete;

  owned_cells_t &cells() { return *m_cells; }

 private:
  std::unique_ptr<owned_cells_t> m_cells;
};

owned_cells_t &own_cells() {
  thread_local thread_guard_c guard;
  return guard.cells();
}

template <typename T>
uint32_t take(std::vector<uint32_t> *free_slots, std::vector<T> *by_slot) {
  if (!free_slots->empty()) {
    const uint32_t slot = free_slots->back();
    free_slots->pop_back();
    return slot;
  }
  by_slot->emplace_back();
  return static_cast<uint32_t>(by_slot->size() - 1);
}

void insert_slow(uint32_t slot, uint32_t key, uint64_t count) {
  pool_t &all = pool();
  if (t_ended) {
    const krel_lock_c lock(all.mutex);
    hist_insert_raw(all.ended_hists[slot].get(), bins_t::bucket_of(key), count);
    return;
  }
  owned_cells_t &mine = own_cells();
  const krel_lock_c lock(all.mutex);
  const bins_t *old = slot < mine.bins_count ? mine.bins[slot] : nullptr;
  const uint32_t size = old == nullptr ? FIRST_BINS : (old->mask + 1) * 2;
  auto table = std::make_unique<bins_t>(size);
  if (old != nullptr) {
    for (const bins_t::place_t &place : old->places) {
      const uint32_t have = place.key.load(std::memory_order_relaxed);
      if (have != 0) table->insert(have, place.count.load(std::memory_order_relaxed));
    }
  }
  table->insert(key, count);
  mine.set_bins(slot, std::move(table));
}

}  // namespace

uint32_t alloc_counter() {
  pool_t &all = pool();
  const krel_lock_c lock(all.mutex);
  return take(&all.free_counters, &all.ended_counts);
}

void free_counter(uint32_t slot) {
  pool_t &all = pool();
  const krel_lock_c lock(all.mutex);
  for (owned_cells_t *thread : all.threads)
    if (slot / CHUNK_CELLS < thread->chunk_count && thread->chunks[slot / CHUNK_CELLS] != nullptr)
      thread->chunks[slot / CHUNK_CELLS]->cells[slot % CHUNK_CELLS].store(0, std::memory_order_relaxed);
  all.ended_counts[slot] = 0;
  all.free_counters.push_back(slot);
}

int64_t sum(uint32_t slot) {
  pool_t &all = pool();
  const krel_lock_c lock(all.mutex);
  uint64_t total = all.ended_counts[slot];
  for (const owned_cells_t *thread : all.threads)
    if (slot / CHUNK_CELLS < thread->chunk_count && thread->chunks[slot / CHUNK_CELLS] != nullptr)
      total += static_cast<uint64_t>(
          thread->chunks[slot / CHUNK_CELLS]->cells[slot % CHUNK_CELLS].load(std::memory_order_relaxed));
  return static_cast<int64_t>(total);
}

void add_slow(uint32_t slot, int64_t amount) {
  pool_t &all = pool();
  if (t_ended) {
    const krel_lock_c lock(all.mutex);
    all.ended_counts[slot] += static_cast<uint64_t>(amount);
    return;
  }
  owned_cells_t &mine = own_cells();
  {
    const krel_lock_c lock(all.mutex);
    const uint32_t chunk = slot / CHUNK_CELLS;
    if (chunk >= mine.chunk_count || mine.chunks[chunk] == nullptr)
      mine.set_chunk(chunk, std::make_unique<chunk_t>());
  }
  add(slot, amount);
}

uint32_t alloc_histogram() {
  pool_t &all = pool();
  const krel_lock_c lock(all.mutex);
  const uint32_t slot = take(&all.free_hists, &all.ended_hists);
  all.ended_hists[slot].reset(hist_alloc());
  return slot;
}

void free_histogram(uint32_t slot) {
  pool_t &all = pool();
  const krel_lock_c lock(all.mutex);
  for (owned_cells_t *thread : all.threads)
    if (slot < thread->bins_count) thread->drop_bins(slot);
  hist_clear(all.ended_hists[slot].get());
  all.free_hists.push_back(slot);
}

hist_ptr merged(uint32_t slot) {
  pool_t &all = pool();
  const krel_lock_c lock(all.mutex);
  hist_ptr result(hist_clone(all.ended_hists[slot].get()));
  for (const owned_cells_t *thread : all.threads)
    if (slot < thread->bins_count && thread->bins[slot] != nullptr) thread->bins[slot]->add_to(result.get());
  return result;
}

void insert(uint32_t slot, hist_bucket_t bucket, uint64_t count) {
  const thread_cells_t *cells = t_cells;
  const uint32_t key = bins_t::key_of(bucket);
  if (cells == nullptr || slot >= cells->bins_count || cells->bins[slot] == nullptr ||
      !cells->bins[slot]->insert(key, count)) [[unlikely]]
    insert_slow(slot, key, count);
}

}  // namespace stats_cells
