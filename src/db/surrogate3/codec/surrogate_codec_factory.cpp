#include "db/surrogate3/codec/surrogate_codec_factory.h"

#include "db/surrogate3/codec/fbs_oil_decoder.h"
#include "db/surrogate3/codec/fbs_oil_encoder.h"
#include "db/surrogate3/codec/fbs_surrogate_decoder.h"
#include "db/surrogate3/codec/fbs_surrogate_encoder.h"
#include "platform/krel/base/krel_log.h"

namespace db::surrogate3 {

namespace {

encoded_data_file_c open_file(const file_selection_strategy_c &fss, spec_e spec, uint64_t file_id) {
  return encoded_data_file_c({file_id, fss.gen_file_name(spec, file_id), 0, spec});
}

const char *reason_of(decode_error_e error) {
  switch (error) {
    case decode_error_e::cut_short:
      return "its end is missing";
    case decode_error_e::older_format:
      return "it is of an older format";
    default:
      return "it is damaged";
  }
}

void explain(const encoded_data_file_c &file, decode_error_e error) {
  krel_log(krel_error, "Cannot use %s: %s. Restore it from a backup, or move it away and lose what it holds.\n",
           file.get_data_file_descriptor().name.c_str(), reason_of(error));
}

}  // namespace

surrogate_decoder_sp build_decoder(encoded_data_file_c file, decode_error_e *error) {
  auto decoder = std::make_shared<fbs_surrogate_decoder_c>(std::move(file), error);
  return *error == decode_error_e::none ? decoder : nullptr;
}

oil_decoder_sp build_oil_decoder(encoded_data_file_c file, decode_error_e *error) {
  auto decoder = std::make_shared<fbs_oil_decoder_c>(std::move(file), error);
  return *error == decode_error_e::none ? decoder : nullptr;
}

std::unique_ptr<surrogate_encoder_c> build_encoder(spec_e spec) {
  return build_encoder(spec, nullptr);
}

std::unique_ptr<surrogate_encoder_c> build_encoder(spec_e spec, util::mem::allocator_c *allocator) {
  if (spec == surrogate::metadata) return std::make_unique<fbs_surrogate_encoder_c>(allocator);
  return std::make_unique<fbs_oil_encoder_c>(allocator);
}

surrogate_decoder_sp default_codec_factory_c::build_metadata_decoder(uint64_t file_id) const {
  decode_error_e error;
  auto decoder =
      std::make_shared<fbs_surrogate_decoder_c>(open_file(_fss, surrogate::metadata, file_id), &error);
  if (error == decode_error_e::none) return decoder;
  explain(decoder->get_data_file(), error);
  krel_fatal("Unable to decode surrogate file %zu\n", static_cast<size_t>(file_id));
}

oil_decoder_sp default_codec_factory_c::build_activity_decoder(uint64_t file_id) const {
  decode_error_e error;
  auto decoder = std::make_shared<fbs_oil_decoder_c>(open_file(_fss, surrogate::activity, file_id), &error);
  if (error == decode_error_e::none) return decoder;
  explain(decoder->get_data_file(), error);
  krel_fatal("Unable to decode oil file %zu\n", static_cast<size_t>(file_id));
}

}  // namespace db::surrogate3
