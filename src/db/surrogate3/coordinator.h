#pragma once
// The surrogate database of a node: many readers, each with a thread and a part of the metrics of its own, and
// one writer. Safe from any thread; whatever waits must not be called on one of its own threads.

#include <functional>
#include <memory>

#include "db/surrogate/surrogate.h"
#include "db/surrogate3/codec/file_selection_strategy.h"
#include "db/surrogate3/gather_write.h"
#include "db/surrogate3/lookup_mediator.h"
#include "db/surrogate3/recent_locators.h"
#include "platform/krel/base/thread_annotations.h"
#include "util/concurrency/executor.h"

namespace db::surrogate3 {

class lookup_delegate_c;
class write_delegate_c;
struct lookup_memento_t;
struct write_batch_request_t;

struct coordinator_config_t {
  size_t max_page_size = 50000;
  uint32_t num_threads = 1;                     // readers, a power of two
  size_t capacity_per_reader_shard = 96000000;  // room made ahead of need, at most
};

class coordinator_c : public surrogate::lookup_asynch_c,
                      public surrogate::lookup_synch_c,
                      public surrogate::writer_asynch_c,
                      public lookup_mediator_c {
 public:
  coordinator_c(const coordinator_config_t &config, std::unique_ptr<file_selection_strategy_c> fss);
  ~coordinator_c() override;  // runs what was submitted first

  // Reads the files. Once, before all else.
  void prime_cache();

  // ---- lookup_synch_c
  void for_each_surrogate(bool (*callback)(const metric_locator_sp &, void *), void *closure) override;
  void for_each_activity(bool (*callback)(uint64_t, const oil_list_t *, void *), void *closure) override;
  std::optional<uint64_t> find(const metric_locator_sp &locator) override;
  metric_locator_sp find_reverse(uint64_t id) override;
  uint64_t get_count_estimate() override { return 0; }  // counted by a decorator
  std::pair<std::vector<metric_locator_sp>, std::vector<uint64_t>> batch_erase(
      std::span<const uint64_t> ids) override;
  surrogate::batch_find_result_sp batch_find(std::span<const uint64_t> ids) override;
  surrogate::batch_find_result_sp batch_find(const std::vector<metric_locator_sp> &locators) override;
  std::vector<metric_locator_sp> side_load_all_surrogates() override;
  void side_load_all_surrogates(const std::function<bool(const metric_locator_sp &)> &function) override;

  // ---- lookup_asynch_c. Callbacks run on a callback thread, or at once when the locator has its id.
  void find_surrogate_asynch(const metric_locator_sp &locator, void (*callback)(const uint64_t *, void *),
                             void *closure) override;
  void find_surrogate_reverse_asynch(uint64_t id, void (*callback)(const metric_locator_sp &, void *),
                                     void *closure) override;

  // ---- writer_asynch_c. Batches that wait for the writer together are made durable together.
  void write_surrogate_set_asynch(surrogate::write_entry_c *entries, size_t count,
                                  surrogate::wrote_cb_f wrote_cb, surrogate::write_error_cb_f error_cb,
                                  void *closure) override;

  // ---- lookup_mediator_c, on the writer's thread
  void replace_decoders(std::vector<surrogate_decoder_sp> decoders, uint64_t max_surrogate_id) override;
  void replace_decoders(std::vector<oil_decoder_sp> decoders) override;
  void broadcast_locators(std::vector<metric_locator_sp> locators, uint64_t generation) override;

  const file_selection_strategy_c &get_file_selection_strategy() const { return *_file_selection_strategy; }
  uint32_t choose_delegate(uint64_t id) const { return static_cast<uint32_t>(id & (_num_threads - 1)); }
  uint32_t choose_delegate(const velmar_metric_locator_t *ml) const;

 private:
  friend class id_pager_c;
  using locators_t = gather_write_c::locators_t;
  using places_t = std::vector<uint32_t>;
  template <typename Of>
  std::vector<places_t> split(size_t count, Of &&delegate_of) const;
  // Runs function(delegate number, places) on every delegate that has places, and waits for all.
  template <typename F>
  void run_on_delegates(const std::vector<places_t> &places, F &&function);

  void resolve(const locators_t &wanted, bool remember, std::vector<metric_locator_sp> *found);
  void find_by_key(const locators_t &wanted, const places_t &places, bool remember, std::vector<uint64_t> *ids,
                   std::vector<metric_locator_sp> *found);
  void find_locators(std::span<const uint64_t> ids, std::vector<metric_locator_sp> *found);
  void hand_to_readers_by_key(std::vector<metric_locator_sp> built);
  metric_locator_sp find_locator_on_delegate(uint64_t id);

  void drain_write_queue();
  void erase_run(std::span<const uint64_t> ids, std::vector<metric_locator_sp> *erased,
                 std::vector<uint64_t> *fails);
  lookup_memento_t fetch_memento();
  void release_memento(lookup_memento_t memento);

  const size_t _max_page_size;
  const uint32_t _num_threads;
  const size_t _capacity_per_reader_shard;
  const std::unique_ptr<file_selection_strategy_c> _file_selection_strategy;
  gather_tracker_c _gathers;
  krel_mutex_c _pending_mutex;
  std::vector<std::unique_ptr<write_batch_request_t>> _pending GUARDED_BY(_pending_mutex);
  // Delegates and writer are touched on their executors' threads alone, which end before them.
  std::vector<std::unique_ptr<lookup_delegate_c>> _delegates;
  std::unique_ptr<write_delegate_c> _surrogate_write_delegate;
  util::concurrency::executor_c _gc_executor;
  util::concurrency::executor_c _jobq_callbacks;
  util::concurrency::executor_c _jobq_delegates;
  util::concurrency::executor_c _jobq_writer;
};

}  // namespace db::surrogate3
