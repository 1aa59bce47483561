#pragma once
// The surrogate database as the rest of the node sees it: metric identities to node-local ids and back.
// Implementations are safe from any thread; the blocking operations must not be called on a loop thread.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "db/surrogate/surrogate_key.h"

struct oil_list_t;

namespace db::surrogate {

enum spec_e { metadata = 0, activity = 1 };

// A pager over the results of a batch lookup. A page can be shorter than its request: unknown ids are
// skipped. It stands before the first page until fill_next_page is called. Used by one thread at a time.
class batch_find_result_t {
 public:
  virtual ~batch_find_result_t() = default;
  virtual const std::vector<metric_locator_sp> &get_page_locators() const = 0;
  virtual bool fill_next_page() = 0;  // false when there is none
};
using batch_find_result_sp = std::shared_ptr<batch_find_result_t>;

class lookup_synch_c {
 public:
  virtual ~lookup_synch_c() = default;
  // Every metric once; the callback returns false to stop.
  virtual void for_each_surrogate(bool (*callback)(const metric_locator_sp &locator, void *closure),
                                  void *closure) = 0;
  // The newest activity record of every id. The list lives for the call only.
  virtual void for_each_activity(bool (*callback)(uint64_t id, const oil_list_t *oil, void *closure),
                                 void *closure) = 0;
  virtual std::optional<uint64_t> find(const metric_locator_sp &locator) = 0;
  virtual metric_locator_sp find_reverse(uint64_t id) = 0;  // null: unknown or deleted
  virtual uint64_t get_count_estimate() = 0;                // of distinct metrics written lately
  // The locators erased, and the ids that could not be.
  virtual std::pair<std::vector<metric_locator_sp>, std::vector<uint64_t>> batch_erase(
      std::span<const uint64_t> ids) = 0;
  virtual batch_find_result_sp batch_find(std::span<const uint64_t> ids) = 0;
  virtual batch_find_result_sp batch_find(const std::vector<metric_locator_sp> &locators) = 0;
  // All locators with their activity attached.
  virtual std::vector<metric_locator_sp> side_load_all_surrogates() = 0;
  virtual void side_load_all_surrogates(const std::function<bool(const metric_locator_sp &)> &function) = 0;
};

class lookup_asynch_c {
 public:
  virtual ~lookup_asynch_c() = default;
  // The id is null when the metric is unknown. With an id in the locator the callback runs at once.
  virtual void find_surrogate_asynch(const metric_locator_sp &locator,
                                     void (*callback)(const uint64_t *id, void *closure), void *closure) = 0;
  virtual void find_surrogate_reverse_asynch(uint64_t id,
                                             void (*callback)(const metric_locator_sp &locator, void *closure),
                                             void *closure) = 0;
};

// The results of one batch, in the order of its entries.
class value_reader_c {
 public:
  virtual ~value_reader_c() = default;
  virtual value_c *get_values() = 0;
  virtual void **get_passthroughs() = 0;
  virtual size_t get_count() const = 0;
  virtual metric_locator_sp get_canonical_locator(uint64_t id) = 0;
};

// Whoever receives a reader gives it back exactly once.
class value_manager_c {
 public:
  virtual ~value_manager_c() = default;
  virtual void free_values(value_reader_c *reader) = 0;
};

using wrote_cb_f = void (*)(value_manager_c *manager, value_reader_c *reader, void *closure);
using write_error_cb_f = void (*)(const key_c &key, void *passthrough, void *closure);

class writer_asynch_c {
 public:
  virtual ~writer_asynch_c() = default;
  // Finds or assigns an id for each entry. The entries are the caller's and stay until wrote_cb; when it
  // runs, everything of the batch is on disk.
  virtual void write_surrogate_set_asynch(write_entry_c *entries, size_t count, wrote_cb_f wrote_cb,
                                          write_error_cb_f error_cb, void *closure) = 0;
  virtual void checkpoint() {}
  // Blocks until the callbacks have run.
  static void write_surrogate_set_synch(writer_asynch_c *writer, write_entry_c *entries, size_t count,
                                        wrote_cb_f wrote_cb, write_error_cb_f error_cb, void *closure);
};

// Forwards everything; decorators override what they change.
class skeleton_decorator_lookup_synch_c : public lookup_synch_c {
 public:
  explicit skeleton_decorator_lookup_synch_c(std::shared_ptr<lookup_synch_c> wrapped)
      : _wrapped(std::move(wrapped)) {}
  void for_each_surrogate(bool (*callback)(const metric_locator_sp &, void *), void *closure) override {
    _wrapped->for_each_surrogate(callback, closure);
  }
  void for_each_activity(bool (*callback)(uint64_t, const oil_list_t *, void *), void *closure) override {
    _wrapped->for_each_activity(callback, closure);
  }
  std::optional<uint64_t> find(const metric_locator_sp &locator) override { return _wrapped->find(locator); }
  metric_locator_sp find_reverse(uint64_t id) override { return _wrapped->find_reverse(id); }
  uint64_t get_count_estimate() override { return _wrapped->get_count_estimate(); }
  std::pair<std::vector<metric_locator_sp>, std::vector<uint64_t>> batch_erase(
      std::span<const uint64_t> ids) override {
    return _wrapped->batch_erase(ids);
  }
  batch_find_result_sp batch_find(std::span<const uint64_t> ids) override { return _wrapped->batch_find(ids); }
  batch_find_result_sp batch_find(const std::vector<metric_locator_sp> &locators) override {
    return _wrapped->batch_find(locators);
  }
  std::vector<metric_locator_sp> side_load_all_surrogates() override {
    return _wrapped->side_load_all_surrogates();
  }
  void side_load_all_surrogates(const std::function<bool(const metric_locator_sp &)> &function) override {
    _wrapped->side_load_all_surrogates(function);
  }

 protected:
  std::shared_ptr<lookup_synch_c> _wrapped;
};

// ---- merging a write into the canonical copy
enum : uint8_t { UPDATED_ACTIVITY = 1, UPDATED_METADATA = 2 };
// Do type, account or a set egress function differ?
bool needs_update(const velmar_metric_locator_t *incoming, const velmar_metric_locator_t *canonical);
// Folds the entry's locator and time into the canonical copy and puts that copy into the entry's key. The
// result says which records changed.
uint8_t process_update(write_entry_c *entry, const metric_locator_sp &incoming,
                       const metric_locator_sp &canonical);

}  // namespace db::surrogate

// ---- the node's surrogate database, published once at start
void velmar_global_surrogate_publish(std::shared_ptr<db::surrogate::lookup_synch_c> lookup_synch,
                                     std::shared_ptr<db::surrogate::lookup_asynch_c> lookup_asynch,
                                     std::shared_ptr<db::surrogate::writer_asynch_c> writer_asynch);
std::shared_ptr<db::surrogate::lookup_synch_c> velmar_global_surrogate_get_lookup_synch();    // or null
std::shared_ptr<db::surrogate::writer_asynch_c> velmar_global_surrogate_get_writer_asynch();  // or null
std::shared_ptr<db::surrogate::lookup_asynch_c> velmar_global_surrogate_get_lookup_asynch();  // none is fatal
// The id in the locator, else a blocking lookup; 0: unknown or no database.
uint64_t velmar_global_surrogate_get_synch(const metric_locator_sp &locator);
metric_locator_sp velmar_global_surrogate_reverse_get_synch(uint64_t id);
void velmar_surrogate_writer_checkpoint();
