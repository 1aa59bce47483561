#include "db/raw/raw_shard_factory.h"

#include <algorithm>
#include <filesystem>

#include "db/raw/scanner.h"
#include "platform/krel/base/krel_log.h"
#include "util/io/file_helpers.h"

namespace db::raw {

namespace {

constexpr std::chrono::milliseconds STORAGE_TIMEOUT{10000};
constexpr uint64_t DELETE_RETRY_S = 30;

}  // namespace

raw_shard_factory_c::raw_shard_factory_c(const raw_shard_factory_params_t &params)
    : m_params(params), _granule_adjust(params.max_clock_skew_s, params.granularity_s) {
  krel_assert(params.granularity_s > 0);
}

raw_shard_factory_c::~raw_shard_factory_c() {
  close_all();
}

void raw_shard_factory_c::scan() {
  scanner::scan_disk_for_shards(m_params.basedir,
                                [this](uint64_t start_s, uint64_t end_s, const std::string &dir) {
                                  found_shard_dir(start_s, end_s, dir);
                                });
}

void raw_shard_factory_c::found_shard_dir(uint64_t start_s, uint64_t end_s, const std::string &) {
  const auto lock = _shard_cache.acquire_dir_lock(start_s);
  const shard_sp shard = shard_create_private(start_s, end_s, MUST_EXIST, true);
  if (shard && !_shard_cache.insert(shard))
    krel_log(krel_error, "%s: shard %s overlaps another one and is left alone. Move one of the two away\n",
             m_params.description.c_str(), shard->get_dir_name().c_str());
}

// Under the directory's lock.
shard_sp raw_shard_factory_c::shard_create_private(uint64_t start_s, uint64_t end_s, open_type_e open_type,
                                                   bool at_start) {
  raw_shard_params_t params;
  params.dir_name = fmt::format("{}/{}-{}", m_params.basedir, start_s, end_s);
  params.start_s = start_s;
  params.end_s = end_s;
  params.quiescent_age_s = m_params.rollup_after_quiescent_age_s;
  params.startup_rollup_delay_s = m_params.startup_rollup_delay_s;
  params.db_factory = m_params.db_factory;
  params.timer_factory = m_params.timer_factory;
  params.manager = [this] { return _manager.load(); };
  params.rolls_up = m_params.rolls_up;
  if (open_type == MUST_EXIST && !_metadata_read.check_exists(params.dir_name)) return nullptr;
  if (util::io::mkdir_for_file(params.dir_name + "/dummy")) {
    krel_log(krel_error, "attempt to create folder shard for time range: %s; failed.\n",
             params.dir_name.c_str());
    return nullptr;
  }
  const auto shard = std::make_shared<raw_shard_c>(params);
  if (!shard->open_database()) {
    if (!at_start) krel_fatal("Cannot open or create timeshard at: %s\n", params.dir_name.c_str());
    krel_log(
        krel_error,
        "Cannot open or create timeshard at: %s. Its samples cannot be read and none are taken for its time. "
        "Restore the directory from a backup, or move it away to begin anew: the node looks again every "
        "minute\n",
        params.dir_name.c_str());
    shard->request_maintenance_mode(OFFLINE, STORAGE_TIMEOUT);
    const krel_lock_c lock(m_failed_mutex);
    m_failed.push_back(shard);
    return shard;
  }
  shard->start_timer();
  return shard;
}

void raw_shard_factory_c::reopen_failed() {
  std::vector<std::shared_ptr<raw_shard_c>> failed;
  {
    const krel_lock_c lock(m_failed_mutex);
    failed.swap(m_failed);
  }
  std::erase_if(failed, [](const auto &shard) {
    return shard->maintenance_mode() != OFFLINE || shard->request_maintenance_mode(ONLINE, STORAGE_TIMEOUT).ok;
  });
  const krel_lock_c lock(m_failed_mutex);
  m_failed.insert(m_failed.end(), failed.begin(), failed.end());
}

found_shard_t raw_shard_factory_c::find_shard_for(uint64_t ts_ms, open_type_e open_type) {
  found_shard_t found = _shard_cache.find(ts_ms / 1000);
  if (found.shard) {
    if (found.shard->maintenance_mode() != ONLINE) found.shard = nullptr;
    return found;
  }
  if (open_type == MUST_EXIST) return found;
  uint64_t start = found.start_s, end = found.end_s;
  if (!_granule_adjust.try_adjust(ts_ms, now_s(), &start, &end)) return found;
  const auto lock = _shard_cache.acquire_dir_lock(start);
  // a shard that another thread has made in the meantime wins
  found_shard_t again = _shard_cache.find(ts_ms / 1000);
  if (again.shard) return again;
  const shard_sp shard = shard_create_private(start, end, CREATE_IF_MISSING, false);
  if (shard && _shard_cache.insert(shard)) return {shard, start, end};
  return found;
}

shard_sp raw_shard_factory_c::find_shard_for_ts_even_if_offline(uint64_t ts_ms) const {
  return _shard_cache.find(ts_ms / 1000).shard;
}

bool raw_shard_factory_c::shards_exist(uint64_t start_s, uint64_t end_s) const {
  const shard_sp shard = _shard_cache.next_at_or_after(start_s);
  if (!shard) return false;
  uint64_t first, last;
  shard->get_times(&first, &last);
  return first < end_s;
}

void raw_shard_factory_c::manager_done(const shard_sp &shard) {
  const auto raw = std::dynamic_pointer_cast<raw_shard_c>(shard);
  krel_assert(raw && raw->in_manager() != IN_MANAGER_NO);
  switch (raw->in_manager()) {
    case IN_MANAGER_ROLLUP_START: {
      const uint64_t when = raw->calc_rollup_timeout().first;
      krel_log(krel_notice, "timeshard reschedule rollup to %ld for %s\n", static_cast<long>(when),
               raw->get_dir_name().c_str());
      raw->adjust_timeout(when);
      break;
    }
    case IN_MANAGER_ROLLUP_RUNNING:
      raw->set_in_manager(IN_MANAGER_DELETE_ELIGIBLE);
      if (shard_manager_c *manager = _manager.load()) manager->schedule_delete(shard);
      break;
    case IN_MANAGER_DELETE_ELIGIBLE:
      raw->set_in_manager(IN_MANAGER_DELETE);
      break;
    default:
      break;
  }
}

// True: the delete must wait until *when_s.
bool raw_shard_factory_c::calc_delete_timeout(raw_shard_c *shard, uint64_t *when_s) const {
  const uint64_t now = now_s();
  const nom_rollup_progress_c &progress = shard->get_rollup_progress();
  if (progress.is_dirty() || !progress.is_finished() ||
      !_metadata_read.check_was_rolled(shard->get_dir_name())) {
    *when_s = now + m_params.rollup_after_quiescent_age_s;
    krel_log(krel_notice,
             "timeshard shard is dirty, rescheduling delete after a rollup quiescent time at %lu.%06d\n",
             static_cast<unsigned long>(*when_s), 0);
    return true;
  }
  uint64_t start, end;
  shard->get_times(&start, &end);
  *when_s = end + m_params.min_delete_age_s;
  if (*when_s > now) return true;
  *when_s = now + DELETE_RETRY_S;
  return false;
}

void raw_shard_factory_c::try_delete_shard(const shard_sp &shard) {
  const auto raw = std::dynamic_pointer_cast<raw_shard_c>(shard);
  if (!raw) {
    krel_ex_log(krel_error, "{}: unable to cast shared_ptr for shard `{}` to `raw_shard_c`\n",
                "try_delete_shard", shard->get_dir_name());
    return;
  }
  const bool dirty = raw->get_rollup_progress().is_dirty();
  uint64_t when;
  if (calc_delete_timeout(raw.get(), &when)) {
    krel_log(krel_notice,
             dirty ? "timeshard deferring delete on %s because shard has been written to\n"
                   : "timeshard deferring delete on %s because it is not yet time\n",
             raw->get_dir_name().c_str());
    raw->adjust_timeout(when);
    return;
  }
  if (!delete_shard(raw)) raw->adjust_timeout(when);
}

bool raw_shard_factory_c::delete_shard(const shard_sp &shard) {
  const auto raw = std::dynamic_pointer_cast<raw_shard_c>(shard);
  const auto result = raw->request_maintenance_mode(OFFLINE_CLOSED_PENDING_DELETE, STORAGE_TIMEOUT);
  if (!result.ok) {
    krel_ex_log(krel_error, "{}: unable to set shard `{}` to `OFFLINE_CLOSED_PENDING_DELETE`: {}\n",
                "try_delete_shard", raw->get_dir_name(), result.message);
    return false;
  }
  uint64_t start, end;
  raw->get_times(&start, &end);
  if (!close_underlying_storage_for_delete(raw)) return false;
  if (shard_manager_c *manager = _manager.load()) manager->shard_deleted(start, end);
  return true;
}

bool raw_shard_factory_c::close_underlying_storage_for_delete(const std::shared_ptr<raw_shard_c> &shard) {
  uint64_t start, end;
  shard->get_times(&start, &end);
  const auto lock = _shard_cache.acquire_dir_lock(start);
  const std::string &dir = shard->get_dir_name();
  const std::string name = std::filesystem::path(dir).filename().string();
  krel_assert(scanner::parse_shard_file_name(name, &start, &end) != scanner::parse_result_e::not_recognized);
  shard->stop_timer();
  _shard_cache.remove(shard);
  const auto [code, renamed] = util::io::rename_for_delete(dir);
  if (code) {
    krel_ex_log(krel_error, "Error renaming \"{}\" to \"{}\" for delete: {} - {}\n", dir, renamed, code.value(),
                code.message());
    krel_ex_log(krel_error, "{}: shard `{}` could not be deleted. manual deletion will be necessary\n",
                "try_delete_shard", dir);
    return false;
  }
  krel_log(krel_notice, "timeshard deleting DB %s\n", renamed.c_str());
  std::error_code remove_code;
  std::filesystem::remove_all(renamed, remove_code);
  if (remove_code)
    krel_log(krel_error, "timeshard failed to delete DB %s (%d - %s)\n", renamed.c_str(), remove_code.value(),
             remove_code.message().c_str());
  return true;
}

void raw_shard_factory_c::ask_again_later(const shard_sp &shard) {
  if (const auto raw = std::dynamic_pointer_cast<raw_shard_c>(shard))
    raw->adjust_timeout(now_s() + m_params.rollup_after_quiescent_age_s);
}

uint64_t raw_shard_factory_c::get_suppressed_end_s() const {
  const uint64_t kept_s =
      std::max(m_params.delete_after_quiescent_age_s, m_params.rollup_after_quiescent_age_s) +
      m_params.min_delete_age_s;
  const uint64_t min_time = now_s() < kept_s ? 0 : now_s() - kept_s;
  uint64_t earliest = 0;
  _shard_cache.for_each([&](const shard_sp &shard) {
    uint64_t times[2];
    shard->get_times(&times[0], &times[1]);
    for (const uint64_t boundary : times)
      if (boundary > min_time && (earliest == 0 || boundary < earliest)) earliest = boundary;
    return true;
  });
  return earliest;
}

void raw_shard_factory_c::close_all() {
  _shard_cache.for_each([](const shard_sp &shard) {
    if (auto *raw = dynamic_cast<raw_shard_c *>(shard.get())) {
      raw->stop_timer();
      raw->close_underlying_storage(STORAGE_TIMEOUT);
    }
    return true;
  });
}

}  // namespace db::raw
