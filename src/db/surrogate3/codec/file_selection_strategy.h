#pragma once
// Where the data files are and how they are named.

#include <set>
#include <string>

#include "db/surrogate3/codec/data_file.h"
#include "util/io/files.h"

namespace db::surrogate3 {

class file_selection_strategy_c {
 public:
  virtual ~file_selection_strategy_c() = default;
  virtual std::string get_root_path() const = 0;
  virtual std::string get_directory(spec_e spec) const = 0;
  // Oldest first; files with other names are not among them. A directory that is missing holds none; one that
  // cannot be read ends the process, since a store taken for empty would give its ids out again.
  virtual std::set<data_file_descriptor_t> get_files(spec_e spec) const = 0;
  virtual std::string gen_file_name(spec_e spec, uint64_t file_id) const = 0;
  // Id 0 when the name is not that of a data file.
  virtual data_file_descriptor_t get_file_by_name(spec_e spec, const std::string &name) const = 0;
  virtual util::io::files_c &get_files_layer() const = 0;
};

// <root>/metadata/000000000017, <root>/activity/000000000017
class dir_based_file_selection_strategy_c : public file_selection_strategy_c {
 public:
  explicit dir_based_file_selection_strategy_c(std::string dir_name,
                                               util::io::files_c &files = util::io::system_files())
      : _dir_name(std::move(dir_name)), _files(files) {}

  std::string get_root_path() const override { return _dir_name; }
  std::string get_directory(spec_e spec) const override;
  std::set<data_file_descriptor_t> get_files(spec_e spec) const override;
  std::string gen_file_name(spec_e spec, uint64_t file_id) const override;
  data_file_descriptor_t get_file_by_name(spec_e spec, const std::string &name) const override;
  util::io::files_c &get_files_layer() const override { return _files; }

 private:
  const std::string _dir_name;
  util::io::files_c &_files;
};

}  // namespace db::surrogate3
