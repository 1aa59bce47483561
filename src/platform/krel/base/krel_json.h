#pragma once
// JSON: counted objects and a strict parser.
//
// A new object carries one reference. Adding an object to an array or object hands that reference over;
// getters lend. Null stands for JSON's null. An object belongs to one thread at a time.
//
// The parser is strict: UTF-8 only, no comments, no trailing commas, no NaN, nothing behind the value,
// integers must fit 64 bits, nesting up to KREL_JSON_MAX_DEPTH. Of a repeated key the last value counts.
// A number beyond the range of doubles reads as infinity.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

struct json_object;
struct lh_entry;
using krel_json_object = json_object;
using krel_json_entry = lh_entry;
struct krel_json_tokener;

enum : int { KREL_JSON_MAX_DEPTH = 64 };

enum krel_json_type : int {
  krel_json_type_null,
  krel_json_type_boolean,
  krel_json_type_double,
  krel_json_type_int,
  krel_json_type_object,
  krel_json_type_array,
  krel_json_type_string,
};
// The narrowest type that holds an integer.
enum krel_json_overflow_e : int { krel_json_overflow_int, krel_json_overflow_int64, krel_json_overflow_uint64 };

// ---- references
krel_json_object *krel_json_object_get(krel_json_object *object);
void krel_json_object_put(krel_json_object *object);
struct krel_json_deleter_t {
  void operator()(krel_json_object *object) const { krel_json_object_put(object); }
};
using krel_json_ptr = std::unique_ptr<krel_json_object, krel_json_deleter_t>;

// ---- making
krel_json_object *krel_json_object_new_object();
krel_json_object *krel_json_object_new_array();
krel_json_object *krel_json_object_new_string(const char *text);
krel_json_object *krel_json_object_new_string_len(const char *text, size_t length);
krel_json_object *krel_json_object_new_int(int64_t value);
krel_json_object *krel_json_object_new_uint64(uint64_t value);
krel_json_object *krel_json_object_new_double(
    double value);  // printed as short as it reads back; not finite: null
krel_json_object *krel_json_object_new_boolean(bool value);
void krel_json_object_object_add(krel_json_object *object, const char *key, krel_json_object *value);
void krel_json_object_array_add(krel_json_object *array, krel_json_object *value);
void krel_json_object_set_uint64(krel_json_object *object, uint64_t value);  // of an integer

// ---- reading. A getter of another type converts as far as that goes, else gives 0, "" or null.
krel_json_type krel_json_object_get_type(const krel_json_object *object);
bool krel_json_object_is_type(const krel_json_object *object, krel_json_type type);
bool krel_json_object_get_boolean(const krel_json_object *object);
int32_t krel_json_object_get_int(const krel_json_object *object);      // clamped
int64_t krel_json_object_get_int64(const krel_json_object *object);    // clamped
uint64_t krel_json_object_get_uint64(const krel_json_object *object);  // clamped: a negative gives 0
double krel_json_object_get_double(const krel_json_object *object);
krel_json_overflow_e krel_json_object_get_int_overflow(const krel_json_object *object);
const char *krel_json_object_get_string(krel_json_object *object);  // of a string; of others their text
std::string_view krel_json_object_get_string_view(krel_json_object *object);  // with zero bytes that are inside
size_t krel_json_object_array_length(const krel_json_object *array);          // 0 of anything else
krel_json_object *krel_json_object_array_get_idx(const krel_json_object *array, size_t index);
krel_json_object *krel_json_object_object_get(const krel_json_object *object, const char *key);
// Tells a key whose value is null from one that is missing.
bool krel_json_object_object_get_ex(const krel_json_object *object, const char *key, krel_json_object **value);

// for (auto *e = krel_json_object_get_object_head(object); e; e = krel_json_entry_next(e)) ...
krel_json_entry *krel_json_object_get_object_head(const krel_json_object *object);
krel_json_entry *krel_json_entry_next(const krel_json_entry *entry);
const char *krel_json_entry_key(const krel_json_entry *entry);
krel_json_object *krel_json_entry_value(const krel_json_entry *entry);

// ---- text and files
// Compact; owned by the object, valid until it changes, is asked again or goes.
const char *krel_json_object_to_json_string(krel_json_object *object);
// Null when the file or descriptor cannot be read (errno) or holds no value (errno EINVAL).
krel_json_object *krel_json_object_from_file(const char *path);
krel_json_object *krel_json_object_from_fd(int fd);  // reads to the end, leaves it open
// Writes and syncs the file. 0, or -1 with errno.
int krel_json_object_to_file(const char *path, krel_json_object *object);

// ---- parsing
krel_json_tokener *krel_json_tokener_new();
void krel_json_tokener_free(krel_json_tokener *tokener);  // null is allowed
void krel_json_tokener_reset(krel_json_tokener *tokener);
enum krel_json_status_e : int { krel_json_continue, krel_json_done, krel_json_error };
// Takes the next piece. done: *object is the value (the caller's; null for JSON's null). A number at the
// top is done only at a piece of length 0, which says that the text has ended.
krel_json_status_e krel_json_tokener_parse_ex(krel_json_tokener *tokener, const char *text, size_t length,
                                              krel_json_object **object);
const char *krel_json_tokener_error(const krel_json_tokener *tokener);  // what the last call ran into
// A whole text at once; null when it is no JSON (or is JSON's null).
krel_json_object *krel_json_tokener_parse(std::string_view text);
