#pragma once
// What others hang into the rollup of raw shards: registered at start or by tests, then run by all jobs.

#include "util/metric_locator.h"

namespace db::raw {

// ---- runs at each step of a family's walk: testname is "rollup-step-hook", param1 names the step:
// "start", "record", "cells", "carried", "state", "walked", "done", and of the pass "joined" and "finished"
using rollup_step_hook_f = void (*)(void *closure, const char *testname, const char *param1);
void rollup_step_hook_register(const char *name, rollup_step_hook_f function, void *closure);
void rollup_step_hook_invoke(const char *testname, const char *param1);
bool rollup_step_hook_exists();
// A step of the walk; free when nobody listens.
inline void rollup_step(const char *step) {
  if (rollup_step_hook_exists()) rollup_step_hook_invoke("rollup-step-hook", step);
}

// ---- true: this metric gets no rollups
using suppress_rollup_filter_hook_f = bool (*)(void *closure, const metric_locator_sp &locator);
void suppress_rollup_filter_hook_register(const char *name, suppress_rollup_filter_hook_f function,
                                          void *closure);
bool suppress_rollup_filter_hook_invoke(const metric_locator_sp &locator);

void rollup_hooks_clear();  // tests: forgets all of both kinds; no rollup may be under way

}  // namespace db::raw
