#pragma once

// POST /graphite/<account>/<check uuid>[/<anything>]
void rest_graphite_put_init();
