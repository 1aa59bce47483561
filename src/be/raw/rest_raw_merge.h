#pragma once

// Registers MERGE /merge/metric. After rest_raw_mgr_init.
void rest_raw_merge_init();
