#pragma once
// GET /raw/rollup and GET /histogram_raw/rollup: roll a shard up now. After the raw stores.
void rest_raw_rollup_init();
