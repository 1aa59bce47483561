#pragma once
// A reading position of the NOM database, from find to close.

#include <memory>

#include "db/raw/nom/iter_wrapper.h"
#include "db/raw/nom/nonest.h"
#include "db/raw/nom/raw_iter.h"

struct stats_handle_t;

namespace velmar_db_raw_nom {

struct position_t : db::raw::raw_iter_asynch_c {
  position_t(db::raw::raw_iter_found_f found_callback, void *found_closure, uint64_t shard_start_ms)
      : raw_iter_asynch_c(this), found(found_callback), closure(found_closure), first_ms(shard_start_ms) {}
  void publish(stats_handle_t *tuples);

  const db::raw::raw_iter_found_f found;
  void *const closure;
  const uint64_t first_ms;               // what lies before it was carried over and is not shown
  std::unique_ptr<iter_wrapper_c> iter;  // none at the end of data
  velmar_db_nonest::impl_c guard;
};

}  // namespace velmar_db_raw_nom
