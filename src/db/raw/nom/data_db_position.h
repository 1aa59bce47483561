#pragma once
// A reading position of the NOM database, from find to close.

#include <memory>

#include "db/raw/nom/iter_wrapper.h"
#include "db/raw/nom/nonest.h"
#include "db/raw/nom/raw_iter.h"

struct stats_handle_t;

namespace velmar_db_raw_nom {

struct position_t : db::raw::raw_iter_asynch_c {
  position_t(db::raw::raw_iter_found_f found_callback, void *found_closure)
      : raw_iter_asynch_c(this), found(found_callback), closure(found_closure) {}
  void publish(stats_handle_t *tuples);

  const db::raw::raw_iter_found_f found;
  void *const closure;
  std::unique_ptr<iter_wrapper_c> iter;  // none at the end of data
  velmar_db_nonest::impl_c guard;
};

}  // namespace velmar_db_raw_nom
