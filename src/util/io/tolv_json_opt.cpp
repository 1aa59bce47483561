#include "util/io/tolv_json_opt.h"

#include <fmt/format.h>

#include <climits>
#include <cstring>

#include "platform/krel/base/krel_json.h"
#include "platform/krel/base/krel_log.h"

namespace tolv_json_opt {

namespace {

bool fail(const std::string &name, const char *wanted, std::string *error) {
  *error = fmt::format("option {}: {} expected", name, wanted);
  return false;
}

bool read_int(const krel_json_object *value, int *out) {
  if (!krel_json_object_is_type(value, krel_json_type_int)) return false;
  if (krel_json_object_get_int_overflow(value) != krel_json_overflow_int) return false;
  *out = krel_json_object_get_int(value);
  return true;
}

}  // namespace

bool insn_handle_impl_int(const std::string &name, const json_object *value, int *out, std::string *error) {
  return read_int(value, out) || fail(name, "a 32-bit integer", error);
}

bool insn_handle_impl_unsigned(const std::string &name, const json_object *value, uint64_t max, uint64_t *out,
                               std::string *error) {
  const auto wanted = [&] { return fmt::format("an integer from 0 to {}", max); };
  if (!krel_json_object_is_type(value, krel_json_type_int)) return fail(name, wanted().c_str(), error);
  const bool negative = krel_json_object_get_int_overflow(value) != krel_json_overflow_uint64 &&
                        krel_json_object_get_int64(value) < 0;
  *out = krel_json_object_get_uint64(value);
  return (!negative && *out <= max) || fail(name, wanted().c_str(), error);
}

bool insn_handle_impl_double(const std::string &name, const json_object *value, double *out,
                             std::string *error) {
  if (!krel_json_object_is_type(value, krel_json_type_double) &&
      !krel_json_object_is_type(value, krel_json_type_int))
    return fail(name, "a number", error);
  *out = krel_json_object_get_double(value);
  return true;
}

bool insn_handle_impl_int_array(const std::string &name, const json_object *value, std::vector<int> *out,
                                std::string *error) {
  if (!krel_json_object_is_type(value, krel_json_type_array)) return fail(name, "an array of integers", error);
  out->resize(krel_json_object_array_length(value));
  for (size_t i = 0; i < out->size(); ++i)
    if (!read_int(krel_json_object_array_get_idx(value, i), &(*out)[i]))
      return fail(name, "an array of 32-bit integers", error);
  return true;
}

option_set_impl_c::option_set_impl_c() {
  krel_hash_init(&m_table);
}

option_set_impl_c::~option_set_impl_c() {
  krel_hash_destroy(&m_table, nullptr, [](void *option) { delete static_cast<option_impl_c *>(option); });
}

void option_set_impl_c::insert_v(std::unique_ptr<option_impl_c> option) {
  option_impl_c *impl = option.release();
  const char *name = impl->name().c_str();  // lies in the value: lives as long as the entry
  krel_assert(krel_hash_store(&m_table, name, strlen(name), impl));
}

bool option_set_impl_c::apply_v(void *target, const json_object *json, std::string *error) const {
  if (!krel_json_object_is_type(json, krel_json_type_object)) {
    *error = "options: an object expected";
    return false;
  }
  for (auto *entry = krel_json_object_get_object_head(json); entry; entry = krel_json_entry_next(entry)) {
    const char *key = krel_json_entry_key(entry);
    void *option = nullptr;
    if (!krel_hash_retrieve(&m_table, key, strlen(key), &option)) continue;
    if (!static_cast<option_impl_c *>(option)->insn_handle_v(target, krel_json_entry_value(entry), error))
      return false;
  }
  return true;
}

}  // namespace tolv_json_opt
