// Many small files become one. The newest file is set aside under a repair name while the merged one takes its
// id; the older ones go when the merged one is durable. A start after a crash in between finds either the
// repair name, restores it and has all the files as they were, or the merged file, whose records hide those of
// the files not yet removed.
#include <algorithm>

#include "db/surrogate3/codec/fbs_oil_encoder.h"
#include "db/surrogate3/codec/fbs_surrogate_encoder.h"
#include "db/surrogate3/codec/oil_decoder_composite.h"
#include "db/surrogate3/data_files.h"
#include "platform/krel/base/krel_log.h"
#include "util/io/file_mmap_allocator.h"

namespace db::surrogate3 {

namespace {

using descriptors_t = std::set<data_file_descriptor_t>;
// Buffers above this are kept in mapped files of their own.
constexpr size_t HEAP_BUFFER_MAX = 256 << 20;

size_t total_length(const descriptors_t &files) {
  size_t sum = 0;
  for (const data_file_descriptor_t &file : files) sum += file.length;
  return sum;
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
merged_t merge_metadata(const descriptors_t &files, util::mem::allocator_c *allocator) {
  merged_t merged;
  auto encoder = std::make_unique<fbs_surrogate_encoder_c>(allocator);
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

merged_t merge_activity(const descriptors_t &files, util::mem::allocator_c *allocator) {
  merged_t merged;
  auto encoder = std::make_unique<fbs_oil_encoder_c>(allocator);
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

void merge_files(const file_selection_strategy_c &fss, spec_e spec, size_t limit) {
  const descriptors_t files = fss.get_files(spec);
  if (files.size() <= limit) return;
  std::unique_ptr<util::mem::file_mmap_allocator_c> scratch;
  if (total_length(files) > HEAP_BUFFER_MAX)
    scratch = std::make_unique<util::mem::file_mmap_allocator_c>(fss.get_root_path() + "/scratch");
  const merged_t merged =
      spec == surrogate::metadata ? merge_metadata(files, scratch.get()) : merge_activity(files, scratch.get());
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
