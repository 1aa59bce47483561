#include "db/surrogate3/lookup_delegate.h"

#include <algorithm>

#include <fmt/format.h>

#include "db/surrogate3/flat_tables.h"
#include "platform/tolvmetrics/stats.h"
#include "util/velmar_stats.h"

namespace db::surrogate3 {

namespace {

// What the files answered is remembered for this many metrics; it is 40 bytes each.
constexpr size_t REMEMBERED_MAX = 16384;
// A metric is read from a file once and then held here: the pages have done their work.
constexpr size_t FILE_READS_BEFORE_RELEASE = 1024;

stats_handle_t *register_gauge(uint32_t number, const char *name, const char *method) {
  stats_ns_t *ns = velmar_stats_get_ns("surrogate3.lookup_delegate");
  stats_handle_t *handle =
      stats_register(ns, fmt::format(fmt::runtime(name), number).c_str(), STATS_TYPE_GAUGE_U64);
  stats_handle_add_tag(handle, "db-type", "surrogate");
  stats_handle_add_tag(handle, "db-impl", "surrogate3");
  stats_handle_add_tag(handle, "reader", std::to_string(number).c_str());
  stats_handle_add_tag(handle, "method", method);
  return handle;
}

}  // namespace

struct lookup_delegate_c::tables_t {
  locator_set_t ml_to_id;       // canonical locators, which carry their ids
  id_to_locator_t id_to_ml;     // canonical locators
  id_set_c tombstones;          // deleted since the files that this reader searches were written
  identity_to_id_t remembered;  // answers of the files; id 0: known absent

