#pragma once

// POST /raw.
void rest_raw_put_init();
