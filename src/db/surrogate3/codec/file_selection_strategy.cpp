#include "db/surrogate3/codec/file_selection_strategy.h"

#include <charconv>

#include "platform/krel/base/krel_log.h"

namespace db::surrogate3 {

std::string dir_based_file_selection_strategy_c::get_directory(spec_e spec) const {
  return _dir_name + (spec == surrogate::metadata ? "/metadata" : "/activity");
}

std::string dir_based_file_selection_strategy_c::gen_file_name(spec_e spec, uint64_t file_id) const {
  char name[32];
  snprintf(name, sizeof name, "/%.012lu", static_cast<unsigned long>(file_id));
  return get_directory(spec) + name;
}

data_file_descriptor_t dir_based_file_selection_strategy_c::get_file_by_name(spec_e spec,
                                                                             const std::string &name) const {
  uint64_t id = 0;
  const char *end = name.data() + name.size();
  const auto [stop, error] = std::from_chars(name.data(), end, id);
  const std::string path = get_directory(spec) + "/" + name;
  // exactly the one spelling that an id is written in
  if (error != std::errc() || stop != end || gen_file_name(spec, id) != path) return {};
  data_file_descriptor_t file{id, path, 0, spec};
  struct stat st;
  if (const std::error_code failed = _files.stat(path, &st))
    krel_fatal("Can't stat file %s: %s\n", path.c_str(), failed.message().c_str());
  file.length = static_cast<size_t>(st.st_size);
  return file;
}

std::set<data_file_descriptor_t> dir_based_file_selection_strategy_c::get_files(spec_e spec) const {
  std::vector<std::string> names;
  std::set<data_file_descriptor_t> files;
  const std::string directory = get_directory(spec);
  if (const std::error_code error = _files.list(directory, &names)) {
    if (error == std::errc::no_such_file_or_directory) return files;
    krel_fatal("Unable to open directory %s: %s\n", directory.c_str(), error.message().c_str());
  }
  for (const std::string &name : names) {
    data_file_descriptor_t file = get_file_by_name(spec, name);
    if (file.file_id != 0) files.insert(std::move(file));
  }
  return files;
}

}  // namespace db::surrogate3
