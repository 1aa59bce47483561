#pragma once
// A metric of an account, as the whole node passes it around: its identity, which never changes once others
// see it, and a few facts that do. Shared by reference count; whoever holds a reference may read the
// immutable block without a lock. The functions are safe from any thread unless they say otherwise.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/dorn/dorn_tagset.h"
#include "platform/krel/base/krel_json.h"
#include "platform/krel/base/krel_log.h"
#include "util/mem_reader.h"
#include "util/metric_type.h"
#include "util/spinlock.h"

struct oil_list_t;
struct histogram_t;

// The kinds of samples known for a metric, a bit set.
enum velmar_metric_locator_metric_type_e : uint16_t {
  METRIC_TYPE_UNKNOWN = 0,
  METRIC_TYPE_NUMERIC = 1,
  METRIC_TYPE_HISTOGRAM = 2,
  METRIC_TYPE_TEXT = 4,
  METRIC_TYPE_ANY = 65535,
};

enum metrics_db_egress_function_e : uint8_t {
  EGRESS_FUNCTION_UNSET = 0,
  EGRESS_FUNCTION_SUM = 1,
  EGRESS_FUNCTION_COUNT = 2,
  EGRESS_FUNCTION_DERIVATIVE = 3,
  EGRESS_FUNCTION_STDDEV = 4,
  EGRESS_FUNCTION_COUNTER = 5,
  EGRESS_FUNCTION_DERIVATIVE_STDDEV = 6,
  EGRESS_FUNCTION_COUNTER_STDDEV = 7,
  EGRESS_FUNCTION_AVG = 8,
};

// The latest two samples; index 1 is the newest. A whence of 0 is an empty place.
struct last_two_numeric_t {
  std::atomic<uint64_t> whence_ms[2];
  velmar_metric_locator_numeric_value_t value[2];
  velmar_metric_type_t type[2];
};
// The strings are freed through memory epochs.
struct last_text_t {
  std::atomic<uint64_t> whence_ms;
  char *value;
};
struct last_hist_t {
  std::atomic<uint64_t> whence_ms;
  char *serialized_value;  // base64
};

struct velmar_metric_locator_immutable_data_t {
  dorn_metric_tagset_t stream_tags;  // looks into key_mem
  uint64_t surrogate_id;             // goes from 0 to its value once: use the functions
  uint32_t key_len;
  uint32_t untagged_metric_name_len;
  void (*release)(velmar_metric_locator_immutable_data_t *immutable);  // with the last reference
  const char *key_mem;                                                 // canonical name, terminated
  const uint8_t *hash;                                                 // 32 bytes
  const uint8_t *check_uuid;                                           // 16 bytes
};

struct velmar_metric_locator_t {
  oil_list_t *activity_oil GUARDED_BY(activity_oil_lock);
  std::atomic<last_two_numeric_t *> last_n;  // these three go from null to a block once; the content
  std::atomic<last_text_t *> last_t;         // is guarded by last_update_lock
  std::atomic<last_hist_t *> last_h;
  std::atomic<int32_t> account_id;
  mutable std::atomic<uint32_t> ref_cnt;
  mutable spinlock_c last_update_lock;
  mutable spinlock_c activity_oil_lock;
  std::atomic<velmar_metric_locator_metric_type_e> type;
  std::atomic<metrics_db_egress_function_e> egress_function;
  std::atomic<bool> canonical_copy;  // the instance stored in the surrogate store
  velmar_metric_locator_immutable_data_t *immutable;
};
static_assert(sizeof(velmar_metric_locator_immutable_data_t) == 64 && sizeof(velmar_metric_locator_t) == 64);

// ---- process-wide values
extern std::atomic<uint64_t> velmar_metric_locator_future_bound;  // ms; later numerics are not cached
extern std::atomic<bool> velmar_metric_locator_implicit_latest;   // cache latest values of every metric
// Metrics count as active in all ranges that begin before this second; 0, the default, is none.
void velmar_metric_locator_set_global_active_before(uint64_t seconds);

// ---- life. Creation gives one reference, or null when the name is no metric name (a line is logged).
// uuid: 16 bytes. A null reader is an empty name.
velmar_metric_locator_t *velmar_metric_locator_create(const uint8_t *uuid, const mem_reader_t *name,
                                                      velmar_metric_locator_metric_type_e type);
velmar_metric_locator_t *velmar_metric_locator_create_full(int32_t account_id,
                                                           velmar_metric_locator_metric_type_e type,
                                                           const uint8_t *uuid, const mem_reader_t *name);
// A locator around a block that the caller prepared and that its `release` gets back.
velmar_metric_locator_t *velmar_metric_locator_create_from_parts(
    velmar_metric_locator_immutable_data_t *immutable, int32_t account_id,
    velmar_metric_locator_metric_type_e type);
