#pragma once
// Opens data files and makes the encoders that write them.

#include "db/surrogate3/codec/decoder.h"
#include "db/surrogate3/codec/encoder.h"
#include "db/surrogate3/codec/file_selection_strategy.h"

namespace util::mem {
class allocator_c;
}

namespace db::surrogate3 {

enum class decode_error_e {
  none,
  cut_short,     // the end of the file is missing, as a crash during its writing leaves it
  damaged,       // anything else that a file as we write it cannot hold
  older_format,  // written by an older version
};

surrogate_decoder_sp build_decoder(encoded_data_file_c file, decode_error_e *error);  // null with *error
oil_decoder_sp build_oil_decoder(encoded_data_file_c file, decode_error_e *error);
// The buffer's memory from the allocator, which outlives the encoder, or from the heap.
std::unique_ptr<surrogate_encoder_c> build_encoder(spec_e spec);
std::unique_ptr<surrogate_encoder_c> build_encoder(spec_e spec, util::mem::allocator_c *allocator);

class codec_factory_c {
 public:
  virtual ~codec_factory_c() = default;
  // A file that cannot be decoded ends the process.
  virtual surrogate_decoder_sp build_metadata_decoder(uint64_t file_id) const = 0;
  virtual oil_decoder_sp build_activity_decoder(uint64_t file_id) const = 0;
  virtual const file_selection_strategy_c &get_file_selection_strategy() const = 0;
};

class default_codec_factory_c : public codec_factory_c {
 public:
  explicit default_codec_factory_c(const file_selection_strategy_c &fss) : _fss(fss) {}
  surrogate_decoder_sp build_metadata_decoder(uint64_t file_id) const override;
  oil_decoder_sp build_activity_decoder(uint64_t file_id) const override;
  const file_selection_strategy_c &get_file_selection_strategy() const override { return _fss; }

 private:
  const file_selection_strategy_c &_fss;
};

}  // namespace db::surrogate3
