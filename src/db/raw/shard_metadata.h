#pragma once
// What a shard's directory tells of itself besides its database: is it there, and has it been rolled up
// ("meta.was_rolled")? Without state of its own. Blocking.

#include <string>

namespace db::raw {

class shard_metadata_read_c {
 public:
  virtual ~shard_metadata_read_c() = default;
  virtual bool check_exists(const std::string &dir) const = 0;
  virtual bool check_was_rolled(const std::string &dir) const = 0;
};

class shard_metadata_impl_c : public shard_metadata_read_c {
 public:
  bool check_exists(const std::string &dir) const override;
  bool check_was_rolled(const std::string &dir) const override;
  // On disk when it returns. False, and a line in the log, when it cannot be changed.
  bool set_was_rolled(const std::string &dir, bool value) const;
};

}  // namespace db::raw