// A new locator of the same identity, account, type, egress function and activity; no latest values, no
// surrogate id, not canonical.
velmar_metric_locator_t *velmar_metric_locator_clone(const velmar_metric_locator_t *ml);
inline void velmar_metric_locator_ref(const velmar_metric_locator_t *ml) {
  ml->ref_cnt.fetch_add(1, std::memory_order_relaxed);
}
void velmar_metric_locator_deref(const velmar_metric_locator_t *ml);
// The default `release`.
void velmar_metric_locator_immutable_data_release(velmar_metric_locator_immutable_data_t *immutable);

// ---- identity and plain facts
inline int32_t velmar_metric_locator_get_account_id(const velmar_metric_locator_t *ml) {
  return ml->account_id.load(std::memory_order_relaxed);
}
inline void velmar_metric_locator_set_accountid(velmar_metric_locator_t *ml, int32_t account_id) {
  ml->account_id.store(account_id, std::memory_order_relaxed);
}
inline velmar_metric_locator_metric_type_e velmar_metric_locator_get_type(const velmar_metric_locator_t *ml) {
  return ml->type.load(std::memory_order_relaxed);
}
inline void velmar_metric_locator_set_type(velmar_metric_locator_t *ml,
                                           velmar_metric_locator_metric_type_e type) {
  ml->type.store(type, std::memory_order_relaxed);
}
inline metrics_db_egress_function_e velmar_metric_locator_get_egress_function(
    const velmar_metric_locator_t *ml) {
  return ml->egress_function.load(std::memory_order_relaxed);
}
inline void velmar_metric_locator_set_egress_function(velmar_metric_locator_t *ml,
                                                      metrics_db_egress_function_e function) {
  ml->egress_function.store(function, std::memory_order_relaxed);
}
inline bool velmar_metric_locator_is_canonical(const velmar_metric_locator_t *ml) {
  return ml->canonical_copy.load(std::memory_order_acquire);
}
inline void velmar_metric_locator_set_canonical(velmar_metric_locator_t *ml) {
  ml->canonical_copy.store(true, std::memory_order_release);
}
// The metric was erased: whoever kept the instance sees that it is no longer the stored one.
inline void velmar_metric_locator_clear_canonical(velmar_metric_locator_t *ml) {
  ml->canonical_copy.store(false, std::memory_order_release);
}
inline uint64_t velmar_metric_locator_get_surrogate_id(const velmar_metric_locator_t *ml) {
  return __atomic_load_n(&ml->immutable->surrogate_id, __ATOMIC_ACQUIRE);
}
inline void velmar_metric_locator_set_surrogate_id(velmar_metric_locator_t *ml, uint64_t id) {
  __atomic_store_n(&ml->immutable->surrogate_id, id, __ATOMIC_RELEASE);
}
inline const uint8_t *velmar_metric_locator_get_hash(const velmar_metric_locator_t *ml) {
  return ml->immutable->hash;
}
inline const uint8_t *velmar_metric_locator_get_check_uuid(const velmar_metric_locator_t *ml) {
  return ml->immutable->check_uuid;
}
inline const dorn_metric_tagset_t *velmar_metric_locator_get_stream_tags(const velmar_metric_locator_t *ml) {
  return &ml->immutable->stream_tags;
}
// Both give the same text; without tags, it is the first get_name_len_without_tags bytes. Null of null.
const char *velmar_metric_locator_get_name_with_tags(const velmar_metric_locator_t *ml);
const char *velmar_metric_locator_get_name_without_tags(const velmar_metric_locator_t *ml);
size_t velmar_metric_locator_get_name_len_with_tags(const velmar_metric_locator_t *ml);
size_t velmar_metric_locator_get_name_len_without_tags(const velmar_metric_locator_t *ml);
// Empty when the length is 0.
mem_reader_t velmar_metric_locator_get_name_buf_with_tags(const velmar_metric_locator_t *ml);
mem_reader_t velmar_metric_locator_get_name_buf_without_tags(const velmar_metric_locator_t *ml);
// Writes the 36 lower-case characters and a terminator, sets the size to 36. The reader's buffer must be
// writable and of at least 37 bytes.
void velmar_metric_locator_get_check_uuid_str_buf(const velmar_metric_locator_t *ml, mem_reader_t *out);

// "<uuid>-<name with tags>", terminated: the bytes that the hash is of. Null when key_len + 38 > size.
char *velmar_metric_locator_get_key(const velmar_metric_locator_t *ml, char *buffer, size_t size);
// By hash; two nulls match, one does not.
bool velmar_metric_locator_matches(const velmar_metric_locator_t *a, const velmar_metric_locator_t *b);
// By uuid and key; a null equals nothing.
bool velmar_metric_locator_equal(const velmar_metric_locator_t *a, const velmar_metric_locator_t *b);

