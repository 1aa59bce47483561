#pragma once
// A compressed set of surrogate ids. An empty one holds no memory of its own.

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

namespace db::surrogate3 {

class id_set_c {
 public:
  id_set_c();
  ~id_set_c();
  id_set_c(id_set_c &&) noexcept;
  id_set_c &operator=(id_set_c &&) noexcept;
  id_set_c(const id_set_c &other);

  void add(uint64_t id);
  bool add_checked(uint64_t id);  // true when it was not in
  void add_many(std::span<const uint64_t> ids);
  void remove(uint64_t id);
  void merge(const id_set_c &other);
  bool contains(uint64_t id) const;
  bool empty() const;
  uint64_t size() const;
  uint64_t maximum() const;                                            // 0 of an empty set
  void for_each(const std::function<void(uint64_t)> &function) const;  // ascending

 private:
  struct impl_t;
  impl_t &impl();
  std::unique_ptr<impl_t> _impl;
};

}  // namespace db::surrogate3
