#include "db/surrogate3/codec/fbs_surrogate_decoder.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "db/surrogate3/codec/eytzinger.h"
#include "db/surrogate3/codec/file_head.h"
#include "util/metric_name.h"
#include "util/topo_hash.h"
#include "util/uuid_text.h"

namespace db::surrogate3 {

namespace {

using root_t = fbs::fbs_surrogates;
constexpr size_t UUID_SIZE = 16;
constexpr uint64_t MAX_ID = INT64_MAX;  // no node gives out that many: there is always a next id
constexpr size_t NO_INDEX = SIZE_MAX;

// Does the stored hash belong to the stored name?
bool has_identity(const surrogate_entry_t &entry) {
  char text[UUID_TEXT_SIZE + 1 + DORN_METRIC_NAME_MAX];
  uint8_t hash[TOPO_HASH_SIZE];
  uuid_text_print(entry.check_uuid, text);
  text[UUID_TEXT_SIZE] = '-';
  memcpy(text + UUID_TEXT_SIZE + 1, entry.key.data(), entry.key.size());
  topo_hash(text, UUID_TEXT_SIZE + 1 + entry.key.size(), hash);
  return memcmp(hash, entry.hash, sizeof hash) == 0;
}

bool read_tags(surrogate_entry_t *entry) {
  const mem_reader_t key = {entry->key.data(), entry->key.size()};
  mem_reader_t rest;
  dorn_metric_tagset_t tags;
  if (!metric_name_v1_parse(&key, &rest, &tags)) return false;
  entry->tags = {tags.text, tags.text_size};
  entry->tag_count = tags.count;
  return true;
}

using immutable_t = velmar_metric_locator_immutable_data_t;

// The identity of a locator with the bytes that it looks into, in one allocation.
immutable_t *own_identity(const surrogate_entry_t &entry) {
  const size_t key_size = entry.key.size() + 1;
  void *memory = malloc(sizeof(immutable_t) + key_size + TOPO_HASH_SIZE + UUID_SIZE);
  if (!memory) krel_fatal("out of memory for a metric locator\n");
  auto *immutable = new (memory) immutable_t();
  char *key = reinterpret_cast<char *>(immutable + 1);
  auto *hash = reinterpret_cast<uint8_t *>(key + key_size);
  memcpy(key, entry.key.data(), entry.key.size());
  key[entry.key.size()] = 0;
  memcpy(hash, entry.hash, TOPO_HASH_SIZE);
  memcpy(hash + TOPO_HASH_SIZE, entry.check_uuid, UUID_SIZE);
  if (!entry.tags.empty())
    immutable->stream_tags = {key + (entry.tags.data() - entry.key.data()),
                              static_cast<uint32_t>(entry.tags.size()), entry.tag_count, false};
  immutable->surrogate_id = entry.surrogate_id;
  immutable->key_len = static_cast<uint32_t>(entry.key.size());
  immutable->untagged_metric_name_len = entry.untagged_metric_name_len;
  immutable->release = [](immutable_t *dead) { free(dead); };
  immutable->key_mem = key;
  immutable->hash = hash;
  immutable->check_uuid = hash + TOPO_HASH_SIZE;
  return immutable;
}

metric_locator_sp build_metric_locator_from_entry(const surrogate_entry_t &entry) {
  auto locator = metric_locator_adopt(
      velmar_metric_locator_create_from_parts(own_identity(entry), entry.account_id, entry.metric_type));
  velmar_metric_locator_set_egress_function(locator.get(), entry.egress_function);
  return locator;
}

}  // namespace

struct fbs_surrogate_decoder_c::tables_t {
  explicit tables_t(const encoded_data_file_c &data_file) : file(data_file.data(), data_file.size()) {}

  const checked_file_c file;
  size_t n = 0;
  const tables_vector_t<fbs::fbs_surrogate_entry> *by_id = nullptr;
  const ids_vector_t *tombstones = nullptr;  // null: none
  const ids_vector_t *tree_ids = nullptr;
  const ids_vector_t *tree_index = nullptr;
  const tables_vector_t<fbs::fbs_canonical_name_ht_entry> *slots = nullptr;  // null: no hash table
  uint64_t capacity = 0;
  mutable std::atomic<bool> damage_told{false};

