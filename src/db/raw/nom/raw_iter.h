#pragma once
// The position that readers hand to callbacks. One thread at a time, except wait and post.

#include <chrono>
#include <semaphore>
#include <utility>

#include "db/raw/nom/raw_interfaces.h"
#include "db/raw/record/raw_entry.h"

namespace db::raw {

class raw_iter_asynch_c : public raw_iter_reader_asynch_c {
 public:
  // `managed` is whatever the position's manager keeps with it.
  explicit raw_iter_asynch_c(void *managed = nullptr) : m_managed(managed) {}

  bool is_valid() const override { return m_valid; }
  const raw_key_c &get_key() const override { return m_key; }
  const raw_value_c &get_value() const override { return m_value; }
  raw_value_c take_value() override {
    const uint16_t generation = m_value.get_generation();
    raw_value_c taken;
    taken.set_data(m_value.take_data(), generation);
    return taken;
  }
  const raw_iter_read_error_c &get_error() const override { return m_error; }
  void set_deleter(bool is_deleter) override { m_is_deleter = is_deleter; }
  void set_end_timestamp_s(uint64_t end_s) override { m_end_ts_s = end_s; }

  void *get_managed() const { return m_managed; }
  bool is_deleter() const { return m_is_deleter; }
  uint64_t get_end_timestamp_s() const { return m_end_ts_s; }

  // The metric that is read: once, before the first position.
  void set_key(const raw_key_c &key) { m_key = key; }
  // A sample: its time, and its value, filled by the caller in `value_to_fill`.
  raw_value_c &value_to_fill() { return m_value; }
  void set_pos(uint64_t ts_ms) {
    m_key.get_orig_key().set_timestamp(std::chrono::milliseconds(ts_ms));
    m_error = {};
    m_valid = true;
  }
  void set_error(std::string text) {
    m_valid = false;
    m_value.no_data();
    m_error = raw_iter_read_error_c(std::move(text));
  }
  void no_data() {
    m_valid = false;
    m_value.no_data();
    m_error = {};
  }

  // For a thread that waits until another has handed the position over.
  void wait() { m_semaphore.acquire(); }
  void post() { m_semaphore.release(); }

 private:
  void *const m_managed;
  raw_key_c m_key;
  raw_value_c m_value;
  bool m_valid = false;
  raw_iter_read_error_c m_error;
  bool m_is_deleter = false;
  uint64_t m_end_ts_s = 0;
  std::counting_semaphore<> m_semaphore{0};
};

}  // namespace db::raw
