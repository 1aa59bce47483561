// Construction, readers' files, and lookups of one metric.
#include "db/surrogate3/coordinator.h"

#include <bit>

#include "db/surrogate3/delegate_split.h"
#include "platform/krel/base/krel_log.h"

namespace db::surrogate3 {

namespace {

uint32_t callback_threads(uint32_t num_threads) {
  return std::max(num_threads, 8u);
}

uint32_t require_power_of_two(uint32_t num_threads) {
  if (!std::has_single_bit(num_threads)) krel_fatal("num_threads must be a power of two\n");
  return num_threads;
}

}  // namespace

coordinator_c::coordinator_c(const coordinator_config_t &config, std::unique_ptr<file_selection_strategy_c> fss)
    : _max_page_size(std::max<size_t>(config.max_page_size, 1)),
      _num_threads(require_power_of_two(config.num_threads)),
      _capacity_per_reader_shard(config.capacity_per_reader_shard),
      _file_selection_strategy(std::move(fss)),
      _gc_executor("gc", 1),
      _jobq_callbacks("sur_cb", callback_threads(_num_threads), util::concurrency::default_idle_strategy,
                      util::concurrency::executor_queues_e::shared),
      _jobq_delegates("sur_dl", _num_threads),
      _jobq_writer("sur_wr", 1) {
  for (uint32_t i = 0; i < _num_threads; ++i)
    _delegates.push_back(std::make_unique<lookup_delegate_c>(i, _capacity_per_reader_shard));
  _surrogate_write_delegate =
      std::make_unique<write_delegate_c>(*_file_selection_strategy, *this, _gathers, _gc_executor);
}

// Each kind of work is ended before what it hands on to.
coordinator_c::~coordinator_c() {
  _jobq_writer.close();
  _jobq_delegates.close();
  _jobq_callbacks.close();
  _gc_executor.close();
}

void coordinator_c::prime_cache() {
  krel_log(krel_notice, "Initializing surrogate cache...\n");
  submit_on(_jobq_writer, [this] { _surrogate_write_delegate->load_all_files(); });
  krel_log(krel_notice, "Initializing surrogate cache... Done.\n");
}

// Other bits than those that place a metric inside its reader's tables.
uint32_t coordinator_c::choose_delegate(const velmar_metric_locator_t *ml) const {
  const uint64_t hash = metric_locator_key_hasher_t()(ml);
  return static_cast<uint32_t>(hash >> 32 & (_num_threads - 1));
}

// ---- what the writer tells the readers
void coordinator_c::replace_decoders(std::vector<surrogate_decoder_sp> decoders, uint64_t max_surrogate_id) {
  size_t metrics = 0;
  for (const surrogate_decoder_sp &decoder : decoders) metrics += decoder->get_num_entries();
  const size_t expected = (metrics + metrics / 4) / _num_threads;
  for (uint32_t i = 0; i < _num_threads; ++i)
    _jobq_delegates.submit(
        [this, i, decoders, max_surrogate_id, expected]() mutable {
          auto old = _delegates[i]->replace_decoders(std::move(decoders), max_surrogate_id, expected);
          _delegates[i]->settle();
          _gc_executor.submit([gone = std::move(old)] {});
        },
        i);
}

void coordinator_c::replace_decoders(std::vector<oil_decoder_sp> decoders) {
  for (uint32_t i = 0; i < _num_threads; ++i)
    _jobq_delegates.submit(
        [this, i, decoders]() mutable {
          auto old = _delegates[i]->replace_decoders(std::move(decoders));
          _gc_executor.submit([gone = std::move(old)] {});
        },
        i);
}

void coordinator_c::broadcast_locators(std::vector<metric_locator_sp> locators, uint64_t generation) {
  struct broadcast_t {
    std::vector<metric_locator_sp> locators;
    std::vector<places_t> by_key, by_id;
    std::atomic<uint32_t> left;
  };
  auto broadcast = std::make_shared<broadcast_t>();
  broadcast->locators = std::move(locators);
  const auto &all = broadcast->locators;
  broadcast->by_key = split(all.size(), [&](size_t i) { return choose_delegate(all[i].get()); });
  broadcast->by_id = split(all.size(), [&](size_t i) {
    return choose_delegate(velmar_metric_locator_get_surrogate_id(all[i].get()));
  });
  broadcast->left = _num_threads;
  for (uint32_t i = 0; i < _num_threads; ++i)
    _jobq_delegates.submit(
        [this, i, broadcast, generation] {
          for (const uint32_t place : broadcast->by_key[i])
            _delegates[i]->accept_locator_by_key(broadcast->locators[place]);
          for (const uint32_t place : broadcast->by_id[i])
            _delegates[i]->accept_locator_by_id(broadcast->locators[place]);
          _delegates[i]->settle();
          // each reader takes generations in order, so the last to be done vouches for all before
          if (broadcast->left.fetch_sub(1) == 1) _gathers.set_accepted(generation);
        },
        i);
}

// ---- one metric
std::optional<uint64_t> coordinator_c::find(const metric_locator_sp &locator) {
  if (const uint64_t id = velmar_metric_locator_get_surrogate_id(locator.get())) return id;
  const uint32_t number = choose_delegate(locator.get());
  const auto found = submit_on(
      _jobq_delegates,
      [&] {
        const auto answer = _delegates[number]->find_surrogate(locator.get(), true);
        _delegates[number]->settle();
        return answer.id;
      },
      number);
  return found == surrogate::ID_NONE ? std::nullopt : std::optional(found);
}

metric_locator_sp coordinator_c::find_reverse(uint64_t id) {
  if (id == surrogate::ID_NONE) return nullptr;
  return submit_on(
      _jobq_delegates, [&] { return find_locator_on_delegate(id); }, choose_delegate(id));
}

// On the thread of the delegate that the id selects.
metric_locator_sp coordinator_c::find_locator_on_delegate(uint64_t id) {
  std::vector<metric_locator_sp> built;
  lookup_delegate_c &delegate = *_delegates[choose_delegate(id)];
  metric_locator_sp locator = delegate.find_locator(id, &built);
  hand_to_readers_by_key(std::move(built));
  delegate.settle();
  return locator;
}

void coordinator_c::hand_to_readers_by_key(std::vector<metric_locator_sp> built) {
  if (built.empty()) return;
  const std::vector<places_t> places =
      split(built.size(), [&](size_t i) { return choose_delegate(built[i].get()); });
  for (uint32_t i = 0; i < _num_threads; ++i) {
    if (places[i].empty()) continue;
    std::vector<metric_locator_sp> share;
    share.reserve(places[i].size());
    for (const uint32_t place : places[i]) share.push_back(built[place]);
    _jobq_delegates.submit(
        [this, i, share = std::move(share)] {
          for (const metric_locator_sp &locator : share) _delegates[i]->accept_locator_by_key(locator);
          _delegates[i]->settle();
        },
        i);
  }
}

void coordinator_c::find_surrogate_asynch(const metric_locator_sp &locator,
                                          void (*callback)(const uint64_t *, void *), void *closure) {
  if (const uint64_t id = velmar_metric_locator_get_surrogate_id(locator.get())) {
    callback(&id, closure);
    return;
  }
  const auto answer = [this, locator, callback, closure](uint64_t id, const metric_locator_sp &stored) {
    if (stored) {
      velmar_metric_locator_set_type(locator.get(), velmar_metric_locator_get_type(stored.get()));
      velmar_metric_locator_set_surrogate_id(locator.get(), id);
    }
    _jobq_callbacks.submit(
        [callback, closure, id, known = bool(stored)] { callback(known ? &id : nullptr, closure); });
  };
  const uint32_t number = choose_delegate(locator.get());
  const bool taken = _jobq_delegates.submit(
      [this, number, locator, answer] {
        const auto found = _delegates[number]->find_surrogate(locator.get(), true);
        _delegates[number]->settle();
        if (found.id == surrogate::ID_NONE || found.locator) return answer(found.id, found.locator);
        // the readers may be closing while this one ends its work
        if (!_jobq_delegates.submit([this, id = found.id, answer] { answer(id, find_locator_on_delegate(id)); },
                                    choose_delegate(found.id)))
          answer(surrogate::ID_NONE, nullptr);
      },
      number);
  krel_assert(taken);
}

void coordinator_c::find_surrogate_reverse_asynch(uint64_t id,
                                                  void (*callback)(const metric_locator_sp &, void *),
                                                  void *closure) {
  const bool taken = _jobq_delegates.submit(
      [this, id, callback, closure] {
        _jobq_callbacks.submit(
            [callback, closure, locator = find_locator_on_delegate(id)] { callback(locator, closure); });
      },
      choose_delegate(id));
  krel_assert(taken);
}

}  // namespace db::surrogate3
