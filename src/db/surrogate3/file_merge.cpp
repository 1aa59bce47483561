// Many small files that follow each other in age become one. The newest of them is set aside under a repair
// name while the merged one takes its id; the older ones go when the merged one is durable. A start after a
// crash in between finds either the repair name, restores it and has all the files as they were, or the merged
// file, whose records hide those of the files not yet removed.
#include <algorithm>

#include "db/surrogate3/codec/fbs_oil_encoder.h"
#include "db/surrogate3/codec/fbs_surrogate_encoder.h"
#include "db/surrogate3/codec/oil_decoder_composite.h"
#include "db/surrogate3/data_files.h"
#include "platform/krel/base/krel_log.h"

namespace db::surrogate3 {

namespace {

using descriptors_t = std::set<data_file_descriptor_t>;

// The longest run of neighbours that is not larger than the budget in sum.
descriptors_t choose_run(const descriptors_t &files, size_t byte_budget) {
  auto begin = files.begin(), best_begin = begin, best_end = begin;
  size_t sum = 0, count = 0, best_count = 0;
  for (auto end = files.begin(); end != files.end(); ++end) {
    sum += end->length;
    ++count;
    for (; sum > byte_budget; ++begin, --count) sum -= begin->length;
    if (count <= best_count) continue;
    best_count = count;
    best_begin = begin;
    best_end = std::next(end);
  }
  return {best_begin, best_end};
}

// Tombstones of ids that a newer file holds again would hide them in the merged file.
void accept_tombstones(surrogate_encoder_c *encoder, const id_set_c &tombstones, const id_set_c &accepted) {
  tombstones.for_each([&](uint64_t id) {
    if (!accepted.contains(id)) encoder->accept_tombstone(id);
  });
}

// What is written, and the files that it views.
struct merged_t {
  std::unique_ptr<surrogate_encoder_c> encoder;  // null: some file cannot be read in whole
  std::vector<surrogate_decoder_sp> inputs;
};

// By the precedence of lookups: the newest record of an id wins, a tombstone hides what is not newer.
merged_t merge_metadata(const descriptors_t &files) {
  merged_t merged;
  auto encoder = std::make_unique<fbs_surrogate_encoder_c>();
  id_set_c tombstones, accepted;
  for (auto file = files.rbegin(); file != files.rend(); ++file) {
    decode_error_e error;
    const surrogate_decoder_sp decoder = build_decoder(encoded_data_file_c(*file), &error);
    if (!decoder) return {};
    merged.inputs.push_back(decoder);
    decoder->load_tombstones(&tombstones);
    surrogate_entry_t entry;
    for (size_t i = 0; i < decoder->get_num_entries(); ++i) {
      if (!decoder->get_entry(i, &entry)) return {};
      if (!tombstones.contains(entry.surrogate_id) && accepted.add_checked(entry.surrogate_id))
        encoder->accept(entry);
    }
  }
  accept_tombstones(encoder.get(), tombstones, accepted);
  merged.encoder = std::move(encoder);
  return merged;
}

merged_t merge_activity(const descriptors_t &files) {
  merged_t merged;
  auto encoder = std::make_unique<fbs_oil_encoder_c>();
  std::vector<oil_decoder_sp> decoders;
  id_set_c tombstones, accepted;
  for (const data_file_descriptor_t &file : files) {
    decode_error_e error;
    decoders.push_back(build_oil_decoder(encoded_data_file_c(file), &error));
    if (!decoders.back()) return {};
    decoders.back()->load_tombstones(&tombstones);
  }
  for (delegate_iterator_c records(decoders); !records.is_done(); records.next()) {
    encoder->accept(records.id(), oil_from_pairs(records.pairs()));
    accepted.add(records.id());
  }
  accept_tombstones(encoder.get(), tombstones, accepted);
  merged.encoder = std::move(encoder);
  return merged;
}

// Empty on success, else what failed.
std::string replace_newest(const file_selection_strategy_c &fss, const data_file_descriptor_t &newest,
                           const surrogate_encoder_c &encoder) {
  util::io::files_c &layer = fss.get_files_layer();
  const std::string repair = newest.name + REPAIR_SUFFIX, directory = fss.get_directory(newest.spec);
  if (const std::error_code error = layer.rename(newest.name, repair)) return error.message();
  std::error_code error = layer.sync_directory(directory);
  std::string failure =
      error ? error.message() : encoder.try_write_data_to_file(fss, newest.spec, newest.file_id);
  if (!failure.empty()) {
    if (layer.rename(repair, newest.name))
      krel_fatal("Unable to restore surrogate file %s: start the node again\n", newest.name.c_str());
    return failure;
  }
  error = layer.unlink(repair);
  if (!error) error = layer.sync_directory(directory);
  if (error) krel_fatal("Unable to remove surrogate file %s: %s\n", repair.c_str(), error.message().c_str());
  return {};
}

}  // namespace

void merge_files(const file_selection_strategy_c &fss, spec_e spec, size_t limit, size_t byte_budget) {
  const descriptors_t all = fss.get_files(spec);
  if (all.size() <= limit) return;
  const descriptors_t files = choose_run(all, byte_budget);
  if (files.size() < 2) return;
  const merged_t merged = spec == surrogate::metadata ? merge_metadata(files) : merge_activity(files);
  if (!merged.encoder) return;  // the load that follows tells why
  const data_file_descriptor_t &newest = *files.rbegin();
  merged.encoder->commit(newest.file_id);
  if (const std::string failure = replace_newest(fss, newest, *merged.encoder); !failure.empty()) {
    krel_log(krel_error, "Unable to merge %zu surrogate files, they stay as they are: %s\n", files.size(),
             failure.c_str());
    return;
  }
  for (const data_file_descriptor_t &file : files)  // oldest first
    if (file.file_id != newest.file_id)
      if (const std::error_code error = fss.get_files_layer().unlink(file.name))
        krel_log(krel_error, "Unable to remove surrogate file %s: %s\n", file.name.c_str(),
                 error.message().c_str());
  if (const std::error_code error = fss.get_files_layer().sync_directory(fss.get_directory(spec)))
    krel_log(krel_error, "Unable to sync directory %s: %s\n", fss.get_directory(spec).c_str(),
             error.message().c_str());
  krel_log(krel_notice, "Merged %zu surrogate files into %s\n", files.size(), newest.name.c_str());
}

}  // namespace db::surrogate3
