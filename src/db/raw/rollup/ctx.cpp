#include "db/raw/rollup/ctx.h"

#include <unistd.h>

#include <cstdio>
#include <set>

#include "db/raw/rollup/cumulative_forwarding.h"
#include "platform/krel/base/krel_log.h"
#include "util/io/files.h"

namespace db::raw {

namespace {

constexpr uint64_t DELETE_DELAY_S = 60;
constexpr uint64_t LOGGED_DEFERRALS = 60;  // one line for so many

void run_on(const runner_f &runner, std::function<void()> function) {
  runner ? runner(std::move(function)) : function();
}

}  // namespace

ctx_c::ctx_c(ctx_params_t params)
    : m_params(std::move(params)),
      m_suppressed_metrics(m_params.store.suppression, m_params.store.lookup, m_params.is_any_reconstituting) {
  m_params.factory->set_manager(this);
}

ctx_c::~ctx_c() {
  m_params.factory->set_manager(nullptr);
}

void ctx_c::start() {
  m_params.factory->scan();
  sweep_forwarding();
}

void ctx_c::run(std::function<void()> function) {
  run_on(m_params.delete_runner, std::move(function));
}

void ctx_c::stop() {
  m_stopping = true;
  {
    const krel_lock_c lock(m_delays_mutex);
    for (auto it = m_delays.begin(); it != m_delays.end();) {
      tolv_timed::cb_c *timer = it->second->m_timer.get();
      const bool cancelled = m_params.timer_factory->get_default_runner()->try_cancel(timer);
      it = cancelled ? m_delays.erase(it) : std::next(it);
    }
  }
  const krel_lock_c wait_for_pass(m_rollup_mutex);
}

// ---- rollup

bool ctx_c::can_roll_up(const shard_sp &shard) const {
  const char *const dir = shard->get_dir_name().c_str();
  if (is_reconstituting())
    krel_log(krel_notice, "timeshard skipping rollup for %s - reconstitute in progress\n", dir);
  else if (shard->maintenance_mode() != ONLINE)
    krel_log(krel_notice, "timeshard skipping rollup for %s - shard is offline\n", dir);
  else
    return true;
  return false;
}

void ctx_c::schedule_rollup(const shard_sp &shard) {
  if (can_roll_up(shard))
    hand_to_runner(shard, false);
  else
    m_params.factory->manager_done(shard);
}

void ctx_c::hand_to_runner(const shard_sp &shard, bool forced) {
  krel_log(krel_debug, m_params.rollup_runner ? "timeshard handing off to container rollup runner\n"
                                              : "timeshard does not have a rollup runner\n");
  // leaves the timer's thread for one of the rollup runner
  run_on(m_params.rollup_runner,
         [this, closure = rollup_op_closure_t{shard, forced}] { rollup_asynch_cb(closure); });
}

force_rollup_e ctx_c::force_rollup(uint64_t ts_s) {
  const shard_sp shard =
      ts_s > UINT32_MAX ? nullptr : m_params.factory->find_shard_for_ts_even_if_offline(ts_s * 1000);
  const auto raw = std::dynamic_pointer_cast<raw_shard_c>(shard);
  if (!raw) return force_rollup_e::no_shard;
  if (m_stopping || !can_roll_up(shard)) return force_rollup_e::refused;
  if (!raw->claim_for_rollup()) return force_rollup_e::in_progress;
  shard->get_rollup_progress().mark_clean();
  hand_to_runner(shard, true);
  return force_rollup_e::submitted;
}

// On the rollup runner.
void ctx_c::rollup_asynch_cb(const rollup_op_closure_t &closure) {
  const shard_sp shard = closure.m_shard.lock();
  if (!shard) return;
  const krel_lock_c lock(m_rollup_mutex);
  if (m_stopping) return;
  roll_up(shard, closure.m_forced);
  krel_log(krel_debug, "timeshard released lock for %s so another shard can rollup\n",
           shard->get_dir_name().c_str());
}

void ctx_c::roll_up(const shard_sp &shard, bool forced) {
  const std::string &dir = shard->get_dir_name();
  rollup_pass_t pass;
  pass.store = &m_params.store;
  pass.shard = shard;
  pass.db = shard->get_db();
  pass.forced = forced;
  pass.is_stopping = [this] { return m_stopping.load(std::memory_order_relaxed); };
  shard->get_times(&pass.start_s, &pass.end_s);
  pass.preceding_start_s = preceding_start_s(pass.start_s, pass.end_s);
  const shard_sp next = m_params.factory->find_shard_for(pass.end_s * 1000, MUST_EXIST).shard;
  krel_assert(next != shard);
  pass.next = next;
  if (!pass.db) return rollup_complete_cb(shard, rollup_result_e::aborted);
  if (!(forced ? shard->start_rollup_anyway() : shard->try_start_rollup())) {
    krel_log(krel_notice, "timeshard NOT rolling up DB %s yet because it has been written to\n", dir.c_str());
    return rollup_complete_cb(shard, rollup_result_e::aborted);
  }
  krel_log(krel_notice, "timeshard rolling up DB %s\n", dir.c_str());
  velmar_surrogate_writer_checkpoint();
  const rollup_result_e result = do_rollup(&pass);
  pass.db.reset();  // a delete may follow at once
  rollup_complete_cb(shard, result);
}

// The start of the shard before this one, be it gone already.
uint64_t ctx_c::preceding_start_s(uint64_t start_s, uint64_t end_s) const {
  const shard_sp preceding =
      start_s == 0 ? nullptr : m_params.factory->find_shard_for_ts_even_if_offline((start_s - 1) * 1000);
  const uint64_t length_s = end_s - start_s;
  uint64_t before_s = start_s < length_s ? 0 : start_s - length_s, preceding_end_s;
  if (preceding) preceding->get_times(&before_s, &preceding_end_s);
  return before_s;
}

void ctx_c::rollup_complete_cb(const shard_sp &shard, rollup_result_e result) {
  const char *const dir = shard->get_dir_name().c_str();
  krel_log(krel_debug, "timeshard rollup complete callback for %s\n", dir);
  if (m_stopping) return;  // it goes on after the next start
  if (result == rollup_result_e::finished)
    krel_log(krel_notice, "timeshard completed op for %s - rollup completed\n", dir);
  else if (result == rollup_result_e::dirty)
    krel_log(krel_notice,
             "timeshard completed op for %s - rollup was aborted due to modification of raw shard or write "
             "failure to one or more rollups, rescheduling for later\n",
             dir);
  m_params.factory->manager_done(shard);
}

// Removes what shards that are gone had kept for shards that are gone, too.
void ctx_c::sweep_forwarding() {
  const std::string &directory = m_params.store.forwarding_path;
  std::vector<std::string> names;
  if (directory.empty() || util::io::system_files().list(directory, &names)) return;
  std::set<uint64_t> used;
  m_params.factory->enumerate_shards([&](const shard_sp &shard) {
    uint64_t start_s, end_s;
    shard->get_times(&start_s, &end_s);
    used.insert({start_s, preceding_start_s(start_s, end_s)});
    return true;
  });
  for (const std::string &name : names) {
    unsigned long start_s;
    if (sscanf(name.c_str(), "cumulative_forwarding_%lu_", &start_s) == 1 && !used.count(start_s))
      unlink((directory + "/" + name).c_str());
  }
}

// ---- delete

void ctx_c::schedule_delete(const shard_sp &shard) {
  const char *const dir = shard->get_dir_name().c_str();
  if (is_reconstituting()) {
    krel_log(krel_notice, "timeshard skipping delete for %s - reconstitute in progress\n", dir);
    m_params.factory->ask_again_later(shard);
    return;
  }
  krel_log(krel_debug, "timeshard initiating asynch delete for %s\n", dir);
  run_on(m_params.delete_runner, [this, weak = std::weak_ptr<shard_c>(shard)] { delete_asynch_cb(weak); });
}

// On the delete runner.
void ctx_c::delete_asynch_cb(const std::weak_ptr<shard_c> &weak) {
  const shard_sp shard = weak.lock();
  if (!shard || m_stopping) return;
  if (const char *reason = m_params.get_delete_deferral ? m_params.get_delete_deferral() : nullptr)
    return delay_delete(shard, reason);
  krel_log(krel_debug, "timeshard initiating check for shard delete on %s\n", shard->get_dir_name().c_str());
  m_params.factory->manager_done(shard);
  m_params.factory->try_delete_shard(shard);
}

void ctx_c::delay_delete(const shard_sp &shard, const char *reason) {
  if (m_deferrals++ % LOGGED_DEFERRALS == 0)
    krel_log(krel_notice, "timeshard deferring delete for %s due to %s\n", shard->get_dir_name().c_str(),
             reason);
  auto delay = std::make_unique<delete_delay_t>(delete_delay_t{this, shard, nullptr});
  delete_delay_t *const key = delay.get();
  const auto now_s = static_cast<uint64_t>(m_params.timer_factory->get_clock()->get_time_s());
  const krel_lock_c lock(m_delays_mutex);
  if (m_stopping) return;
  delay->m_timer = m_params.timer_factory->create_cb(delete_delay_cb, key);
  delay->m_timer->set_timeout({static_cast<time_t>(now_s + DELETE_DELAY_S), 0});
  m_delays.emplace(key, std::move(delay));
  m_params.timer_factory->get_default_runner()->schedule(key->m_timer.get());
}

int ctx_c::delete_delay_cb(tolv_timed::cb_c *cb, void *closure, const struct timeval *) {
  auto *const key = static_cast<delete_delay_t *>(closure);
  ctx_c *const self = key->m_container;
  std::unique_ptr<delete_delay_t> delay;
  {
    const krel_lock_c lock(self->m_delays_mutex);
    const auto it = self->m_delays.find(key);
    delay = std::move(it->second);
    self->m_delays.erase(it);
  }
  const int result = cb->returning_free();
  run_on(self->m_params.delete_runner, [self, weak = delay->m_shard] { self->delete_asynch_cb(weak); });
  return result;
}

void ctx_c::shard_deleted(uint64_t start_s, uint64_t end_s) {
  // what the shard before it had kept for it
  const std::string &path = m_params.store.forwarding_path;
  const uint64_t preceding_s = preceding_start_s(start_s, end_s);
  for (size_t family = 0; !path.empty() && family < 8; family++)
    unlink(cumulative_forwarding_path(path, preceding_s, family).c_str());
  clean_rollup_suppressed_metrics();
}

void ctx_c::clean_rollup_suppressed_metrics() {
  if (!m_suppressed_metrics.has_filter()) return;
  const uint64_t end_seconds = m_params.factory->get_suppressed_end_s();
  if (end_seconds == 0) return;
  run_on(m_params.cleanup_runner,
         [this, end_seconds] { m_suppressed_metrics.clean_rollup_suppressed_metrics(end_seconds); });
}

}  // namespace db::raw
