#pragma once
// Raw entries lie in a room of their own, so that the database below this one can take them.

#include "db/raw/record/raw_entry.h"  // IWYU pragma: export
