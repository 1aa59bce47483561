#pragma once
// A sample for the raw stores: its metric and time, and its value.

#include <cstdint>
#include <utility>

#include "db/surrogate/surrogate_key.h"
#include "util/raw_record.h"

namespace db::raw {

// Surrogate id, locator and time (the original key's, in milliseconds).
using raw_key_c = db::surrogate::value_c;

// A sample's value, which it owns or only looks at. Numbers and nulls need no memory of their own.
class raw_value_c {
 public:
  raw_value_c() = default;
  raw_value_c(raw_value_c &&other) noexcept { swap(other); }
  raw_value_c &operator=(raw_value_c &&other) noexcept {
    swap(other);
    return *this;
  }
  raw_value_c(const raw_value_c &) = delete;
  raw_value_c &operator=(const raw_value_c &) = delete;
  ~raw_value_c() { reset(); }

  // By a copy of its own; by taking over what the caller owns; by looking at what the caller keeps.
  void set_data(const dorn_record_m_value_t &data, uint16_t generation) {
    dorn_record_m_value_t copy;
    dorn_record_data_dup(&copy, &data);
    set_data(std::move(copy), generation);
  }
  void set_data(dorn_record_m_value_t &&data, uint16_t generation) { assign(data, generation, true); }
  void set_data_non_owner(const dorn_record_m_value_t &data, uint16_t generation) {
    assign(data, generation, false);
  }
  // Hands over the value and with it the duty to release it, and is without data then. A value that was only
  // looked at comes out as a copy.
  dorn_record_m_value_t take_data() {
    dorn_record_m_value_t data = get_data();
    if (!_owner) dorn_record_data_dup(&data, &_data);
    _valid = _owner = false;
    return data;
  }
  const dorn_record_m_value_t &get_data() const {
    krel_assert(_valid);
    return _data;
  }
  void no_data() { reset(); }
  void reset() {
    if (_owner) dorn_record_data_release(&_data);
    _valid = _owner = false;
    _generation = 0;
  }
  bool is_valid() const { return _valid; }
  uint16_t get_generation() const { return _generation; }
  void swap(raw_value_c &other) noexcept {
    std::swap(_valid, other._valid);
    std::swap(_owner, other._owner);
    std::swap(_generation, other._generation);
    std::swap(_data, other._data);
  }

 private:
  void assign(const dorn_record_m_value_t &data, uint16_t generation, bool owner) {
    reset();
    _data = data;
    _generation = generation;
    _owner = owner;
    _valid = true;
  }

  bool _valid = false;
  bool _owner = false;  // this object releases the data
  uint16_t _generation = 0;
  dorn_record_m_value_t _data = {};
};
static_assert(sizeof(raw_value_c) == 24);

// The key is not owned: it lives as long as the batch that resolved it.
class raw_entry_c {
 public:
  raw_entry_c() = default;

  void set_data(raw_key_c *key, raw_value_c &&value) {
    _key = key;
    _value = std::move(value);
  }
  raw_key_c *get_key() const { return _key; }
  raw_value_c &get_value() { return _value; }
  const raw_value_c &get_value() const { return _value; }
  void swap(raw_entry_c &other) noexcept {
    std::swap(_key, other._key);
    _value.swap(other._value);
  }

 private:
  raw_key_c *_key = nullptr;
  raw_value_c _value;
};

}  // namespace db::raw
