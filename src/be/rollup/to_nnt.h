#pragma once
// What a ranged reader gives, as an NNT1 image in an unnamed temporary file.

#include <optional>

#include "db/ranged/ranged.h"
#include "libvelmar/nnt/nnt.h"

namespace velmar_be_rollup {

class to_nnt_factory_c {
 public:
  enum error_e : int { SUCCESS = 0, ERROR_ROLLUP_SPAN_UNITS = 1, ERROR_NNT_OPEN = 2, ERROR_ERRNO = 3 };
  static const char *error_text(error_e error);

  struct result_t {
    error_e error = ERROR_ERRNO;
    nnt_readfast_up view;  // null: it failed, logged
    bool has_run = false;  // the reader gave something
    // why the reader failed, if it did
    db::kv::code_e read_error = db::kv::code_e::NONE;
  };
  // Reads the key's range to its end. A run of a coarser span that the key's divides fills several slots with
  // each of its cells. Blocks.
  static result_t from_ranged_reader(const db::kv::ranged_c::key_c &key, const db::kv::ranged_reader_c &reader);
};

}  // namespace velmar_be_rollup
