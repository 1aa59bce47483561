#include "db/surrogate3/codec/fbs_oil_decoder.h"

#include "db/surrogate3/codec/eytzinger.h"
#include "db/surrogate3/codec/file_head.h"

namespace db::surrogate3 {

namespace {

using root_t = fbs::fbs_oils;
using entries_t = tables_vector_t<fbs::fbs_oil_entry>;
constexpr uint64_t MAX_ID = INT64_MAX;  // as for metadata files

void read_pairs(const fbs::fbs_oil_entry *entry, std::vector<oil_interval_t> *pairs) {
  pairs->clear();
  const auto *seconds = entry->activity_oil_tstart_and_tend();
  if (!seconds) return;
  pairs->reserve(seconds->size() / 2);
  for (size_t i = 0; i + 1 < seconds->size(); i += 2)
    pairs->push_back({static_cast<uint32_t>(seconds->Get(i) / LOCATOR_ACTIVITY_UNIT_S),
                      static_cast<uint32_t>(seconds->Get(i + 1) / LOCATOR_ACTIVITY_UNIT_S)});
}

}  // namespace

struct fbs_oil_decoder_c::tables_t {
  explicit tables_t(const encoded_data_file_c &data_file) : file(data_file.data(), data_file.size()) {}

  const checked_file_c file;
  size_t n = 0;
  const entries_t *entries = nullptr;
  const entries_t *tree_entries = nullptr;
  const ids_vector_t *tree_ids = nullptr;
  const ids_vector_t *tombstones = nullptr;  // null: none

  bool read_vectors(const root_t *root) {
    entries = file.vector<entries_t>(root, root_t::VT_ENTRIES);
    tree_entries = file.vector<entries_t>(root, root_t::VT_EYTZINGER_ENTRIES);
    tree_ids = file.vector<ids_vector_t>(root, root_t::VT_EYTZINGER_SURROGATE_IDS);
    if (file.has_field(root, root_t::VT_TOMBSTONES)) {
      tombstones = file.vector<ids_vector_t>(root, root_t::VT_TOMBSTONES);
      if (!tombstones) return false;
    }
    if (!entries || !tree_entries || !tree_ids) return false;
    n = entries->size();
    return tree_ids->size() == n + 1 && tree_entries->size() == tree_ids->size();
  }
};

fbs_oil_decoder_c::fbs_oil_decoder_c(encoded_data_file_c data_file, decode_error_e *error)
    : _data_file(std::move(data_file)), _oils(std::make_unique<tables_t>(_data_file)) {
  *error = open();
  _data_file.drop_resident_pages();  // the kernel maps more than was looked at
}

fbs_oil_decoder_c::~fbs_oil_decoder_c() = default;

decode_error_e fbs_oil_decoder_c::open() {
  decode_error_e error;
  const checked_file_c &file = _oils->file;
  const auto *root = open_root<root_t>(file, &error);
  if (!root) return error;
  if (is_cut_short(file, root, root_t::VT_EYTZINGER_SURROGATE_IDS)) return decode_error_e::cut_short;
  for (const auto slot : {root_t::VT_MIN_SURROGATE_ID, root_t::VT_MAX_SURROGATE_ID, root_t::VT_FILE_ID})
    if (!file.has_scalar<uint64_t>(root, slot)) return decode_error_e::damaged;
  if (root->file_id() == 0 || !_oils->read_vectors(root)) return decode_error_e::damaged;
  _min_surrogate_id = root->min_surrogate_id();
  _max_surrogate_id = root->max_surrogate_id();
  if (!has_true_bounds()) return decode_error_e::damaged;
  if (_oils->tombstones) _tombstones.add_many({_oils->tombstones->data(), _oils->tombstones->size()});
  return decode_error_e::none;
}

bool fbs_oil_decoder_c::has_true_bounds() const {
  uint64_t low = UINT64_MAX, high = 0;
  if (_oils->n > 0) {
    const auto *first = _oils->file.element(_oils->entries, 0);
    const auto *last = _oils->file.element(_oils->entries, _oils->n - 1);
    if (!first || !last) return false;
    low = first->surrogate_id();
    high = last->surrogate_id();
  }
  if (_oils->tombstones && _oils->tombstones->size() > 0) {
    low = std::min(low, _oils->tombstones->Get(0));
    high = std::max(high, _oils->tombstones->Get(_oils->tombstones->size() - 1));
  }
  if (high == 0) low = 0;
  return low == _min_surrogate_id && high == _max_surrogate_id && high <= MAX_ID;
}

size_t fbs_oil_decoder_c::get_num_entries() const {
  return _oils->n;
}

oil_ptr fbs_oil_decoder_c::find(uint64_t id) const {
  if (id < _min_surrogate_id || id > _max_surrogate_id) return nullptr;
  const size_t k = eytzinger_find(_oils->n, id, [this](size_t at) { return _oils->tree_ids->Get(at); });
  const auto *entry = k != 0 ? _oils->file.element(_oils->tree_entries, k) : nullptr;
  if (!entry || entry->surrogate_id() != id) return nullptr;
  std::vector<oil_interval_t> pairs;
  read_pairs(entry, &pairs);
  return oil_from_pairs(pairs);
}

bool fbs_oil_decoder_c::get_oil_at(size_t index, uint64_t *id, std::vector<oil_interval_t> *pairs) const {
  const auto *entry = index < _oils->n ? _oils->file.element(_oils->entries, index) : nullptr;
  if (!entry || entry->surrogate_id() == surrogate::ID_NONE || entry->surrogate_id() > _max_surrogate_id)
    return false;
  *id = entry->surrogate_id();
  read_pairs(entry, pairs);
  return true;
}

}  // namespace db::surrogate3