  void remember(const identity_t &identity, uint64_t id) {
    if (remembered.size() >= REMEMBERED_MAX) remembered.clear();
    remembered[identity] = id;
  }
};

lookup_delegate_c::lookup_delegate_c(uint32_t number, size_t capacity)
    : _capacity(capacity),
      _tables(std::make_unique<tables_t>()),
      _stat_ml_to_id_size(register_gauge(number, "ml_to_id_{}_size", "lookup_delegate_c#ml_to_id")),
      _stat_id_to_ml_size(register_gauge(number, "id_to_ml_{}_size", "lookup_delegate_c#id_to_ml")),
      _stat_max_surrogate_id(register_gauge(number, "max_surrogate_id{}_size", "lookup_delegate_c#max")) {}

lookup_delegate_c::~lookup_delegate_c() = default;

lookup_delegate_c::found_t lookup_delegate_c::find_surrogate(const velmar_metric_locator_t *ml, bool remember) {
  const auto known = _tables->ml_to_id.find(ml);
  if (known != _tables->ml_to_id.end()) return {velmar_metric_locator_get_surrogate_id(known->get()), *known};
  if (_decoders.empty()) return {};

  const identity_t identity = identity_of(ml);
  const auto remembered = _tables->remembered.find(identity);
  if (remembered != _tables->remembered.end()) return {remembered->second, nullptr};
  const uint64_t id = find_in_files(ml);
  if (remember) _tables->remember(identity, id);
  count_file_read();
  return {id, nullptr};
}

uint64_t lookup_delegate_c::find_in_files(const velmar_metric_locator_t *ml) const {
  const metric_key_c key(ml);
  for (const surrogate_decoder_sp &decoder : _decoders) {
    const uint64_t id = decoder->get_surrogate_id_from_key(key);
    // a deleted id's name may have had another id before, in an older file: it was deleted as well
    if (id != surrogate::ID_NONE && !has_tombstone(id, decoder.get())) return id;
  }
  return surrogate::ID_NONE;
}

bool lookup_delegate_c::has_tombstone(uint64_t id, const surrogate_decoder_c *not_older_than) const {
  if (_tables->tombstones.contains(id)) return true;
  for (const surrogate_decoder_sp &decoder : _decoders) {
    if (decoder->has_tombstone(id)) return true;
    if (decoder.get() == not_older_than) break;
  }
  return false;
}

void lookup_delegate_c::accept_locator_by_key(const metric_locator_sp &canonical) {
  // erased again before it arrived: its eviction is behind this call
  if (!velmar_metric_locator_is_canonical(canonical.get())) return;
  const uint64_t id = velmar_metric_locator_get_surrogate_id(canonical.get());
  if (!_tables->ml_to_id.insert(canonical).second) {
    _tables->ml_to_id.erase(canonical);
    _tables->ml_to_id.insert(canonical);
  }
  _tables->remembered.erase(identity_of(canonical.get()));
  _tables->tombstones.remove(id);
  raise_max(id);
}

void lookup_delegate_c::evict_locator(const velmar_metric_locator_t *ml) {
  const uint64_t id = velmar_metric_locator_get_surrogate_id(ml);
  const auto known = _tables->ml_to_id.find(ml);
  if (known != _tables->ml_to_id.end() && velmar_metric_locator_get_surrogate_id(known->get()) == id)
    _tables->ml_to_id.erase(known);
  _tables->remembered.erase(identity_of(ml));
  _tables->tombstones.add(id);
}

metric_locator_sp lookup_delegate_c::find_locator(uint64_t id, std::vector<metric_locator_sp> *built) {
  if (id > _max_surrogate_id || id == surrogate::ID_NONE) return nullptr;
  const auto known = _tables->id_to_ml.find(id);
  if (known != _tables->id_to_ml.end()) return known->second;
  if (_tables->tombstones.contains(id)) return nullptr;
  metric_locator_sp locator;
  for (const surrogate_decoder_sp &decoder : _decoders) {
    if (decoder->has_tombstone(id)) return nullptr;
    locator = decoder->build_metric_locator(id);
    if (locator) break;
  }
  count_file_read();
  if (!locator) return nullptr;
  if (const oil_ptr oil = _oil_decoders.find(id)) velmar_metric_locator_set_activity(locator.get(), oil.get());
  velmar_metric_locator_set_canonical(locator.get());
  _tables->id_to_ml.emplace(id, locator);
  built->push_back(locator);
  return locator;
}

void lookup_delegate_c::accept_locator_by_id(const metric_locator_sp &canonical) {
  if (!velmar_metric_locator_is_canonical(canonical.get())) return;
  const uint64_t id = velmar_metric_locator_get_surrogate_id(canonical.get());
  _tables->id_to_ml[id] = canonical;
  _tables->tombstones.remove(id);
  raise_max(id);
}

metric_locator_sp lookup_delegate_c::evict_locator(uint64_t id) {
  std::vector<metric_locator_sp> built;
  metric_locator_sp locator = find_locator(id, &built);
  if (!locator) return nullptr;
  velmar_metric_locator_clear_canonical(locator.get());
  _tables->id_to_ml.erase(id);
  _tables->tombstones.add(id);
  return locator;
}

std::vector<surrogate_decoder_sp> lookup_delegate_c::replace_decoders(
    std::vector<surrogate_decoder_sp> decoders, uint64_t max_surrogate_id, size_t expected_metrics) {
  raise_max(max_surrogate_id);
  const size_t room = std::min(_capacity, expected_metrics);
  _tables->ml_to_id.reserve(room);
  _tables->id_to_ml.reserve(room);
  return std::exchange(_decoders, std::move(decoders));
}

std::vector<oil_decoder_sp> lookup_delegate_c::replace_decoders(std::vector<oil_decoder_sp> decoders) {
  return _oil_decoders.replace(std::move(decoders));
}

void lookup_delegate_c::raise_max(uint64_t id) {
  _max_surrogate_id = std::max(_max_surrogate_id, id);
}

void lookup_delegate_c::count_file_read() {
  ++_file_reads;
}

void lookup_delegate_c::settle() {
  const auto set = [](stats_handle_t *handle, uint64_t value) {
    stats_set(handle, STATS_TYPE_GAUGE_U64, &value);
  };
  set(_stat_ml_to_id_size, _tables->ml_to_id.size());
  set(_stat_id_to_ml_size, _tables->id_to_ml.size());
  set(_stat_max_surrogate_id, _max_surrogate_id);
  if (_file_reads < FILE_READS_BEFORE_RELEASE) return;
  _file_reads = 0;
  for (const surrogate_decoder_sp &decoder : _decoders) decoder->get_data_file().drop_resident_pages();
  for (const oil_decoder_sp &decoder : _oil_decoders.get_all_decoders())
    decoder->get_data_file().drop_resident_pages();
}

}  // namespace db::surrogate3
