#pragma once
// Reads activity files in place.

#include "db/surrogate3/codec/decoder.h"
#include "db/surrogate3/codec/surrogate_codec_factory.h"

namespace db::surrogate3 {

class fbs_oil_decoder_c : public oil_decoder_c {
 public:
  // *error tells whether the file can be read; if not, the decoder must not be used.
  fbs_oil_decoder_c(encoded_data_file_c data_file, decode_error_e *error);
  ~fbs_oil_decoder_c() override;

  bool is_right_type(spec_e spec) const override { return spec == surrogate::activity; }
  uint64_t get_file_id() const override { return _data_file.get_data_file_descriptor().file_id; }
  const encoded_data_file_c &get_data_file() const override { return _data_file; }
  size_t get_num_entries() const override;
  void load_tombstones(id_set_c *out) const override { out->merge(_tombstones); }
  uint64_t get_max_surrogate_id() const override { return _max_surrogate_id; }
  bool needs_migration() const override { return false; }
  oil_ptr find(uint64_t id) const override;
  bool get_oil_at(size_t index, uint64_t *id, std::vector<oil_interval_t> *pairs) const override;

 private:
  struct tables_t;  // the root table's vectors
  decode_error_e open();
  bool has_true_bounds() const;

  encoded_data_file_c _data_file;
  std::unique_ptr<tables_t> _oils;
  uint64_t _min_surrogate_id = 0;
  uint64_t _max_surrogate_id = 0;
  id_set_c _tombstones;
};

}  // namespace db::surrogate3
