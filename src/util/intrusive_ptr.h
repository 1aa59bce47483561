#pragma once
// A pointer to an object that carries its own reference count. The object's type offers, found by argument
// lookup, intrusive_ptr_add_ref(T *) and intrusive_ptr_release(T *).

#include <cstddef>
#include <functional>
#include <utility>

namespace util::mem {

template <typename T>
class intrusive_ptr {
 public:
  using element_type = T;

  constexpr intrusive_ptr() = default;
  constexpr intrusive_ptr(std::nullptr_t) {}
  // add_ref false takes over a reference that the caller holds.
  explicit intrusive_ptr(T *object, bool add_ref = true) : m_object(object) {
    if (m_object && add_ref) intrusive_ptr_add_ref(m_object);
  }
  intrusive_ptr(const intrusive_ptr &other) : intrusive_ptr(other.m_object) {}
  intrusive_ptr(intrusive_ptr &&other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
  ~intrusive_ptr() {
    if (m_object) intrusive_ptr_release(m_object);
  }
  intrusive_ptr &operator=(intrusive_ptr other) noexcept {
    swap(other);
    return *this;
  }

  void swap(intrusive_ptr &other) noexcept { std::swap(m_object, other.m_object); }
  void reset() { intrusive_ptr().swap(*this); }
  void reset(T *object, bool add_ref = true) { intrusive_ptr(object, add_ref).swap(*this); }
  // Gives the reference up to the caller.
  [[nodiscard]] T *detach() { return std::exchange(m_object, nullptr); }

  T *get() const { return m_object; }
  T &operator*() const { return *m_object; }
  T *operator->() const { return m_object; }
  explicit operator bool() const { return m_object != nullptr; }
  friend bool operator==(const intrusive_ptr &a, const intrusive_ptr &b) { return a.m_object == b.m_object; }
  friend bool operator==(const intrusive_ptr &a, const T *b) { return a.m_object == b; }
  friend bool operator==(const intrusive_ptr &a, std::nullptr_t) { return a.m_object == nullptr; }

 private:
  T *m_object = nullptr;
};

template <typename T>
void swap(intrusive_ptr<T> &a, intrusive_ptr<T> &b) noexcept {
  a.swap(b);
}

}  // namespace util::mem

template <typename T>
struct std::hash<util::mem::intrusive_ptr<T>> {
  size_t operator()(const util::mem::intrusive_ptr<T> &p) const { return std::hash<T *>()(p.get()); }
};
