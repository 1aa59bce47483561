#include "util/velmar_metric_locator.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/krel/base/krel_memory.h"
#include "util/metric_name.h"
#include "util/oil.h"
#include "util/topo_hash.h"
#include "util/uuid_text.h"

namespace {

using immutable_t = velmar_metric_locator_immutable_data_t;

// The memory of a locator and `extra` bytes behind it, all zero.
velmar_metric_locator_t *locator_alloc(size_t extra) {
  void *memory = calloc(1, sizeof(velmar_metric_locator_t) + extra);
  if (!memory) krel_fatal("out of memory for a metric locator\n");
  auto *ml = new (memory) velmar_metric_locator_t();
  ml->ref_cnt.store(1, std::memory_order_relaxed);
  return ml;
}

void locator_free(const velmar_metric_locator_t *ml) {
  auto *dead = const_cast<velmar_metric_locator_t *>(ml);
  dead->~velmar_metric_locator_t();
  free(dead);
}

// The canonical form of the name in `out`; its length, or -1 with a line in the log.
ssize_t canonicalize(const mem_reader_t *name, char out[DORN_METRIC_NAME_BUFFER]) {
  if (!name || name->input_buffer_size == 0) return 0;
  const ssize_t length = dorn_metric_canonicalize_ex(name->input_buffer, name->input_buffer_size, out,
                                                     DORN_METRIC_NAME_BUFFER, true, true, false);
  const int shown = static_cast<int>(std::min<size_t>(name->input_buffer_size, 1024));
  if (length < 0)
    krel_log(krel_error, "Unable to canonicalize metric name (error code %zd): %.*s\n", length, shown,
             name->input_buffer);
  if (length < static_cast<ssize_t>(DORN_METRIC_NAME_BUFFER)) return length;
  krel_log(krel_error, "Metric name is too long: %.*s\n", shown, name->input_buffer);
  return -1;
}

// The text that stands for a metric: "<uuid>-<key>".
size_t write_identity(const uint8_t *uuid, const char *key, size_t key_len, char *out) {
  uuid_text_print(uuid, out);
  out[UUID_TEXT_SIZE] = '-';
  memcpy(out + UUID_TEXT_SIZE + 1, key, key_len);
  return UUID_TEXT_SIZE + 1 + key_len;
}

size_t untagged_len(std::string_view key) {
  return std::min(key.find("|ST["), key.size());
}

}  // namespace

velmar_metric_locator_t *velmar_metric_locator_create(const uint8_t *uuid, const mem_reader_t *name,
                                                      velmar_metric_locator_metric_type_e type) {
  char canonical[DORN_METRIC_NAME_BUFFER];
  const ssize_t canonical_len = canonicalize(name, canonical);
  if (canonical_len < 0) return nullptr;
  const auto key_len = static_cast<size_t>(canonical_len);

  velmar_metric_locator_t *ml = locator_alloc(sizeof(immutable_t) + key_len + 1 + TOPO_HASH_SIZE + 16);
  auto *immutable = new (ml + 1) immutable_t();
  auto *key = reinterpret_cast<char *>(immutable + 1);
  auto *hash = reinterpret_cast<uint8_t *>(key + key_len + 1);
  auto *check_uuid = hash + TOPO_HASH_SIZE;
  memcpy(key, canonical, key_len);
  memcpy(check_uuid, uuid, 16);
  krel_assert(strlen(key) == key_len);

  const mem_reader_t key_buf = {key, key_len};
  mem_reader_t parsed;
  if (!metric_name_v1_parse(&key_buf, &parsed, &immutable->stream_tags)) {
    krel_log(krel_error, "Unable to parse metric name: %s\n", key);
    locator_free(ml);
    return nullptr;
  }
  char identity[UUID_TEXT_SIZE + 1 + DORN_METRIC_NAME_MAX];
  topo_hash(identity, write_identity(uuid, key, key_len, identity), hash);
  immutable->key_len = static_cast<uint32_t>(key_len);
  immutable->untagged_metric_name_len = static_cast<uint32_t>(untagged_len({key, key_len}));
  immutable->release = velmar_metric_locator_immutable_data_release;
  immutable->key_mem = key;
  immutable->hash = hash;
  immutable->check_uuid = check_uuid;
  ml->immutable = immutable;
  velmar_metric_locator_set_type(ml, type);
  return ml;
}

velmar_metric_locator_t *velmar_metric_locator_create_full(int32_t account_id,
                                                           velmar_metric_locator_metric_type_e type,
                                                           const uint8_t *uuid, const mem_reader_t *name) {
  velmar_metric_locator_t *ml = velmar_metric_locator_create(uuid, name, type);
  if (ml) velmar_metric_locator_set_accountid(ml, account_id);
  return ml;
}

velmar_metric_locator_t *velmar_metric_locator_create_from_parts(immutable_t *immutable, int32_t account_id,
                                                                 velmar_metric_locator_metric_type_e type) {
  velmar_metric_locator_t *rval = locator_alloc(0);
  rval->immutable = immutable;
  krel_assert(strlen(rval->immutable->key_mem) == rval->immutable->key_len);
  velmar_metric_locator_set_accountid(rval, account_id);
  velmar_metric_locator_set_type(rval, type);
  return rval;
}

