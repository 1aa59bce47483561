// Walks over everything, on the caller's thread, over the files as they are at one moment.
#include "db/surrogate3/delegate_split.h"
#include "db/surrogate3/flat_tables.h"

namespace db::surrogate3 {

namespace {

// The newest record of every metric that is not deleted. False: the function stopped it.
bool walk_metadata(const lookup_memento_t &memento,
                   const std::function<bool(const metric_locator_sp &)> &function) {
  id_set_c hidden;  // deleted or seen already
  for (const surrogate_decoder_sp &decoder : memento.decoders) {
    decoder->load_tombstones(&hidden);
    for (size_t i = 0; i < decoder->get_num_entries(); ++i) {
      const metric_locator_sp locator = decoder->build_metric_locator_at(i);
      if (!locator || !hidden.add_checked(velmar_metric_locator_get_surrogate_id(locator.get()))) continue;
      if (!function(locator)) return false;
    }
    decoder->get_data_file().drop_resident_pages();
  }
  return true;
}

template <typename F>
void walk_activity(const lookup_memento_t &memento, F &&function) {
  for (delegate_iterator_c records(memento.oil_decoders); !records.is_done(); records.next())
    if (!function(records.id(), oil_from_pairs(records.pairs()))) return;
}

}  // namespace

lookup_memento_t coordinator_c::fetch_memento() {
  return submit_on(_jobq_writer, [this] { return _surrogate_write_delegate->get_memento(); });
}

void coordinator_c::release_memento(lookup_memento_t memento) {
  _gc_executor.submit([gone = std::move(memento)] {});
}

void coordinator_c::for_each_surrogate(bool (*callback)(const metric_locator_sp &, void *), void *closure) {
  lookup_memento_t memento = fetch_memento();
  walk_metadata(memento, [&](const metric_locator_sp &locator) { return callback(locator, closure); });
  release_memento(std::move(memento));
}

void coordinator_c::for_each_activity(bool (*callback)(uint64_t, const oil_list_t *, void *), void *closure) {
  lookup_memento_t memento = fetch_memento();
  walk_activity(memento, [&](uint64_t id, const oil_ptr &oil) { return callback(id, oil.get(), closure); });
  release_memento(std::move(memento));
}

std::vector<metric_locator_sp> coordinator_c::side_load_all_surrogates() {
  std::vector<metric_locator_sp> all;
  side_load_all_surrogates([&all](const metric_locator_sp &locator) {
    all.push_back(locator);
    return true;
  });
  return all;
}

void coordinator_c::side_load_all_surrogates(const std::function<bool(const metric_locator_sp &)> &function) {
  lookup_memento_t memento = fetch_memento();
  boost::unordered_flat_map<uint64_t, oil_ptr> oils;
  walk_activity(memento, [&](uint64_t id, oil_ptr oil) {
    oils.emplace(id, std::move(oil));
    return true;
  });
  walk_metadata(memento, [&](const metric_locator_sp &locator) {
    const auto oil = oils.find(velmar_metric_locator_get_surrogate_id(locator.get()));
    if (oil != oils.end()) {
      velmar_metric_locator_set_activity(locator.get(), oil->second.get());
      oils.erase(oil);
    }
    return function(locator);
  });
  release_memento(std::move(memento));
}

}  // namespace db::surrogate3
