#include "db/surrogate3/write_delegate.h"

#include <algorithm>

#include "db/surrogate3/data_files.h"
#include "platform/krel/base/krel_log.h"
#include "platform/tolvmetrics/stats.h"
#include "util/concurrency/executor.h"
#include "util/velmar_stats.h"

namespace db::surrogate3 {

namespace {

constexpr int64_t MS_IN_S = 1000;

stats_handle_t *register_gauge(const char *name, const char *type) {
  stats_handle_t *handle =
      stats_register(velmar_stats_get_ns("surrogate3.write_delegate"), name, STATS_TYPE_GAUGE_U64);
  stats_handle_add_tag(handle, "db-type", "surrogate");
  stats_handle_add_tag(handle, "db-impl", "surrogate3");
  stats_handle_add_tag(handle, "type", type);
  return handle;
}

// The files of one kind, opened.
template <typename Decoder, typename Build>
void load_files(const file_selection_strategy_c &fss, spec_e spec, Build &&build,
                std::map<uint64_t, std::shared_ptr<const Decoder>> *out, uint64_t *next_id,
                uint64_t *next_file_id) {
  restore_repair_files(fss, spec);
  remove_empty_files(fss, spec);
  set_cut_file_aside(fss, spec);
  merge_files(fss, spec);
  resequence_files(fss, spec);
  for (const data_file_descriptor_t &file : fss.get_files(spec)) {
    std::shared_ptr<const Decoder> decoder = build(file.file_id);
    *next_id = std::max(*next_id, decoder->get_max_surrogate_id() + 1);
    *next_file_id = std::max(*next_file_id, file.file_id + 1);
    out->emplace(file.file_id, std::move(decoder));
  }
}

template <typename Decoder>
std::vector<std::shared_ptr<const Decoder>> newest_first(
    const std::map<uint64_t, std::shared_ptr<const Decoder>> &decoders) {
  std::vector<std::shared_ptr<const Decoder>> list;
  for (auto it = decoders.rbegin(); it != decoders.rend(); ++it) list.push_back(it->second);
  return list;
}

}  // namespace

write_delegate_c::write_delegate_c(const file_selection_strategy_c &fss, lookup_mediator_c &service,
                                   gather_tracker_c &gathers, util::concurrency::executor_c &gc_executor)
    : _gc_executor(gc_executor),
      _service(service),
      _gathers(gathers),
      _codec_factory(fss),
      _encoder_metadata(build_encoder(surrogate::metadata)),
      _encoder_activity(build_encoder(surrogate::activity)),
      _metadata_files_gauge(register_gauge("metadata_files_gauge", "metadata")),
      _activity_files_gauge(register_gauge("activity_files_gauge", "activity")) {}

write_delegate_c::~write_delegate_c() = default;

void write_delegate_c::load_all_files() {
  const file_selection_strategy_c &fss = _codec_factory.get_file_selection_strategy();
  make_directories(fss);
  load_files(
      fss, surrogate::metadata, [this](uint64_t id) { return _codec_factory.build_metadata_decoder(id); },
      &_file_id_to_surrogate_decoder, &_surrogate_id_generator, &_metadata_file_id_generator);
  load_files(
      fss, surrogate::activity, [this](uint64_t id) { return _codec_factory.build_activity_decoder(id); },
      &_file_id_to_oil_decoder, &_surrogate_id_generator, &_activity_file_id_generator);
  _service.replace_decoders(newest_first(_file_id_to_surrogate_decoder), _surrogate_id_generator - 1);
  _service.replace_decoders(newest_first(_file_id_to_oil_decoder));
  update_gauges();
}

void write_delegate_c::set_compaction_services(compaction_service_c<surrogate_decoder_c> *metadata,
                                               compaction_service_c<oil_decoder_c> *activity) {
  _surrogate_compaction_service = metadata;
  _oil_compaction_service = activity;
  if (metadata)
    for (const auto &[id, decoder] : _file_id_to_surrogate_decoder) metadata->accept(decoder);
  if (activity)
    for (const auto &[id, decoder] : _file_id_to_oil_decoder) activity->accept(decoder);
}

// The instance that entry i is folded into. A new metric's own locator becomes it.
metric_locator_sp write_delegate_c::canonical_of(const write_batch_request_t &request, size_t i, bool *is_new) {
  const surrogate::key_c &key = request.entries[i].get_key();
  const metric_locator_sp &incoming = key.get_metric_locator();
  *is_new = false;
  if (is_live_canonical(incoming)) return incoming;
  if (const metric_locator_sp &found = request.gather.get_canonical_locator(i); is_live_canonical(found))
    return found;
  if (metric_locator_sp found = _recent.find(incoming); is_live_canonical(found)) return found;
  *is_new = true;
  const bool has_id = velmar_metric_locator_get_surrogate_id(incoming.get()) != surrogate::ID_NONE;
  if (!has_id || key.is_force_write()) return incoming;
  // the id it bears was deleted; ids change once only
  return metric_locator_adopt(velmar_metric_locator_clone(incoming.get()));
}

void write_delegate_c::write_entry(write_batch_request_t *request, size_t i) {
  surrogate::write_entry_c &entry = request->entries[i];
  const metric_locator_sp incoming = entry.get_key().get_metric_locator();
  bool is_new = false;
  const metric_locator_sp locator = canonical_of(*request, i, &is_new);
  uint8_t &flags = request->flags[i];
  flags = surrogate::process_update(&entry, incoming, locator);
  uint64_t id = velmar_metric_locator_get_surrogate_id(locator.get());
  if (is_new) {
    const int64_t seconds = entry.get_key().get_timestamp().count() / MS_IN_S;
    if (seconds > 0) velmar_metric_locator_record_activity(locator.get(), static_cast<uint64_t>(seconds));
    if (id == surrogate::ID_NONE)
      velmar_metric_locator_set_surrogate_id(locator.get(), id = _surrogate_id_generator++);
    else
      _surrogate_id_generator = std::max(_surrogate_id_generator, id + 1);
    velmar_metric_locator_set_canonical(locator.get());
    _new_locators.push_back(locator);
    _recent.add(locator, _generation);
    flags = surrogate::UPDATED_ACTIVITY | surrogate::UPDATED_METADATA;
  }
  if (flags & surrogate::UPDATED_METADATA) _encoder_metadata->accept(locator);
  if (flags & surrogate::UPDATED_ACTIVITY) _encoder_activity->accept(locator);
  request->wrc->accept(entry, id);
}

void write_delegate_c::write(write_batch_request_t *request) {
  for (size_t i = 0; i < request->num_entries; ++i) write_entry(request, i);
  _gathers.end(request->gather_ticket);
}

void write_delegate_c::commit_write() {
  const uint64_t activity_file_id = _encoder_activity->empty() ? 0 : _activity_file_id_generator++;
  if (activity_file_id) _encoder_activity->commit(activity_file_id);
  const uint64_t metadata_file_id = _encoder_metadata->empty() ? 0 : _metadata_file_id_generator++;
  if (metadata_file_id) _encoder_metadata->commit(metadata_file_id);
  build_and_accept_data_file(metadata_file_id, activity_file_id);
  if (!_new_locators.empty()) _service.broadcast_locators(std::exchange(_new_locators, {}), _generation++);
  _recent.forget(_gathers.seen_by_all());
}

void write_delegate_c::write_tombstones(std::span<const metric_locator_sp> locators) {
  krel_assert(_encoder_metadata->empty() && _encoder_activity->empty());
  for (const metric_locator_sp &locator : locators) {
    const uint64_t id = velmar_metric_locator_get_surrogate_id(locator.get());
    _encoder_metadata->accept_tombstone(id);
    _encoder_activity->accept_tombstone(id);
  }
  commit_write();
}

void write_delegate_c::build_and_accept_data_file(uint64_t metadata_file_id, uint64_t activity_file_id) {
  if (!metadata_file_id && !activity_file_id) return;
  const file_selection_strategy_c &fss = _codec_factory.get_file_selection_strategy();
  if (metadata_file_id) {
    _encoder_metadata->write_data_to_file(fss, surrogate::metadata, metadata_file_id);
    const surrogate_decoder_sp decoder = _codec_factory.build_metadata_decoder(metadata_file_id);
    _file_id_to_surrogate_decoder.emplace(metadata_file_id, decoder);
    if (_surrogate_compaction_service) _surrogate_compaction_service->accept(decoder);
  }
  if (activity_file_id) {
    _encoder_activity->write_data_to_file(fss, surrogate::activity, activity_file_id);
    const oil_decoder_sp decoder = _codec_factory.build_activity_decoder(activity_file_id);
    _file_id_to_oil_decoder.emplace(activity_file_id, decoder);
    if (_oil_compaction_service) _oil_compaction_service->accept(decoder);
  }
  begin_write();
  update_gauges();
}

// Freeing large buffers takes time that is not the writer's.
void write_delegate_c::begin_write() {
  _gc_executor.submit([metadata = std::move(_encoder_metadata), activity = std::move(_encoder_activity)] {});
  _encoder_metadata = build_encoder(surrogate::metadata);
  _encoder_activity = build_encoder(surrogate::activity);
}

lookup_memento_t write_delegate_c::get_memento() const {
  return {newest_first(_file_id_to_surrogate_decoder), newest_first(_file_id_to_oil_decoder)};
}

void write_delegate_c::update_gauges() {
  const auto set = [](stats_handle_t *gauge, uint64_t count) {
    stats_set(gauge, STATS_TYPE_GAUGE_U64, &count);
  };
  set(_metadata_files_gauge, _file_id_to_surrogate_decoder.size());
  set(_activity_files_gauge, _file_id_to_oil_decoder.size());
}

}  // namespace db::surrogate3
