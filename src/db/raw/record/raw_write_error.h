#pragma once
// Why a write of raw samples, or a part of it, was not taken.

#include <cstdint>

#include "db/raw/record/raw_entry.h"

namespace db::raw {

enum raw_write_error_code_e : int {
  RAW_WRITE_ERROR_NONE = 0,
  RAW_WRITE_ERROR_TIMESTAMP = 1,
  RAW_WRITE_ERROR_BACKLOG = 2,
  RAW_WRITE_ERROR_NO_SHARD = 3,
  RAW_WRITE_ERROR_ENTRIES = 4,
};

class raw_write_error_c {
 public:
  raw_write_error_c() = default;
  // `row_count` samples are concerned; `key` is that of one of them, when there is one to name.
  raw_write_error_c(int code, uint64_t row_count, const raw_key_c &key = {})
      : _is_valid(true), _code(code), _row_count(row_count), _key(key) {}

  bool is_valid() const { return _is_valid; }
  int get_code() const { return _code; }
  uint64_t get_row_count() const { return _row_count; }
  const raw_key_c &get_key() const { return _key; }
  const char *get_text() const {
    switch (_code) {
      case RAW_WRITE_ERROR_NONE:
        return "NONE.. this error class was not initialized.";
      case RAW_WRITE_ERROR_TIMESTAMP:
        return "timestamp on write key out of range";
      case RAW_WRITE_ERROR_BACKLOG:
        return "too many jobs on backlog";
      case RAW_WRITE_ERROR_NO_SHARD:
        return "writes not allowed, no shard";
      case RAW_WRITE_ERROR_ENTRIES:
        return "failure in write entries";
      default:
        return "unknown error";
    }
  }

 private:
  bool _is_valid = false;
  int _code = RAW_WRITE_ERROR_NONE;
  uint64_t _row_count = 0;
  raw_key_c _key;
};

}  // namespace db::raw
