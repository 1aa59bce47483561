#pragma once
// Owning pointers to metric locators, and what hash tables of them need.

#include <cstring>
#include <string_view>

#include "util/intrusive_ptr.h"
#include "util/velmar_metric_locator.h"

inline void intrusive_ptr_add_ref(const velmar_metric_locator_t *ml) {
  velmar_metric_locator_ref(ml);
}
inline void intrusive_ptr_release(const velmar_metric_locator_t *ml) {
  velmar_metric_locator_deref(ml);
}
using metric_locator_sp = util::mem::intrusive_ptr<velmar_metric_locator_t>;

// Takes over the one reference of a new locator.
inline metric_locator_sp metric_locator_adopt(velmar_metric_locator_t *ml) {
  return metric_locator_sp(ml, false);
}

// A counted reference (add_ref) or a mere observer of a locator that others keep.
class metric_locator_c {
 public:
  metric_locator_c() = default;
  explicit metric_locator_c(const velmar_metric_locator_t *ml, bool add_ref = true)
      : _ml(ml), _add_ref(add_ref) {
    if (_ml && _add_ref) velmar_metric_locator_ref(_ml);
  }
  explicit metric_locator_c(const metric_locator_sp &ml, bool add_ref = true)
      : metric_locator_c(ml.get(), add_ref) {}
  metric_locator_c(const metric_locator_c &other) : metric_locator_c(other._ml, other._add_ref) {}
  metric_locator_c(metric_locator_c &&other) noexcept { swap(other); }
  ~metric_locator_c() {
    if (_ml && _add_ref) velmar_metric_locator_deref(_ml);
  }
  metric_locator_c &operator=(metric_locator_c other) noexcept {
    swap(other);
    return *this;
  }
  void swap(metric_locator_c &other) noexcept {
    std::swap(_ml, other._ml);
    std::swap(_add_ref, other._add_ref);
  }

  const velmar_metric_locator_t *get() const { return _ml; }
  explicit operator bool() const { return _ml != nullptr; }
  uint64_t get_id() const { return _ml ? velmar_metric_locator_get_surrogate_id(_ml) : 0; }
  std::string_view get_name_with_tags() const {
    return {velmar_metric_locator_get_name_with_tags(_ml), velmar_metric_locator_get_name_len_with_tags(_ml)};
  }
  std::string_view get_name_without_tags() const {
    return {velmar_metric_locator_get_name_without_tags(_ml),
            velmar_metric_locator_get_name_len_without_tags(_ml)};
  }

 private:
  const velmar_metric_locator_t *_ml = nullptr;
  bool _add_ref = true;
};

// By identity, for tables of raw or counted pointers.
struct metric_locator_key_hasher_t {
  using is_transparent = void;
  using is_avalanching = void;
  size_t operator()(const velmar_metric_locator_t *ml) const {
    size_t h;  // part of a cryptographic hash
    memcpy(&h, velmar_metric_locator_get_hash(ml), sizeof h);
    return h;
  }
  size_t operator()(const metric_locator_sp &ml) const { return (*this)(ml.get()); }
};
struct metric_locator_key_equal_to_t {
  using is_transparent = void;
  static const velmar_metric_locator_t *raw(const velmar_metric_locator_t *ml) { return ml; }
  static const velmar_metric_locator_t *raw(const metric_locator_sp &ml) { return ml.get(); }
  template <typename A, typename B>
  bool operator()(const A &a, const B &b) const {
    return raw(a) == raw(b) || velmar_metric_locator_equal(raw(a), raw(b));
  }
};
