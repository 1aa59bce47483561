#pragma once
// Reads metadata files in place.

#include "db/surrogate3/codec/decoder.h"
#include "db/surrogate3/codec/surrogate_codec_factory.h"

namespace db::surrogate3 {

class fbs_surrogate_decoder_c : public surrogate_decoder_c {
 public:
  // *error tells whether the file can be read; if not, the decoder must not be used.
  fbs_surrogate_decoder_c(encoded_data_file_c data_file, decode_error_e *error);
  ~fbs_surrogate_decoder_c() override;

  bool is_right_type(spec_e spec) const override { return spec == surrogate::metadata; }
  uint64_t get_file_id() const override { return _data_file.get_data_file_descriptor().file_id; }
  const encoded_data_file_c &get_data_file() const override { return _data_file; }
  size_t get_num_entries() const override;
  void load_tombstones(id_set_c *out) const override { out->merge(_all_tombstones); }
  uint64_t get_max_surrogate_id() const override { return _max_surrogate_id; }
  bool needs_migration() const override { return false; }  // older formats are not opened
  uint64_t get_surrogate_id_from_key(const metric_key_c &key) const override;
  metric_locator_sp build_metric_locator(uint64_t id) const override;
  metric_locator_sp build_metric_locator_at(size_t index) const override;
  bool get_entry(size_t index, surrogate_entry_t *out) const override;
  bool has_tombstone(uint64_t id) const override { return _all_tombstones.contains(id); }

 private:
  struct tables_t;  // the root table, its vectors and its hash table
  decode_error_e open();
  bool has_true_bounds();
  bool read_entry(size_t index, surrogate_entry_t *out) const;
  size_t index_of(uint64_t id) const;

  encoded_data_file_c _data_file;
  std::unique_ptr<tables_t> _d;
  uint64_t _min_surrogate_id = 0;
  uint64_t _max_surrogate_id = 0;
  uint64_t _first_id = 0;  // of the entries
  bool _is_dense = false;  // their ids have no gap: an id's index is its distance from the first
  id_set_c _all_tombstones;
};

}  // namespace db::surrogate3