// ---- external forms
// "any", "unknown", "numeric,text", "invalid: 0x%04x"; returns the buffer, always terminated.
char *velmar_metric_locator_get_type_str(const velmar_metric_locator_t *ml, char *buffer, size_t size);
// "<uuid>/<base64 of the name, '/' written '_'>", terminated; the uuid alone of an empty name. 37, or 0 when
// the buffer is too small (LOCATOR_B64_PATH_MAX always does).
constexpr size_t LOCATOR_B64_PATH_MAX = 37 + (DORN_METRIC_NAME_MAX + 2) / 3 * 4 + 1;
int velmar_metric_locator_b64_path(const velmar_metric_locator_t *ml, char *buffer, size_t size);
// The reverse, of type numeric; null when it is none. Both texts terminated.
velmar_metric_locator_t *velmar_metric_locator_from_b64_path(const char *uuid_text, const char *encoded_name);
// {"account_id":, "check_uuid":, "metric_name":, "metric_type":}
krel_json_object *velmar_metric_locator_to_json(const velmar_metric_locator_t *ml);
velmar_metric_locator_t *velmar_metric_locator_from_json(const krel_json_object *json);

// ---- activity, given in seconds, kept in units of 300 seconds
constexpr uint64_t LOCATOR_ACTIVITY_UNIT_S = 300;
bool velmar_metric_locator_record_activity(velmar_metric_locator_t *ml, uint64_t seconds);  // true: changed
// Some activity in [start, end]. (0, 0) is always true.
bool velmar_metric_locator_was_active(const velmar_metric_locator_t *ml, uint64_t start, uint64_t end);
bool velmar_metric_locator_is_active(const velmar_metric_locator_t *ml);  // in the last day
bool velmar_metric_locator_is_active_at(const velmar_metric_locator_t *ml, uint64_t now_ms);
void velmar_metric_locator_set_activity(velmar_metric_locator_t *ml, const oil_list_t *list);  // by a clone
oil_list_t *velmar_metric_locator_get_activity_clone(const velmar_metric_locator_t *ml);       // null when none
bool velmar_metric_locator_merge_oil(velmar_metric_locator_t *ml, const oil_list_t *list);     // true: changed
// From [[start, end], ...] in seconds, in place of the old. Other elements are skipped; false: no array.
bool velmar_metric_locator_set_activity_from_json(velmar_metric_locator_t *ml, const krel_json_object *json);
std::string velmar_metric_locator_oil_dump(const velmar_metric_locator_t *ml);

// ---- latest values. Nothing is kept unless some cache exists already, or instantiate or the process-wide
// setting ask for it. Only what is newer than the cached takes its place.
void velmar_metric_locator_update_numeric(velmar_metric_locator_t *ml, uint64_t whence_ms,
                                          velmar_metric_type_t type,
                                          const velmar_metric_locator_numeric_value_t *value, bool instantiate);
// Terminated texts, or null. The histogram is base64.
void velmar_metric_locator_update_text(velmar_metric_locator_t *ml, uint64_t whence_ms, const char *text,
                                       bool instantiate);
void velmar_metric_locator_update_hist(velmar_metric_locator_t *ml, uint64_t whence_ms, const char *b64,
                                       bool instantiate);
void velmar_metric_locator_update_hist_withstream(velmar_metric_locator_t *ml, uint64_t whence_ms,
                                                  const char *b64, bool instantiate, krel_log_stream_t *stream);
// False, and nothing is written, when there is no cache of that kind. Index 1 is the newest.
bool velmar_metric_locator_last2_numeric(const velmar_metric_locator_t *ml, uint64_t whence_ms[2],
                                         velmar_metric_type_t type[2],
                                         velmar_metric_locator_numeric_value_t value[2]);
// Inside the caller's memory section, at whose end the text goes.
bool velmar_metric_locator_last_text(const velmar_metric_locator_t *ml, uint64_t *whence_ms, const char **text);
bool velmar_metric_locator_last_hist_b64(const velmar_metric_locator_t *ml, uint64_t *whence_ms,
                                         const char **b64);
// A new histogram, the caller's; null when none is cached.
bool velmar_metric_locator_last_hist(const velmar_metric_locator_t *ml, uint64_t *whence_ms,
                                     histogram_t **histogram);
// 0 equal, 1 when a's samples are older, -1 when newer; without samples a locator counts as oldest, only that
// a alone with samples gives -1, b alone 1.
int velmar_metric_locator_compare_last2_numeric(const velmar_metric_locator_t *a,
                                                const velmar_metric_locator_t *b);
// The bits of the type for which there is no cache.
uint16_t velmar_metric_locator_last_missing(const velmar_metric_locator_t *ml);
