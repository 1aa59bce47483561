#include "db/surrogate3/codec/fbs_surrogate_encoder.h"

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstring>

#include "db/surrogate3/codec/eytzinger.h"
#include "db/surrogate3/codec/fbs_hash_map_builder.h"
#include "db/surrogate3/codec/natural_merge_sort.h"
#include "util/uuid_text.h"
#include "util/wyhash.h"

namespace db::surrogate3 {

namespace {

constexpr size_t UUID_SIZE = 16, HASH_SIZE = 32;

// One entry on its way into the buffer.
struct crutch_t {
  uint64_t uuid_front;  // the uuid as two big-endian numbers, to compare by
  uint64_t uuid_back;
  const surrogate_entry_t *entry;
  fb64::uoffset_t locator_offset;  // of its table
  fb64::uoffset_t ht_entry_offset;
  uint64_t key_hash;
};

uint64_t big_endian(const uint8_t *bytes) {
  uint64_t value;
  memcpy(&value, bytes, sizeof value);
  return __builtin_bswap64(value);
}

// The order of the stored key bytes: a uuid's text sorts as its bytes do, a prefix sorts first.
bool canonical_name_less(const crutch_t &a, const crutch_t &b) {
  if (a.uuid_front != b.uuid_front) return a.uuid_front < b.uuid_front;
  if (a.uuid_back != b.uuid_back) return a.uuid_back < b.uuid_back;
  return a.entry->key < b.entry->key;  // char_traits compare as unsigned bytes
}

bool canonical_name_equal(const crutch_t &a, const crutch_t &b) {
  return a.uuid_front == b.uuid_front && a.uuid_back == b.uuid_back && a.entry->key == b.entry->key;
}

bool surrogate_id_less(const crutch_t *a, const crutch_t *b) {
  return a->entry->surrogate_id < b->entry->surrogate_id;
}

struct text_hash_t {
  using is_avalanching = void;
  size_t operator()(std::string_view text) const { return util::wyhash(text); }
};
template <typename T>
using by_text_t = boost::unordered_flat_map<std::string_view, fb64::Offset<T>, text_hash_t>;

// The same tag and the same set of tags are stored once.
struct tag_table_t {
  by_text_t<fbs::fbs_tag_entry> tags;
  by_text_t<tables_vector_t<fbs::fbs_tag_entry>> sets;
  std::vector<fb64::Offset<fbs::fbs_tag_entry>> scratch;

  fb64::Offset<tables_vector_t<fbs::fbs_tag_entry>> set_of(builder_t &builder, std::string_view text) {
    auto [set, is_new] = sets.try_emplace(text);
    if (!is_new) return set->second;
    scratch.clear();
    dorn_metric_tagset_t view = {};
    view.text = text.data();
    view.text_size = static_cast<uint32_t>(text.size());
    for (const dorn_metric_tag_t &tag : view) scratch.push_back(tag_of(builder, tag));
    return set->second = builder.CreateVector(scratch);
  }
  fb64::Offset<fbs::fbs_tag_entry> tag_of(builder_t &builder, const dorn_metric_tag_t &tag) {
    auto [stored, is_new] = tags.try_emplace(tag.text());
    if (is_new) {
      const auto text = builder.CreateString(tag.tag, tag.total_size);
      stored->second =
          fbs::Createfbs_tag_entry(builder, tag.total_size, static_cast<int8_t>(tag.category_size), text);
    }
    return stored->second;
  }
};

surrogate_entry_t entry_of(const velmar_metric_locator_t *ml) {
  const velmar_metric_locator_immutable_data_t *immutable = ml->immutable;
  surrogate_entry_t entry;
  entry.surrogate_id = velmar_metric_locator_get_surrogate_id(ml);
  entry.key = {immutable->key_mem, immutable->key_len};
  entry.tags = {immutable->stream_tags.text, immutable->stream_tags.text_size};
  entry.check_uuid = immutable->check_uuid;
  entry.hash = immutable->hash;
  entry.untagged_metric_name_len = immutable->untagged_metric_name_len;
  return entry;
}

fb64::Offset<fb64::Vector<int8_t>> bytes_of(builder_t &builder, const uint8_t *bytes, size_t size) {
  return builder.CreateVector(reinterpret_cast<const int8_t *>(bytes), size);
}

}  // namespace

struct fbs_surrogate_encoder_c::internal_t {
  explicit internal_t(util::mem::allocator_c *allocator)
      : memory(allocator), has_memory(allocator != nullptr) {}

