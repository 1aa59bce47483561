#pragma once
// What one write to the surrogate database asks for and what comes back.

#include <chrono>
#include <cstdint>
#include <cstring>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "util/metric_locator.h"

namespace db::surrogate {

constexpr uint64_t ID_NONE = 0;

// A metric and the time of the sample that named it. The name is a view into the locator it holds.
class key_c {
 public:
  using ms_t = std::chrono::milliseconds;

  key_c() = default;
  key_c(const key_c &) = default;
  key_c(key_c &&other) noexcept { take(std::move(other)); }
  key_c &operator=(key_c &&other) noexcept {
    if (other._valid) take(std::move(other));
    return *this;
  }
  // A key without data leaves this one as it is.
  key_c &operator=(const key_c &other) {
    if (other._valid && this != &other) take(key_c(other));
    return *this;
  }

  // Takes another reference on the locator.
  void set_data(const metric_locator_sp &locator, ms_t timestamp) {
    set_data(locator, timestamp, ms_t(0), ms_t::max());
  }
  void set_data(const metric_locator_sp &locator, ms_t timestamp, ms_t lower_bound, ms_t upper_bound) {
    _metric_locator = locator;
    memcpy(_uuid, velmar_metric_locator_get_check_uuid(locator.get()), sizeof _uuid);
    _metric_name_buf = velmar_metric_locator_get_name_buf_without_tags(locator.get());
    _timestamp = timestamp;
    _lower_bound = lower_bound;
    _upper_bound = upper_bound;
    _valid = true;
  }
  void no_data() {
    _valid = false;
    _metric_locator.reset();
    _metric_name_buf = {};
  }
  bool is_valid() const { return _valid; }

  const krel_uuid_t &get_uuid() const { return _uuid; }
  const mem_reader_t &get_metric_name_buf() const { return _metric_name_buf; }
  const metric_locator_sp &get_metric_locator() const { return _metric_locator; }
  const dorn_metric_tagset_t *get_stream_tags() const {
    krel_assert(_valid);
    return velmar_metric_locator_get_stream_tags(_metric_locator.get());
  }
  ms_t get_timestamp() const { return _timestamp; }
  void set_timestamp(ms_t timestamp) { _timestamp = timestamp; }
  ms_t get_lower_bound() const { return _lower_bound; }
  void set_lower_bound(ms_t bound) { _lower_bound = bound; }
  ms_t get_upper_bound() const { return _upper_bound; }
  void set_upper_bound(ms_t bound) { _upper_bound = bound; }
  // Write both records whatever changed, and let the locator's id raise the id generator.
  bool is_force_write() const { return _force_write; }
  void set_force_write(bool force) { _force_write = force; }

 private:
  void take(key_c &&other) {
    _valid = other._valid;
    _force_write = other._force_write;
    memcpy(_uuid, other._uuid, sizeof _uuid);
    _metric_locator = std::move(other._metric_locator);
    _metric_name_buf = other._metric_name_buf;
    _timestamp = other._timestamp;
    _lower_bound = other._lower_bound;
    _upper_bound = other._upper_bound;
    other.no_data();
  }

  bool _valid = false;
  bool _force_write = false;
  krel_uuid_t _uuid = {};
  metric_locator_sp _metric_locator;
  mem_reader_t _metric_name_buf;
  ms_t _timestamp{0};
  ms_t _lower_bound{0};
  ms_t _upper_bound = ms_t::max();
};
static_assert(std::chrono::milliseconds::max().count() == INT64_MAX);

// One element of a write batch; the passthrough comes back with its result.
class write_entry_c {
 public:
  write_entry_c() = default;
  explicit write_entry_c(key_c key, void *passthrough = nullptr)
      : _key(std::move(key)), _passthrough(passthrough) {}

  key_c &get_key() { return _key; }
  const key_c &get_key() const { return _key; }
  void set_key(const key_c &key) { _key = key; }
  void *get_passthrough() const { return _passthrough; }
  void set_passthrough(void *passthrough) { _passthrough = passthrough; }

 private:
  key_c _key;
  void *_passthrough = nullptr;
};

// One result: the id, and the entry's key, which now holds the canonical locator.
class value_c {
 public:
  value_c() = default;

  void set_data(uint64_t surrogate_id, key_c orig_key) {
    _surrogate_id = surrogate_id;
    _orig_key = std::move(orig_key);
    _valid = true;
  }
  void no_data() {
    _valid = false;
    _surrogate_id = ID_NONE;
    _orig_key.no_data();
  }
  bool is_valid() const { return _valid; }
  uint64_t get_surrogate_id() const { return _surrogate_id; }
  key_c &get_orig_key() { return _orig_key; }
  const key_c &get_orig_key() const { return _orig_key; }

 private:
  bool _valid = false;
  uint64_t _surrogate_id = ID_NONE;
  key_c _orig_key;
};

}  // namespace db::surrogate