velmar_metric_locator_t *velmar_metric_locator_clone(const velmar_metric_locator_t *ml) {
  const mem_reader_t name = velmar_metric_locator_get_name_buf_with_tags(ml);
  velmar_metric_locator_t *copy =
      velmar_metric_locator_create_full(velmar_metric_locator_get_account_id(ml),
                                        velmar_metric_locator_get_type(ml), ml->immutable->check_uuid, &name);
  if (!copy) return nullptr;
  velmar_metric_locator_set_egress_function(copy, velmar_metric_locator_get_egress_function(ml));
  const spinlock_guard_c source(ml->activity_oil_lock);
  const spinlock_guard_c target(copy->activity_oil_lock);
  copy->activity_oil = oil_clone(ml->activity_oil);
  return copy;
}

// The last reference is gone: nobody else can reach the locator.
static void destroy(velmar_metric_locator_t *ml) NO_THREAD_SAFETY_ANALYSIS {
  oil_free(ml->activity_oil);
  const std::unique_ptr<last_text_t> text(ml->last_t.load(std::memory_order_relaxed));
  const std::unique_ptr<last_hist_t> hist(ml->last_h.load(std::memory_order_relaxed));
  const std::unique_ptr<last_two_numeric_t> numeric(ml->last_n.load(std::memory_order_relaxed));
  if (text || hist) {
    const krel_memory_section_c section;
    if (text) krel_memory_safe_free(text->value);
    if (hist) krel_memory_safe_free(hist->serialized_value);
  }
  ml->immutable->release(ml->immutable);
  locator_free(ml);
}

void velmar_metric_locator_deref(const velmar_metric_locator_t *ml) {
  if (!ml) {
    krel_log(krel_error, "Attempt to deref null metric locator!\n");
    return;
  }
  if (ml->ref_cnt.fetch_sub(1, std::memory_order_acq_rel) == 1)
    destroy(const_cast<velmar_metric_locator_t *>(ml));
}

void velmar_metric_locator_immutable_data_release(immutable_t *immutable) {
  dorn_metric_tagset_cleanup(&immutable->stream_tags);
}

const char *velmar_metric_locator_get_name_with_tags(const velmar_metric_locator_t *ml) {
  return ml ? ml->immutable->key_mem : nullptr;
}

const char *velmar_metric_locator_get_name_without_tags(const velmar_metric_locator_t *ml) {
  return velmar_metric_locator_get_name_with_tags(ml);
}

size_t velmar_metric_locator_get_name_len_with_tags(const velmar_metric_locator_t *ml) {
  return ml ? ml->immutable->key_len : 0;
}

size_t velmar_metric_locator_get_name_len_without_tags(const velmar_metric_locator_t *ml) {
  return ml ? ml->immutable->untagged_metric_name_len : 0;
}

mem_reader_t velmar_metric_locator_get_name_buf_with_tags(const velmar_metric_locator_t *ml) {
  const size_t length = velmar_metric_locator_get_name_len_with_tags(ml);
  return length ? mem_reader_t{ml->immutable->key_mem, length} : mem_reader_t{};
}

mem_reader_t velmar_metric_locator_get_name_buf_without_tags(const velmar_metric_locator_t *ml) {
  const size_t length = velmar_metric_locator_get_name_len_without_tags(ml);
  return length ? mem_reader_t{ml->immutable->key_mem, length} : mem_reader_t{};
}

void velmar_metric_locator_get_check_uuid_str_buf(const velmar_metric_locator_t *ml, mem_reader_t *out) {
  krel_assert(out->input_buffer_size >= UUID_TEXT_SIZE + 1);
  char *text = const_cast<char *>(out->input_buffer);
  uuid_text_print(ml->immutable->check_uuid, text);
  text[UUID_TEXT_SIZE] = 0;
  out->input_buffer_size = UUID_TEXT_SIZE;
}

char *velmar_metric_locator_get_key(const velmar_metric_locator_t *ml, char *buffer, size_t size) {
  const immutable_t *immutable = ml->immutable;
  if (size_t{immutable->key_len} + UUID_TEXT_SIZE + 2 > size) return nullptr;
  buffer[write_identity(immutable->check_uuid, immutable->key_mem, immutable->key_len, buffer)] = 0;
  return buffer;
}

bool velmar_metric_locator_matches(const velmar_metric_locator_t *a, const velmar_metric_locator_t *b) {
  if (!a || !b) return a == b;
  return memcmp(a->immutable->hash, b->immutable->hash, TOPO_HASH_SIZE) == 0;
}

bool velmar_metric_locator_equal(const velmar_metric_locator_t *a, const velmar_metric_locator_t *b) {
  if (!a || !b) return false;
  const immutable_t *x = a->immutable, *y = b->immutable;
  return memcmp(x->check_uuid, y->check_uuid, 16) == 0 && x->key_len == y->key_len &&
         memcmp(x->key_mem, y->key_mem, x->key_len) == 0;
}
