#include "db/surrogate3/codec/id_set.h"

#include <roaring/roaring64map.hh>

namespace db::surrogate3 {

struct id_set_c::impl_t {
  Roaring64Map ids;
};

id_set_c::id_set_c() = default;
id_set_c::~id_set_c() = default;
id_set_c::id_set_c(id_set_c &&) noexcept = default;
id_set_c &id_set_c::operator=(id_set_c &&) noexcept = default;
id_set_c::id_set_c(const id_set_c &other)
    : _impl(other._impl ? std::make_unique<impl_t>(*other._impl) : nullptr) {}

id_set_c::impl_t &id_set_c::impl() {
  if (!_impl) _impl = std::make_unique<impl_t>();
  return *_impl;
}

void id_set_c::add(uint64_t id) {
  impl().ids.add(id);
}

bool id_set_c::add_checked(uint64_t id) {
  return impl().ids.addChecked(id);
}

void id_set_c::add_many(std::span<const uint64_t> ids) {
  if (ids.empty()) return;
  impl().ids.addMany(ids.size(), ids.data());
}

void id_set_c::remove(uint64_t id) {
  if (_impl) _impl->ids.remove(id);
}

void id_set_c::merge(const id_set_c &other) {
  if (other._impl) impl().ids |= other._impl->ids;
}

bool id_set_c::contains(uint64_t id) const {
  return _impl && _impl->ids.contains(id);
}

bool id_set_c::empty() const {
  return !_impl || _impl->ids.isEmpty();
}

uint64_t id_set_c::size() const {
  return _impl ? _impl->ids.cardinality() : 0;
}

uint64_t id_set_c::maximum() const {
  return empty() ? 0 : _impl->ids.maximum();
}

void id_set_c::for_each(const std::function<void(uint64_t)> &function) const {
  if (!_impl) return;
  for (const uint64_t id : _impl->ids) function(id);
}

}  // namespace db::surrogate3