  builder_memory_c memory;
  const bool has_memory;
  std::unique_ptr<builder_t> builder;
  std::vector<metric_locator_sp> locators;  // of the first entries, in the same order
  std::vector<surrogate_entry_t> entries;
  id_set_c tombstones;
  bool sealed = false;

  std::vector<crutch_t> sorted_crutches();
  void make_builder(const std::vector<crutch_t> &crutches);
  void lay_down_entries(std::vector<crutch_t> *crutches);
};

std::vector<crutch_t> fbs_surrogate_encoder_c::internal_t::sorted_crutches() {
  for (size_t i = 0; i < locators.size(); ++i) {
    const velmar_metric_locator_t *ml = locators[i].get();
    entries[i].account_id = velmar_metric_locator_get_account_id(ml);
    entries[i].metric_type = velmar_metric_locator_get_type(ml);
    entries[i].egress_function = velmar_metric_locator_get_egress_function(ml);
  }
  std::vector<crutch_t> crutches;
  crutches.reserve(entries.size());
  for (const surrogate_entry_t &entry : entries)
    crutches.push_back({big_endian(entry.check_uuid), big_endian(entry.check_uuid + 8), &entry, 0, 0, 0});
  natural_merge_sort(&crutches, canonical_name_less);
  crutches.erase(std::unique(crutches.begin(), crutches.end(), canonical_name_equal), crutches.end());
  return crutches;
}

// The buffer is given its size at the start: growing copies it.
void fbs_surrogate_encoder_c::internal_t::make_builder(const std::vector<crutch_t> &crutches) {
  size_t estimate = 1024 + tombstones.size() * sizeof(uint64_t);
  for (const crutch_t &crutch : crutches)
    estimate += 440 + 2 * crutch.entry->key.size() + crutch.entry->tags.size();
  builder = std::make_unique<builder_t>(estimate, has_memory ? &memory : nullptr);
}

void fbs_surrogate_encoder_c::internal_t::lay_down_entries(std::vector<crutch_t> *crutches) {
  tag_table_t tag_table;
  const uint8_t *last_uuid = nullptr;
  fb64::Offset<fb64::Vector<int8_t>> uuid;
  for (crutch_t &crutch : *crutches) {
    const surrogate_entry_t &entry = *crutch.entry;
    const size_t name_size = entry.key.size() + metric_key_c::EXTRA;
    const auto canonical_name = make_vector<uint8_t>(*builder, name_size, [&](uint8_t *name) {
      uuid_text_print(entry.check_uuid, reinterpret_cast<char *>(name));
      name[UUID_TEXT_SIZE] = '-';
      memcpy(name + UUID_TEXT_SIZE + 1, entry.key.data(), entry.key.size());
      name[name_size - 1] = 0;
      crutch.key_hash = util::wyhash(name, name_size);
    });
    crutch.ht_entry_offset =
        fbs::Createfbs_canonical_name_ht_entry(*builder, canonical_name, entry.surrogate_id).o;

    const auto key = builder->CreateString(entry.key.data(), entry.key.size());
    if (!last_uuid || memcmp(last_uuid, entry.check_uuid, UUID_SIZE) != 0) {
      uuid = bytes_of(*builder, entry.check_uuid, UUID_SIZE);  // shared by the metrics of one check
      last_uuid = entry.check_uuid;
    }
    const auto hash = bytes_of(*builder, entry.hash, HASH_SIZE);
    const auto tags = tag_table.set_of(*builder, entry.tags);
    crutch.locator_offset = fbs::Createfbs_surrogate_entry(
                                *builder, canonical_name, static_cast<uint16_t>(entry.metric_type),
                                static_cast<uint8_t>(entry.egress_function),
                                static_cast<uint32_t>(entry.account_id), entry.surrogate_id, uuid, hash, key,
                                static_cast<int32_t>(entry.tags.size()), tags, entry.untagged_metric_name_len)
                                .o;
  }
}

fbs_surrogate_encoder_c::fbs_surrogate_encoder_c(util::mem::allocator_c *allocator)
    : _internal(std::make_unique<internal_t>(allocator)) {}
fbs_surrogate_encoder_c::~fbs_surrogate_encoder_c() = default;

bool fbs_surrogate_encoder_c::accept(const metric_locator_sp &locator) {
  internal_t &in = *_internal;
  krel_assert(!in.sealed && in.locators.size() == in.entries.size());
  in.entries.push_back(entry_of(locator.get()));
  in.locators.push_back(locator);
  return true;
}

void fbs_surrogate_encoder_c::accept(const surrogate_entry_t &entry) {
  krel_assert(!_internal->sealed);
  _internal->entries.push_back(entry);
}

void fbs_surrogate_encoder_c::accept_tombstone(uint64_t id) {
  krel_assert(!_internal->sealed);
  _internal->tombstones.add(id);
}

void fbs_surrogate_encoder_c::commit(uint64_t file_id) {
  internal_t &in = *_internal;
  krel_assert(!in.sealed && file_id != 0);
  in.sealed = true;
  std::vector<crutch_t> crutches = in.sorted_crutches();
  const size_t n = crutches.size();
  std::vector<crutch_t *> by_id(n);
  for (size_t i = 0; i < n; ++i) by_id[i] = &crutches[i];
  std::sort(by_id.begin(), by_id.end(), surrogate_id_less);
  std::vector<uint64_t> gone;
  gone.reserve(in.tombstones.size());
  in.tombstones.for_each([&gone](uint64_t id) { gone.push_back(id); });

  in.make_builder(crutches);
  builder_t &builder = *in.builder;
  // The ids' search layout ends the file, so that a file that was cut short shows at its opening.
  const auto tree_ids = make_vector<uint64_t>(builder, n + 1, [&](uint64_t *data) {
    data[0] = 0;
    for_each_eytzinger(n, [&](size_t k, size_t rank) { data[k] = by_id[rank]->entry->surrogate_id; });
  });
  const auto tree_index = make_vector<uint64_t>(builder, n + 1, [&](uint64_t *data) {
    data[0] = 0;
    for_each_eytzinger(n, [&](size_t k, size_t rank) { data[k] = rank; });
  });
  in.lay_down_entries(&crutches);
  const auto ordered_by_name = make_reference_vector<fbs::fbs_surrogate_entry>(
      builder, n, [&](size_t i) { return crutches[i].locator_offset; });
  const auto ordered_by_id = make_reference_vector<fbs::fbs_surrogate_entry>(
      builder, n, [&](size_t i) { return by_id[i]->locator_offset; });
  fbs_hash_map_builder_c hash_map(n);
  for (const crutch_t &crutch : crutches) hash_map.set(crutch.key_hash, crutch.ht_entry_offset);
  const auto hash_table = hash_map.materialize(builder);
  const auto tombstones = builder.CreateVector(gone);

  uint64_t low = UINT64_MAX, high = 0;
  if (n > 0) low = by_id.front()->entry->surrogate_id, high = by_id.back()->entry->surrogate_id;
  if (!gone.empty()) low = std::min(low, gone.front()), high = std::max(high, gone.back());
  const auto root =
      fbs::Createfbs_surrogates(builder, ordered_by_name, ordered_by_id, tombstones, high == 0 ? 0 : low, high,
                                file_id, SURROGATES_VERSION, tree_ids, tree_index, hash_table);
  builder.Finish(root, DATA_FILE_IDENTIFIER);
}

void fbs_surrogate_encoder_c::reset() {
  clear_no_reset();
  _internal->builder.reset();
  _internal->sealed = false;
}

void fbs_surrogate_encoder_c::clear_no_reset() {
  _internal->locators.clear();
  _internal->entries.clear();
  _internal->tombstones = {};
}

std::span<const uint8_t> fbs_surrogate_encoder_c::buffer() const {
  if (!_internal->builder) return {};
  return {_internal->builder->GetBufferPointer(), _internal->builder->GetSize()};
}

bool fbs_surrogate_encoder_c::empty() const {
  return _internal->entries.empty() && _internal->tombstones.empty();
}

}  // namespace db::surrogate3
