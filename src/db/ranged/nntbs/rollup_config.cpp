#include "db/ranged/nntbs/rollup_config.h"

#include <algorithm>
#include <cstdlib>

#include "platform/krel/base/krel_log.h"

namespace {

constexpr int EXIT_CONFIG = 2;

using configs_t = std::vector<rollup_config_t *>;

bool is_too_late(const rollup_config_t &config, uint64_t since) {
  return since != 0 && config.since > since;
}

// The first of [from, to) that accept takes.
template <typename Iterator, typename Accept>
const rollup_config_t *first_of(Iterator from, Iterator to, uint64_t since, Accept accept) {
  const auto found =
      std::find_if(from, to, [&](const rollup_config_t *c) { return !is_too_late(*c, since) && accept(*c); });
  return found == to ? nullptr : *found;
}

template <typename Iterator>
const rollup_config_t *first_divisor(Iterator from, Iterator to, unsigned period, unsigned *collapse,
                                     uint64_t since) {
  if (period == 0) return nullptr;
  const rollup_config_t *const found = first_of(from, to, since, [&](const rollup_config_t &c) {
    return collapse ? period % c.period == 0 : period == c.period;
  });
  if (found && collapse) *collapse = period / found->period;
  return found;
}

}  // namespace

void rollup_config_init(rollup_config_set_t *set) {
  configs_t &configs = set->configs;
  std::sort(configs.begin(), configs.end(),
            [](const rollup_config_t *a, const rollup_config_t *b) { return a->period < b->period; });
  for (size_t i = 0; i < configs.size(); ++i) {
    rollup_config_t &config = *configs[i];
    config.my_idx = static_cast<int>(i);
    config.parent_idx = -1;
    for (size_t j = i; j-- > 0 && config.parent_idx < 0;)
      if (config.period % configs[j]->period == 0 && config.period != configs[j]->period)
        config.parent_idx = static_cast<int>(j);
    if (i > 0 && config.parent_idx < 0) {
      krel_log(krel_error, "Rollup with period %d can't rollup from any smaller period\n",
               static_cast<int>(config.period));
      krel_log_go_synch();
      exit(EXIT_CONFIG);
    }
  }
}

const rollup_config_t *rollup_config_get_base_rollup(const rollup_config_set_t &set) {
  return set.configs.empty() ? nullptr : set.configs.front();
}

const rollup_config_t *rollup_config_get_rollup_for_period(const rollup_config_set_t &set, unsigned period,
                                                           unsigned *collapse, uint64_t since) {
  return first_divisor(set.configs.rbegin(), set.configs.rend(), period, collapse, since);
}

const rollup_config_t *rollup_config_get_best_rollup_for_period(const rollup_config_set_t &set, unsigned period,
                                                                unsigned *collapse, uint64_t since) {
  const rollup_config_t *const found = first_of(set.configs.rbegin(), set.configs.rend(), since,
                                                [&](const rollup_config_t &c) { return c.period <= period; });
  if (found && collapse) *collapse = period / found->period;
  return found;
}

const rollup_config_t *rollup_config_get_smallest_granularity_for_period(const rollup_config_set_t &set,
                                                                         unsigned period, unsigned *collapse,
                                                                         uint64_t since) {
  return first_divisor(set.configs.begin(), set.configs.end(), period, collapse, since);
}

int rollup_config_get_smallest_rollup_in_system(const rollup_config_set_t &set, uint64_t since) {
  const rollup_config_t *const found =
      first_of(set.configs.begin(), set.configs.end(), since, [](const rollup_config_t &) { return true; });
  return found ? static_cast<int>(found->period) : -1;
}

int rollup_config_get_specific_rollup(const rollup_config_set_t &set, int index) {
  if (index < 0 || static_cast<size_t>(index) >= set.configs.size()) return -1;
  return static_cast<int>(set.configs[static_cast<size_t>(index)]->period);
}

const rollup_config_t *get_best_rollup_for_period_or_base(const rollup_config_set_t &set, unsigned period,
                                                          unsigned *collapse, uint64_t since) {
  if (const rollup_config_t *best = rollup_config_get_best_rollup_for_period(set, period, collapse, since))
    return best;
  if (collapse) *collapse = 1;
  return rollup_config_get_base_rollup(set);
}