  bool read_vectors(const root_t *root);
  bool read_hash_table(const root_t *root);
};

bool fbs_surrogate_decoder_c::tables_t::read_vectors(const root_t *root) {
  using entries_t = tables_vector_t<fbs::fbs_surrogate_entry>;
  const auto *by_name = file.vector<entries_t>(root, root_t::VT_SURROGATES_ORDERED_BY_CANONICAL_NAME);
  by_id = file.vector<entries_t>(root, root_t::VT_SURROGATES_ORDERED_BY_ID);
  tree_ids = file.vector<ids_vector_t>(root, root_t::VT_EYTZINGER_SURROGATE_IDS);
  tree_index = file.vector<ids_vector_t>(root, root_t::VT_EYTZINGER_INDEX_INTO_SURROGATES_ORDERED_BY_ID);
  if (file.has_field(root, root_t::VT_TOMBSTONES)) {
    tombstones = file.vector<ids_vector_t>(root, root_t::VT_TOMBSTONES);
    if (!tombstones) return false;
  }
  if (!by_name || !by_id || !tree_ids || !tree_index) return false;
  n = by_id->size();
  return by_name->size() == n && tree_ids->size() == n + 1 && tree_index->size() == n + 1;
}

bool fbs_surrogate_decoder_c::tables_t::read_hash_table(const root_t *root) {
  using table_t = fbs::fbs_canonical_name_ht;
  if (!file.has_field(root, root_t::VT_CANONICAL_NAME_TO_SURROGATE_ID)) return true;
  const auto *table = file.table<table_t>(root, root_t::VT_CANONICAL_NAME_TO_SURROGATE_ID);
  if (!table || !file.has_scalar<uint64_t>(table, table_t::VT_CAPACITY) ||
      !file.has_scalar<uint64_t>(table, table_t::VT_LENGTH))
    return false;
  if (table->capacity() == 0 || table->length() == 0) return true;
  slots = file.vector<tables_vector_t<fbs::fbs_canonical_name_ht_entry>>(table, table_t::VT_ENTRIES);
  capacity = table->capacity();
  return slots && slots->size() == capacity && table->length() == n;
}

fbs_surrogate_decoder_c::fbs_surrogate_decoder_c(encoded_data_file_c data_file, decode_error_e *error)
    : _data_file(std::move(data_file)), _d(std::make_unique<tables_t>(_data_file)) {
  *error = open();
  _data_file.drop_resident_pages();  // the kernel maps more than was looked at
}

fbs_surrogate_decoder_c::~fbs_surrogate_decoder_c() = default;

decode_error_e fbs_surrogate_decoder_c::open() {
  decode_error_e error;
  const checked_file_c &file = _d->file;
  const auto *root = open_root<root_t>(file, &error);
  if (!root) return error;
  if (is_cut_short(file, root, root_t::VT_EYTZINGER_SURROGATE_IDS)) return decode_error_e::cut_short;
  if (!file.has_scalar<int32_t>(root, root_t::VT_VERSION)) return decode_error_e::damaged;
  if (root->version() < SURROGATES_VERSION) return decode_error_e::older_format;
  for (const auto slot : {root_t::VT_MIN_SURROGATE_ID, root_t::VT_MAX_SURROGATE_ID, root_t::VT_FILE_ID})
    if (!file.has_scalar<uint64_t>(root, slot)) return decode_error_e::damaged;
  if (root->file_id() == 0 || !_d->read_vectors(root) || !_d->read_hash_table(root))
    return decode_error_e::damaged;

  _min_surrogate_id = root->min_surrogate_id();
  _max_surrogate_id = root->max_surrogate_id();
  if (!has_true_bounds()) return decode_error_e::damaged;
  if (_d->tombstones) _all_tombstones.add_many({_d->tombstones->data(), _d->tombstones->size()});
  return decode_error_e::none;
}

// The stored bounds against the ends of the ordered vectors.
bool fbs_surrogate_decoder_c::has_true_bounds() {
  uint64_t low = UINT64_MAX, high = 0;
  if (_d->n > 0) {
    const auto *first = _d->file.element(_d->by_id, 0);
    const auto *last = _d->file.element(_d->by_id, _d->n - 1);
    if (!first || !last) return false;
    low = _first_id = first->surrogate_id();
    high = last->surrogate_id();
    _is_dense = high - low == _d->n - 1;
  }
  if (_d->tombstones && _d->tombstones->size() > 0) {
    low = std::min(low, _d->tombstones->Get(0));
    high = std::max(high, _d->tombstones->Get(_d->tombstones->size() - 1));
  }
  if (high == 0) low = 0;
  return low == _min_surrogate_id && high == _max_surrogate_id && high <= MAX_ID;
}

size_t fbs_surrogate_decoder_c::get_num_entries() const {
  return _d->n;
}

uint64_t fbs_surrogate_decoder_c::get_surrogate_id_from_key(const metric_key_c &key) const {
  if (!_d->slots) return 0;
  uint64_t slot = key.hash() % _d->capacity;
  for (uint64_t probes = 0; probes < _d->capacity; ++probes) {
    const auto *entry = _d->file.element(_d->slots, slot);
    const auto *stored = entry ? entry->key() : nullptr;
    if (entry && (!stored || stored->size() == 0)) return 0;
    if (stored && stored->size() == key.bytes().size() &&
        memcmp(stored->data(), key.bytes().data(), stored->size()) == 0)
      return entry->surrogate_id();
    if (++slot == _d->capacity) slot = 0;
  }
  return 0;
}

size_t fbs_surrogate_decoder_c::index_of(uint64_t id) const {
  if (id < _min_surrogate_id || id > _max_surrogate_id || _d->n == 0) return NO_INDEX;
  if (_is_dense) return id >= _first_id && id - _first_id < _d->n ? id - _first_id : NO_INDEX;
  const size_t k = eytzinger_find(_d->n, id, [this](size_t at) { return _d->tree_ids->Get(at); });
  if (k == 0) return NO_INDEX;
  const uint64_t index = _d->tree_index->Get(k);
  return index < _d->n ? index : NO_INDEX;
}

bool fbs_surrogate_decoder_c::read_entry(size_t index, surrogate_entry_t *out) const {
  const auto *stored = index < _d->n ? _d->file.element(_d->by_id, index) : nullptr;
  if (!stored || !stored->key() || !stored->check_uuid() || !stored->hash()) return false;
  if (stored->check_uuid()->size() != UUID_SIZE || stored->hash()->size() != TOPO_HASH_SIZE) return false;
  out->key = {stored->key()->c_str(), stored->key()->size()};
  if (out->key.size() > DORN_METRIC_NAME_MAX || memchr(out->key.data(), 0, out->key.size())) return false;
  out->surrogate_id = stored->surrogate_id();
  out->check_uuid = reinterpret_cast<const uint8_t *>(stored->check_uuid()->data());
  out->hash = reinterpret_cast<const uint8_t *>(stored->hash()->data());
  out->untagged_metric_name_len = static_cast<uint32_t>(std::min(out->key.find("|ST["), out->key.size()));
  out->account_id = static_cast<int32_t>(stored->account_id());
  out->metric_type = static_cast<velmar_metric_locator_metric_type_e>(stored->metric_type());
  out->egress_function = static_cast<metrics_db_egress_function_e>(stored->egress_function());
  return out->surrogate_id >= _min_surrogate_id && out->surrogate_id <= _max_surrogate_id &&
         out->surrogate_id != surrogate::ID_NONE && has_identity(*out) && read_tags(out);
}

bool fbs_surrogate_decoder_c::get_entry(size_t index, surrogate_entry_t *out) const {
  if (read_entry(index, out)) return true;
  if (!_d->damage_told.exchange(true))
    krel_log(krel_error,
             "File %s is damaged: entry %zu cannot be read and counts as absent, and so may others\n",
             _data_file.get_data_file_descriptor().name.c_str(), index);
  return false;
}

metric_locator_sp fbs_surrogate_decoder_c::build_metric_locator(uint64_t id) const {
  const size_t index = index_of(id);
  surrogate_entry_t entry;
  if (index == NO_INDEX || !get_entry(index, &entry) || entry.surrogate_id != id) return nullptr;
  return build_metric_locator_from_entry(entry);
}

metric_locator_sp fbs_surrogate_decoder_c::build_metric_locator_at(size_t index) const {
  surrogate_entry_t entry;
  if (!get_entry(index, &entry)) return nullptr;
  return build_metric_locator_from_entry(entry);
}

}  // namespace db::surrogate3
