#pragma once
// The node's statistics recorder. All calls are safe from any thread.

#include "platform/tolvmetrics/stats.h"

// One recorder for the process, made on first use, tagged "application:velmar"; it is never freed.
stats_recorder_t *velmar_stats_get_recorder();
// The statistic of a dotted name, "be.raw.gates.put_start": namespaces, then the name behind the last dot.
// Made when missing; null when the name is taken by a statistic of another kind.
stats_handle_t *velmar_stats_get_handle(const char *name, int type);
// The namespace of a dotted path, made when missing.
stats_ns_t *velmar_stats_get_ns(const char *path);
// Registers the namespace "process" (resource figures of this process) and "uptime" (seconds from this call).
void velmar_stats_register_process();
