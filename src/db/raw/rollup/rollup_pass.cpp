#include "db/raw/rollup/rollup_pass.h"

#include <algorithm>
#include <string>

#include "db/raw/rollup/family_state.h"
#include "db/raw/rollup/family_walk.h"
#include "db/raw/rollup/rollup_hooks.h"
#include "db/raw/shard_metadata.h"
#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/tolvmetrics/stats.h"
#include "util/concurrency/libvelmar_join.h"
#include "util/concurrency/single_barrier.h"
#include "util/velmar_stats.h"

namespace db::raw {

namespace {

// Periods of whose cells the shard would hold only a part at its ends belong to shards of another size.
void choose_targets(rollup_pass_t *pass) {
  pass->targets.clear();
  for (rollup_target_c *target : pass->store->targets) {
    const unsigned period_s = target->get_period_s();
    if (pass->start_s % period_s == 0 && pass->end_s % period_s == 0)
      pass->targets.push_back(target);
    else
      krel_log(krel_error, "shard %s does not hold whole cells of %u s: it is not rolled up to that period\n",
               pass->shard->get_dir_name().c_str(), period_s);
  }
}

void run_families(const rollup_pass_t &pass, size_t families) {
  util::concurrency::single_barrier_c ended{1};
  const libvelmar_join_t joiner = libvelmar_join_create(
      [](void *closure) { static_cast<util::concurrency::single_barrier_c *>(closure)->count_down(); }, &ended);
  libvelmar_join_raise(joiner, static_cast<uint32_t>(families));
  for (size_t family = 0; family < families; family++) {
    // leaves the step's thread for one of the family runner
    const auto job = [&pass, family, joiner] {
      rollup_column_family(pass, family);
      libvelmar_join_one(joiner);
    };
    pass.store->family_runner ? pass.store->family_runner(job) : job();
  }
  libvelmar_join_commit(joiner);
  ended.wait();
}

// When all jobs have ended.
rollup_result_e rollup_joiner_cb(const rollup_pass_t &pass, size_t families, const krel_perftimer_t &timer) {
  const std::string &dir = pass.shard->get_dir_name();
  nom_rollup_progress_c &progress = pass.shard->get_rollup_progress();
  rollup_step("joined");
  size_t done = 0;
  for (size_t family = 0; family < families; family++) done += family_state_c(dir, family).is_done();
  if (done != families && pass.is_aborted()) {
    krel_log(krel_notice, "timeshard rollup of %s is cut short and goes on later\n", dir.c_str());
    return rollup_result_e::aborted;
  }
  if (done != families) pass.shard->mark_dirty();
  if (progress.is_dirty() && done == families)
    krel_log(krel_notice,
             "Timeshard %s rollup completed, but must be repeated because new metric data arrived for this "
             "shard %lu-%lu\n",
             pass.store->kind_name(), pass.start_s, pass.end_s);
  stats_set_hist_intscale(pass.store->stats.latency, krel_perftimer_elapsed(&timer), -9, 1);
  progress.mark_finished();
  if (progress.is_finished()) shard_metadata_impl_c().set_was_rolled(dir, true);
  rollup_step("finished");
  family_state_c::wipe(dir, families);
  return progress.is_finished() ? rollup_result_e::finished : rollup_result_e::dirty;
}

}  // namespace

rollup_stats_t rollup_stats(nomdb_type_e kind) {
  const std::string ns = kind == NUMERIC ? "db.raw.rollup." : "db.hist_shard.rollup.";
  const auto handle = [&](const char *name, int type) {
    return velmar_stats_get_handle((ns + name).c_str(), type);
  };
  return {handle("metrics", STATS_TYPE_COUNTER), handle("samples", STATS_TYPE_COUNTER),
          handle("errors", STATS_TYPE_COUNTER), handle("histogram_errors", STATS_TYPE_COUNTER),
          handle("latency", STATS_TYPE_HISTOGRAM)};
}

rollup_result_e do_rollup(rollup_pass_t *pass) {
  const std::string &dir = pass->shard->get_dir_name();
  nom_rollup_progress_c &progress = pass->shard->get_rollup_progress();
  const size_t families = pass->db->get_num_families();
  krel_assert(families > 0);
  if (progress.is_finished() && !progress.is_dirty()) {
    for (size_t family = 0; family < families; family++)
      krel_log(krel_debug,
               "timeshard column family %zu notes that %s timeshard rollup was fully finished for %lu-%lu\n",
               family, pass->store->kind_name(), pass->start_s, pass->end_s);
    shard_metadata_impl_c().set_was_rolled(dir, true);
    return rollup_result_e::finished;
  }
  krel_log(krel_notice, "timeshard doing nomdb rollup for %lu-%lu\n", pass->start_s, pass->end_s);
  krel_perftimer_t timer;
  krel_perftimer_start(&timer);
  if (!progress.rollup_in_progress()) family_state_c::wipe(dir, families);
  choose_targets(pass);
  progress.start_rollup();
  run_families(*pass, families);
  return rollup_joiner_cb(*pass, families, timer);
}

}  // namespace db::raw
