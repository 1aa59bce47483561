#pragma once

// GET /rollup/<uuid>/<name>, and the readers behind it (db/ranged/readers.h). After the stores have been
// opened.
void rest_rollup_get_init();
void rest_rollup_get_close();  // after the last request
