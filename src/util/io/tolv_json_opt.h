#pragma once
// JSON options turned into calls on an options object, by a table of handlers:
//
//   tolv_json_opt::option_set_c<my_options_t> set;
//   set.insert("set_levels", my_options_set_levels);      // void (*)(my_options_t *, int)
//   set.insert("env", env_set, my_options_env);           // a nested object, applied to what the function
//   gives std::string error; if (!set.apply(options, json, &error)) ...
//
// Handlers take int, unsigned int, unsigned char, size_t (uint64_t), double, or an int array with its
// length. A handler may also be any function object that is called with (T *, value). A key of the JSON
// that the table does not know is passed over; a value of another kind or outside its type's range is an
// error, and the values before it stay applied. A table is filled by one thread, then read by any.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/krel/base/krel_hash.h"

struct json_object;

namespace tolv_json_opt {

// The value read as that type; false with *error set when it is none. `name` is for the error's text.
bool insn_handle_impl_int(const std::string &name, const json_object *value, int *out, std::string *error);
bool insn_handle_impl_unsigned(const std::string &name, const json_object *value, uint64_t max, uint64_t *out,
                               std::string *error);
bool insn_handle_impl_double(const std::string &name, const json_object *value, double *out,
                             std::string *error);
bool insn_handle_impl_int_array(const std::string &name, const json_object *value, std::vector<int> *out,
                                std::string *error);

// One named option. `target` is the options object that the set is for.
class option_impl_c {
 public:
  explicit option_impl_c(std::string name) : m_name(std::move(name)) {}
  virtual ~option_impl_c() = default;
  virtual bool insn_handle_v(void *target, const json_object *value, std::string *error) const = 0;
  const std::string &name() const { return m_name; }

 private:
  const std::string m_name;
};

class option_set_impl_c {
 public:
  option_set_impl_c();
  ~option_set_impl_c();
  option_set_impl_c(const option_set_impl_c &) = delete;
  option_set_impl_c &operator=(const option_set_impl_c &) = delete;
  void insert_v(std::unique_ptr<option_impl_c> option);  // a duplicate name is fatal
  bool apply_v(void *target, const json_object *json, std::string *error) const;

 private:
  krel_hash_table m_table;  // owns its options
};

template <typename T>
class option_set_c;

// The handlers of options of T.
template <typename T>
class types_c {
 public:
  template <std::integral V, typename F>
  static bool handle(const std::string &name, T *target, const json_object *value, const F &set,
                     std::string *error) {
    if constexpr (std::is_same_v<V, int>) {
      int read = 0;
      if (!insn_handle_impl_int(name, value, &read, error)) return false;
      set(target, read);
    } else {
      static_assert(std::is_unsigned_v<V>, "signed options are int");
      uint64_t read = 0;
      if (!insn_handle_impl_unsigned(name, value, static_cast<V>(-1), &read, error)) return false;
      set(target, static_cast<V>(read));
    }
    return true;
  }
  template <std::same_as<double> V, typename F>
  static bool handle(const std::string &name, T *target, const json_object *value, const F &set,
                     std::string *error) {
    double read = 0;
    if (!insn_handle_impl_double(name, value, &read, error)) return false;
    set(target, read);
    return true;
  }
  template <std::same_as<std::vector<int>> V, typename F>
  static bool handle(const std::string &name, T *target, const json_object *value, const F &set,
                     std::string *error) {
    std::vector<int> read;
    if (!insn_handle_impl_int_array(name, value, &read, error)) return false;
    set(target, read);
    return true;
  }
};

template <typename T>
class option_set_c {
 public:
  // `set` is called with the value read as V.
  template <typename V, typename F>
  void insert_value(std::string name, F set) {
    m_set.insert_v(std::make_unique<value_option_c<V, F>>(std::move(name), std::move(set)));
  }
  template <typename V>
  void insert(std::string name, void (*set)(T *, V)) {
    insert_value<V>(std::move(name), set);
  }
  void insert(std::string name, void (*set)(T *, int *values, size_t count)) {
    insert_value<std::vector<int>>(std::move(name), [set](T *target, std::vector<int> &values) {
      set(target, values.data(), values.size());
    });
  }
  // A nested object: `inner`, which must outlive this set, is applied to what `enter` gives.
  template <typename U>
  void insert(std::string name, const option_set_c<U> &inner, std::function<U *(T *)> enter) {
    m_set.insert_v(std::make_unique<nested_option_c<U>>(std::move(name), inner, std::move(enter)));
  }

  bool apply(T *target, const json_object *json, std::string *error) const {
    return m_set.apply_v(target, json, error);
  }

 private:
  template <typename V, typename F>
  class value_option_c : public option_impl_c {
   public:
    value_option_c(std::string option_name, F set)
        : option_impl_c(std::move(option_name)), m_function(std::move(set)) {}
    bool insn_handle_v(void *target, const json_object *value, std::string *error) const override {
      return types_c<T>::template handle<V>(name(), static_cast<T *>(target), value, m_function, error);
    }

   private:
    const F m_function;
  };

  template <typename U>
  class nested_option_c : public option_impl_c {
   public:
    nested_option_c(std::string option_name, const option_set_c<U> &inner, std::function<U *(T *)> enter)
        : option_impl_c(std::move(option_name)), m_inner(inner), m_enter(std::move(enter)) {}
    bool insn_handle_v(void *target, const json_object *value, std::string *error) const override {
      return m_inner.apply(m_enter(static_cast<T *>(target)), value, error);
    }

   private:
    const option_set_c<U> &m_inner;
    const std::function<U *(T *)> m_enter;
  };

  option_set_impl_c m_set;
};

}  // namespace tolv_json_opt
