#pragma once

// Sets the version statistics, registers the process figures, and the routes GET /stats.json and GET /metrics.
void velmar_stats_init();
// A text statistic of the global namespace, such as "identity".
void velmar_stats_set_text(const char *name, const char *value);
