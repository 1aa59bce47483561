#include "db/ranged/nntbs/shard/storage_error.h"

#include <lmdb.h>

#include <string>

namespace db::ranged::nntbs {

namespace {

class category_c final : public std::error_category {
 public:
  const char *name() const noexcept override { return "storage_error"; }
  std::string message(int code) const override {
    switch (static_cast<storage_errc_e>(code)) {
      case storage_errc_e::floor_too_low:
        return "the time lies below the least time that shards are made for";
      case storage_errc_e::no_period_settings:
        return "the period is not configured";
      case storage_errc_e::open_failed:
        return "the shard cannot be opened";
      case storage_errc_e::wrong_mode:
        return "the shard is offline";
      default:
        return mdb_strerror(code);
    }
  }
};

}  // namespace

const std::error_category &storage_error_category() {
  static const category_c category;
  return category;
}

}  // namespace db::ranged::nntbs
