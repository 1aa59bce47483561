#pragma once

// GET /raw/<uuid>/<name>, /histogram_raw/<uuid>/<name>, /raw/list_metrics, /histogram/list_metrics.
void rest_raw_get_init();
