#include "db/surrogate3/codec/fbs_oil_encoder.h"

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>

#include "db/surrogate3/codec/eytzinger.h"
#include "db/surrogate3/codec/fbs_layout.h"

namespace db::surrogate3 {

namespace {

struct indexed_oil_t {
  uint64_t surrogate_id;
  const oil_list_t *oil;
  fb64::uoffset_t entry_offset;
};

// Stored in seconds; the last unit that 32 bits of seconds can name stands for all later ones.
uint32_t to_seconds(uint32_t unit) {
  return static_cast<uint32_t>(std::min<uint64_t>(unit * LOCATOR_ACTIVITY_UNIT_S, UINT32_MAX));
}

}  // namespace

struct fbs_oil_encoder_c::internal_t {
  explicit internal_t(util::mem::allocator_c *allocator)
      : memory(allocator), has_memory(allocator != nullptr) {}

  builder_memory_c memory;
  const bool has_memory;
  std::unique_ptr<builder_t> builder;
  boost::unordered_flat_map<uint64_t, oil_ptr> surrogate_id_to_oil;
  id_set_c tombstones;
  bool sealed = false;

  std::vector<indexed_oil_t> sorted_oils() const;
  void lay_down_entries(std::vector<indexed_oil_t> *oils);
};

std::vector<indexed_oil_t> fbs_oil_encoder_c::internal_t::sorted_oils() const {
  std::vector<indexed_oil_t> oils;
  oils.reserve(surrogate_id_to_oil.size());
  for (const auto &[id, oil] : surrogate_id_to_oil) oils.push_back({id, oil.get(), 0});
  std::sort(oils.begin(), oils.end(),
            [](const indexed_oil_t &a, const indexed_oil_t &b) { return a.surrogate_id < b.surrogate_id; });
  return oils;
}

void fbs_oil_encoder_c::internal_t::lay_down_entries(std::vector<indexed_oil_t> *oils) {
  std::vector<uint32_t> pairs;
  for (indexed_oil_t &indexed : *oils) {
    pairs.clear();
    oil_iter(indexed.oil, [&pairs](const oil_interval_t &interval) {
      pairs.push_back(to_seconds(interval.first));
      pairs.push_back(to_seconds(interval.last));
    });
    indexed.entry_offset =
        fbs::Createfbs_oil_entry(*builder, indexed.surrogate_id, builder->CreateVector(pairs)).o;
  }
}

fbs_oil_encoder_c::fbs_oil_encoder_c(util::mem::allocator_c *allocator)
    : _internal(std::make_unique<internal_t>(allocator)) {}
fbs_oil_encoder_c::~fbs_oil_encoder_c() = default;

bool fbs_oil_encoder_c::accept(const metric_locator_sp &locator) {
  return accept(velmar_metric_locator_get_surrogate_id(locator.get()),
                oil_ptr(velmar_metric_locator_get_activity_clone(locator.get())));
}

bool fbs_oil_encoder_c::accept(uint64_t id, oil_ptr oil) {
  krel_assert(!_internal->sealed);
  if (!oil) return false;
  auto [stored, is_new] = _internal->surrogate_id_to_oil.try_emplace(id);
  if (is_new)
    stored->second = std::move(oil);
  else
    oil_merge_inplace(stored->second.get(), oil.get());
  return true;
}

void fbs_oil_encoder_c::accept_tombstone(uint64_t id) {
  krel_assert(!_internal->sealed);
  _internal->surrogate_id_to_oil.erase(id);
  _internal->tombstones.add(id);
}

void fbs_oil_encoder_c::commit(uint64_t file_id) {
  internal_t &in = *_internal;
  krel_assert(!in.sealed && file_id != 0);
  in.sealed = true;
  std::vector<indexed_oil_t> oils = in.sorted_oils();
  const size_t n = oils.size();
  std::vector<uint64_t> gone;
  gone.reserve(in.tombstones.size());
  in.tombstones.for_each([&gone](uint64_t id) { gone.push_back(id); });

  in.builder =
      std::make_unique<builder_t>(1024 + 80 * n + 8 * gone.size(), in.has_memory ? &in.memory : nullptr);
  builder_t &builder = *in.builder;
  // The ids' search layout ends the file, so that a file that was cut short shows at its opening.
  const auto tree_ids = make_vector<uint64_t>(builder, n + 1, [&](uint64_t *data) {
    data[0] = 0;
    for_each_eytzinger(n, [&](size_t k, size_t rank) { data[k] = oils[rank].surrogate_id; });
  });
  in.lay_down_entries(&oils);
  const auto entries =
      make_reference_vector<fbs::fbs_oil_entry>(builder, n, [&](size_t i) { return oils[i].entry_offset; });
  std::vector<fb64::uoffset_t> tree(n + 1, 0);
  for_each_eytzinger(n, [&](size_t k, size_t rank) { tree[k] = oils[rank].entry_offset; });
  const auto tree_entries =
      make_reference_vector<fbs::fbs_oil_entry>(builder, n + 1, [&](size_t i) { return tree[i]; });
  const auto tombstones = builder.CreateVector(gone);

  uint64_t low = UINT64_MAX, high = 0;
  if (n > 0) low = oils.front().surrogate_id, high = oils.back().surrogate_id;
  if (!gone.empty()) low = std::min(low, gone.front()), high = std::max(high, gone.back());
  const auto root = fbs::Createfbs_oils(builder, high == 0 ? 0 : low, high, file_id, entries, tombstones,
                                        tree_ids, tree_entries, 0);
  builder.Finish(root, DATA_FILE_IDENTIFIER);
}

void fbs_oil_encoder_c::reset() {
  _internal->surrogate_id_to_oil.clear();
  _internal->tombstones = {};
  _internal->builder.reset();
  _internal->sealed = false;
}

std::span<const uint8_t> fbs_oil_encoder_c::buffer() const {
  if (!_internal->builder) return {};
  return {_internal->builder->GetBufferPointer(), _internal->builder->GetSize()};
}

bool fbs_oil_encoder_c::empty() const {
  return _internal->surrogate_id_to_oil.empty() && _internal->tombstones.empty();
}

}  // namespace db::surrogate3
