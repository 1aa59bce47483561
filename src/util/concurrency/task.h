#pragma once
// A callable without arguments that is moved, run once and gone. Holds move-only captures, and up to 48
// bytes of them without allocation.

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace util::concurrency {

class task_c {
 public:
  task_c() = default;
  template <typename F>
  requires(!std::is_same_v<std::remove_cvref_t<F>, task_c> && std::is_invocable_v<std::remove_cvref_t<F> &>)
      task_c(F &&function) {  // NOLINT: implicit, as std::function
    using held_t = std::remove_cvref_t<F>;
    if constexpr (fits<held_t>()) {
      new (_bytes) held_t(std::forward<F>(function));
      _ops = &inline_ops<held_t>;
    } else {
      new (_bytes) held_t *(new held_t(std::forward<F>(function)));
      _ops = &heap_ops<held_t>;
    }
  }
  task_c(task_c &&other) noexcept { take(other); }
  task_c &operator=(task_c &&other) noexcept {
    if (this != &other) {
      reset();
      take(other);
    }
    return *this;
  }
  ~task_c() { reset(); }
  task_c(const task_c &) = delete;
  task_c &operator=(const task_c &) = delete;

  explicit operator bool() const { return _ops != nullptr; }
  void operator()() { _ops->run(_bytes); }

 private:
  struct ops_t {
    void (*run)(void *held);
    void (*move)(void *to, void *from) noexcept;  // leaves `from` without a value
    void (*destroy)(void *held) noexcept;
  };
  static constexpr size_t k_inline_bytes = 48;

  template <typename H>
  static constexpr bool fits() {
    return sizeof(H) <= k_inline_bytes && alignof(H) <= alignof(std::max_align_t) &&
           std::is_nothrow_move_constructible_v<H>;
  }
  template <typename H>
  static constexpr ops_t inline_ops = {[](void *held) { (*static_cast<H *>(held))(); },
                                       [](void *to, void *from) noexcept {
                                         new (to) H(std::move(*static_cast<H *>(from)));
                                         static_cast<H *>(from)->~H();
                                       },
                                       [](void *held) noexcept { static_cast<H *>(held)->~H(); }};
  template <typename H>
  static constexpr ops_t heap_ops = {
      [](void *held) { (**static_cast<H **>(held))(); },
      [](void *to, void *from) noexcept { new (to) H *(*static_cast<H **>(from)); },
      [](void *held) noexcept { delete *static_cast<H **>(held); }};

  void take(task_c &other) noexcept {
    _ops = std::exchange(other._ops, nullptr);
    if (_ops) _ops->move(_bytes, other._bytes);
  }
  void reset() noexcept {
    if (_ops) std::exchange(_ops, nullptr)->destroy(_bytes);
  }

  const ops_t *_ops = nullptr;
  alignas(std::max_align_t) unsigned char _bytes[k_inline_bytes];
};

}  // namespace util::concurrency
