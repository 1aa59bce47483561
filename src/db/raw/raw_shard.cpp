#include "db/raw/raw_shard.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "db/raw/record/raw_write_error.h"
#include "platform/krel/base/krel_log.h"
#include "util/io/file_helpers.h"

namespace db::raw {

namespace {

constexpr std::chrono::milliseconds CLOSE_POLL{5};

}  // namespace

raw_shard_c::raw_shard_c(const raw_shard_params_t &params)
    : m_params(params),
      m_quiescent(params.dir_name, static_cast<uint64_t>(params.timer_factory->get_clock()->get_time_s())),
      m_progress(params.dir_name),
      m_timer_runner(params.timer_factory->get_round_robin_runner()) {}

raw_shard_c::~raw_shard_c() {
  stop_timer();
}

bool raw_shard_c::open_database() {
  _db = m_params.db_factory->open(m_params.dir_name, m_params.start_s);
  return _db != nullptr;
}

std::shared_ptr<raw_rollable_c> raw_shard_c::get_db() {
  const shared_lock_t lock(_db_mux);
  return _db;
}

// ---- reading

// Null with the reason: it is not to be read now.
std::shared_ptr<raw_rollable_c> raw_shard_c::get_online_db(std::string *error) {
  auto db = maintenance_mode() == ONLINE ? get_db() : nullptr;
  if (!db) *error = fmt::format("the shard is {}", shard_maintenance_mode_to_string(maintenance_mode()));
  return db;
}

void raw_shard_c::find_asynch(const raw_key_c &key, raw_reader_seek_e seek, raw_iter_found_f found,
                              void *closure) {
  std::string text;
  if (const auto db = get_online_db(&text))
    return db->get_reader_asynch()->find_asynch(key, seek, found, closure);
  raw_error_reader_c error(std::move(text));
  found(nullptr, &error, closure);
}

bool raw_shard_c::read_numeric(uint64_t surrogate_id, uint64_t start_ms, uint64_t end_ms,
                               const numeric_samples_f &on_samples, std::string *error) {
  const auto db = get_online_db(error);
  return db && db->get_reader_asynch()->read_numeric(surrogate_id, start_ms, end_ms, on_samples, error);
}

std::optional<nom_sample_t> raw_shard_c::find_last_numeric(uint64_t surrogate_id, uint64_t from_ms,
                                                           uint64_t before_ms, nulls_e nulls,
                                                           std::string *error) {
  const auto db = get_online_db(error);
  if (!db) return {};
  return db->get_reader_asynch()->find_last_numeric(surrogate_id, from_ms, before_ms, nulls, error);
}

void raw_shard_c::accumulate_all_primary_keys(const std::function<void(uint64_t)> &accumulator) {
  if (const auto db = get_db()) db->get_reader_asynch()->accumulate_all_primary_keys(accumulator);
}

bool raw_shard_c::stream_for_reconstitute(uint64_t start_s, uint64_t end_s, void *closure,
                                          send_metric_f send_metric, send_block_f send_block) {
  const auto db = get_db();
  return db &&
         db->get_reader_asynch()->stream_for_reconstitute(start_s, end_s, closure, send_metric, send_block);
}

// ---- writing

// Holds the shard's lock and marks the shard dirty before the write's end is reported: no kill can lose a
// repeat of its rollup. (The mark before the write may have been taken back by a rollup that began meanwhile.)
class raw_shard_c::wrote_wrap_closure_c : public is_raw_write_closure_t {
 public:
  wrote_wrap_closure_c(std::shared_ptr<raw_shard_c> shard, shared_lock_t &&lock,
                       is_raw_write_closure_t *closure)
      : m_shard(std::move(shard)), _lock_to_hold(std::move(lock)), _closure(closure) {}
  void on_success() override { _closure->on_success(); }
  void on_error(const raw_write_error_c &error) override { _closure->on_error(error); }
  void on_complete() override {
    m_shard->mark_dirty();
    _closure->on_complete();
    delete this;
  }

