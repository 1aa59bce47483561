#include "db/surrogate3/data_files.h"

#include <fmt/format.h>

#include "platform/krel/base/krel_log.h"

namespace db::surrogate3 {

namespace {

// These steps cannot be skipped: a store whose files are not in order must not be used.
void require(const std::error_code &error, const char *what, const std::string &path) {
  if (error) krel_fatal("Unable to %s %s: %s\n", what, path.c_str(), error.message().c_str());
}

void sync_directory(const file_selection_strategy_c &fss, spec_e spec) {
  const std::string directory = fss.get_directory(spec);
  require(fss.get_files_layer().sync_directory(directory), "sync directory", directory);
}

void rename_file(const file_selection_strategy_c &fss, const std::string &from, const std::string &to) {
  require(fss.get_files_layer().rename(from, to), "rename file", from);
}

// With the directories above it that are missing.
void make_durable_directory(util::io::files_c &files, const std::string &path) {
  if (files.exists(path)) return;
  const std::string parent = util::io::parent_directory(path);
  make_durable_directory(files, parent);
  require(files.mkdir(path), "create directory", path);
  require(files.sync_directory(parent), "sync directory", parent);
}

decode_error_e try_decode(const data_file_descriptor_t &file) {
  decode_error_e error;
  if (file.spec == surrogate::metadata)
    build_decoder(encoded_data_file_c(file), &error);
  else
    build_oil_decoder(encoded_data_file_c(file), &error);
  return error;
}

}  // namespace

void make_directories(const file_selection_strategy_c &fss) {
  for (const spec_e spec : {surrogate::metadata, surrogate::activity})
    make_durable_directory(fss.get_files_layer(), fss.get_directory(spec));
}

void restore_repair_files(const file_selection_strategy_c &fss, spec_e spec) {
  const std::string directory = fss.get_directory(spec);
  std::vector<std::string> names;
  require(fss.get_files_layer().list(directory, &names), "open directory", directory);
  bool any = false;
  for (const std::string &name : names) {
    const size_t at = name.find(REPAIR_SUFFIX);
    if (at == std::string::npos) continue;
    const std::string original = name.substr(0, at);
    if (original + REPAIR_SUFFIX != name || original.find_first_not_of("0123456789") != std::string::npos)
      krel_fatal("Unexpected file %s/%s: move it away\n", directory.c_str(), name.c_str());
    krel_log(krel_notice, "Restoring surrogate file %s/%s\n", directory.c_str(), name.c_str());
    rename_file(fss, directory + "/" + name, directory + "/" + original);
    any = true;
  }
  if (any) sync_directory(fss, spec);
}

void remove_empty_files(const file_selection_strategy_c &fss, spec_e spec) {
  bool any = false;
  for (const data_file_descriptor_t &file : fss.get_files(spec)) {
    if (file.length != 0) continue;
    krel_log(krel_notice, "Removing empty surrogate file %s\n", file.name.c_str());
    require(fss.get_files_layer().unlink(file.name), "remove file", file.name);
    any = true;
  }
  if (any) sync_directory(fss, spec);
}

void set_cut_file_aside(const file_selection_strategy_c &fss, spec_e spec) {
  const std::set<data_file_descriptor_t> files = fss.get_files(spec);
  if (files.empty()) return;
  const data_file_descriptor_t &newest = *files.rbegin();
  if (try_decode(newest) != decode_error_e::cut_short) return;
  std::string aside = newest.name + DAMAGED_SUFFIX;
  for (int i = 1; fss.get_files_layer().exists(aside); ++i)
    aside = fmt::format("{}{}.{}", newest.name, DAMAGED_SUFFIX, i);
  rename_file(fss, newest.name, aside);
  sync_directory(fss, spec);
  krel_log(
      krel_error,
      "File %s ends too early: the node stopped while it was written. None of it was acknowledged. It is kept "
      "as %s and can be deleted.\n",
      newest.name.c_str(), aside.c_str());
}

void resequence_files(const file_selection_strategy_c &fss, spec_e spec) {
  uint64_t place = 0, last = 0;
  bool any = false;
  for (const data_file_descriptor_t &file : fss.get_files(spec)) {
    krel_assert(file.file_id > last);
    last = file.file_id;
    if (file.file_id == ++place) continue;
    rename_file(fss, file.name, fss.gen_file_name(spec, place));
    any = true;
  }
  if (any) sync_directory(fss, spec);
}

}  // namespace db::surrogate3