 private:
  const std::shared_ptr<raw_shard_c> m_shard;
  shared_lock_t _lock_to_hold;
  is_raw_write_closure_t *const _closure;
};

template <typename Write>
void raw_shard_c::write(size_t count, is_raw_write_closure_t *closure, Write write_to) {
  shared_lock_t lock(_db_mux);
  if (!_db || maintenance_mode() != ONLINE) {
    closure->on_error(raw_write_error_c(RAW_WRITE_ERROR_NO_SHARD, count));
    closure->on_complete();
    return;
  }
  raw_writer_asynch_c *writer = _db->get_writer_asynch();
  mark_dirty();
  m_quiescent.set_last_write_ts(now_s());
  write_to(writer, new wrote_wrap_closure_c(shared_from_this(), std::move(lock), closure));
}

void raw_shard_c::write_set_asynch(raw_entry_c *entries, size_t count, is_raw_write_closure_t *closure) {
  write(count, closure,
        [&](raw_writer_asynch_c *w, is_raw_write_closure_t *c) { w->write_set_asynch(entries, count, c); });
}

void raw_shard_c::write_prev_set_asynch(raw_entry_c *entries, size_t count, is_raw_write_closure_t *closure) {
  write(count, closure, [&](raw_writer_asynch_c *w, is_raw_write_closure_t *c) {
    w->write_prev_set_asynch(entries, count, c);
  });
}

void raw_shard_c::write_numeric_asynch(std::span<const nom_sample_t> samples, is_raw_write_closure_t *closure) {
  write(samples.size(), closure,
        [&](raw_writer_asynch_c *w, is_raw_write_closure_t *c) { w->write_numeric_asynch(samples, c); });
}

// ---- modes and storage

bool raw_shard_c::open_underlying_storage(std::chrono::milliseconds timeout) {
  std::unique_lock<std::shared_timed_mutex> lock(_db_mux, timeout);
  if (!lock.owns_lock()) return false;
  if (util::io::mkdir_for_file(m_params.dir_name + "/dummy")) {
    krel_ex_log(krel_error, "{}: attempt to create folder shard for time range: {}; failed.\n",
                "open_underlying_storage", m_params.dir_name);
    return false;
  }
  if (!_db) _db = m_params.db_factory->open(m_params.dir_name, m_params.start_s);
  if (!_db) {
    krel_ex_log(krel_error, "{}: cannot reopen or create timeshard at: {}\n", "open_underlying_storage",
                m_params.dir_name);
    return false;
  }
  lock.unlock();
  const uint64_t when = calc_rollup_timeout().first;
  krel_log(krel_notice, "timeshard online. reschedule rollup to %ld for %s\n", static_cast<long>(when),
           m_params.dir_name.c_str());
  schedule_timeout(when);
  return true;
}

bool raw_shard_c::close_underlying_storage(std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  std::unique_lock<std::shared_timed_mutex> lock(_db_mux, timeout);
  if (!lock.owns_lock()) return false;
  // reads and the rollup hold the database by references of their own and let go of it soon
  const std::weak_ptr<raw_rollable_c> weak = std::exchange(_db, nullptr);
  while (const auto still_used = weak.lock()) {
    if (std::chrono::steady_clock::now() >= end) {
      _db = still_used;
      return false;
    }
    std::this_thread::sleep_for(CLOSE_POLL);
  }
  return true;
}

request_maintenance_result_t raw_shard_c::request_maintenance_mode(shard_maintenance_mode_e mode,
                                                                   std::chrono::milliseconds timeout) {
  const std::string &dir = m_params.dir_name;
  std::unique_lock<std::timed_mutex> lock(_maintenance_mode_mutex, timeout);
  if (!lock.owns_lock())
    return {false, fmt::format("unable to acquire maintenance mode lock for shard `{}` within timeout ({})",
                               dir, timeout.count())};
  if (mode == OFFLINE_PENDING)
    return {false,
            fmt::format("`OFFLINE_PENDING` is an internal mode that should not be set directly for shard `{}`.",
                        dir)};
  const shard_maintenance_mode_e current = maintenance_mode();
  if (mode == current) return {};
  if (current == OFFLINE_PENDING || current == OFFLINE_CLOSED_PENDING_DELETE)
    return {false, fmt::format("shard `{}` is `{}` and can not change maintenance modes.", dir,
                               shard_maintenance_mode_to_string(current))};
  if (mode == ONLINE && (current == OFFLINE_RECONSTITUTE || current == OFFLINE_CORRUPTED))
    return {false, fmt::format("cannot bring shard `{}` online because current mode is `{}`.", dir,
                               shard_maintenance_mode_to_string(current))};
  if (mode == ONLINE) {
    if (!open_underlying_storage(timeout))
      return {false, fmt::format("cannot open the storage of shard `{}`.", dir)};
    _maintenance_mode = mode;
    return {};
  }
  _maintenance_mode = OFFLINE_PENDING;
  if (!close_underlying_storage(timeout)) {
    _maintenance_mode = current;
    return {false,
            fmt::format("cannot close the storage of shard `{}` within timeout ({})", dir, timeout.count())};
  }
  _maintenance_mode = mode;
  return {};
}

// ---- timers

uint64_t raw_shard_c::first_rollup_s() {
  const uint64_t base = std::max(now_s(), m_params.end_s);
  const uint64_t last_write = m_quiescent.get_last_write_ts();
  if (m_progress.rollup_in_progress()) {
    const uint64_t when = base + std::min(m_params.startup_rollup_delay_s, m_params.quiescent_age_s);
    krel_log(krel_notice, "timeshard %s was rolling up, scheduling resume at %lu.%06d\n",
             m_params.dir_name.c_str(), static_cast<unsigned long>(when), 0);
    return when;
  }
  if (m_quiescent.is_new_shard() || last_write == 0 || last_write >= base)
    return base + m_params.quiescent_age_s;
  return std::max(last_write + m_params.quiescent_age_s, base + m_params.startup_rollup_delay_s);
}

void raw_shard_c::start_timer() {
  const uint64_t when = first_rollup_s();
  m_quiescent.clear_new_shard();
  schedule_timeout(when);
}

void raw_shard_c::schedule_timeout(uint64_t when_s) {
  const std::lock_guard lock(m_timer_mutex);
  arm_timer(when_s);
}

void raw_shard_c::arm_timer(uint64_t when_s) {
  if (m_stopped || !m_params.rolls_up) return;
  cancel_timer();
  // the callback holds the shard weakly: a timer never keeps a deleted shard
  m_timer =
      m_params.timer_factory->create_cb(rollup_timeout_cb, new std::weak_ptr<raw_shard_c>(weak_from_this()));
  m_timer->set_timeout({static_cast<time_t>(when_s), 0});
  m_timer_runner->schedule(m_timer.get());
}

void raw_shard_c::stop_timer() {
  const std::lock_guard lock(m_timer_mutex);
  m_stopped = true;
  cancel_timer();
}

void raw_shard_c::cancel_timer() {
  if (m_timer && m_timer_runner->try_cancel(m_timer.get()))
    delete static_cast<std::weak_ptr<raw_shard_c> *>(m_timer->get_closure());
  m_timer.reset();
}

std::pair<uint64_t, bool> raw_shard_c::calc_rollup_timeout() {
  return {now_s() + m_params.quiescent_age_s, m_progress.is_dirty()};
}

int raw_shard_c::rollup_timeout_cb(tolv_timed::cb_c *cb, void *closure, const struct timeval *) {
  const std::unique_ptr<std::weak_ptr<raw_shard_c>> weak(static_cast<std::weak_ptr<raw_shard_c> *>(closure));
  if (const auto shard = weak->lock()) {
    if (shard_manager_c *manager = shard->m_params.manager())
      manager->run([shard] { shard->timed_out(); });
    else
      shard->timed_out();
  }
  return cb->returning_free();
}

bool raw_shard_c::claim_for_rollup() {
  in_manager_e no = IN_MANAGER_NO;
  return _in_manager.compare_exchange_strong(no, IN_MANAGER_ROLLUP_START);
}

// The dirty mark tells whether the shard was written since its timer was armed. It is the manager's while a
// rollup runs.
void raw_shard_c::timed_out() {
  if (!claim_for_rollup()) return;
  const auto [when, dirty] = calc_rollup_timeout();
  shard_manager_c *manager = m_params.manager();
  if (!dirty && manager) {
    manager->schedule_rollup(shared_from_this());
    return;
  }
  krel_log(krel_debug, "timeshard is not quiescent, rescheduling for %s\n", m_params.dir_name.c_str());
  if (dirty) m_progress.mark_clean();
  _in_manager = IN_MANAGER_NO;
  schedule_timeout(when);
}

void raw_shard_c::mark_dirty() {
  // the timer of a shard that was rolled up may be weeks away
  if (m_progress.mark_dirty()) schedule_timeout(now_s() + m_params.quiescent_age_s);
}

bool raw_shard_c::try_start_rollup() {
  return !m_progress.is_dirty() && start_rollup_anyway();
}

bool raw_shard_c::start_rollup_anyway() {
  _in_manager = IN_MANAGER_ROLLUP_RUNNING;
  return true;
}

void raw_shard_c::adjust_timeout(uint64_t when_s) {
  m_progress.mark_clean();
  _in_manager = IN_MANAGER_NO;
  // under the lock that mark_dirty takes behind its mark: whichever is later finds what the other has done
  const std::lock_guard lock(m_timer_mutex);
  arm_timer(m_progress.is_finished() ? when_s : std::min(when_s, now_s() + m_params.quiescent_age_s));
}

}  // namespace db::raw
