// Data files of either kind: the first byte says which, the rest is the file.
#include <cstring>
#include <vector>

#include "db/surrogate3/codec/surrogate_codec_factory.h"

using namespace db::surrogate3;

static const metric_locator_sp &some_metric() {
  static const metric_locator_sp metric = [] {
    const uint8_t uuid[16] = {1};
    const mem_reader_t name = {"cpu", 3};
    return metric_locator_adopt(velmar_metric_locator_create(uuid, &name, METRIC_TYPE_NUMERIC));
  }();
  return metric;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  std::vector<uint64_t> aligned((size - 1 + 7) / 8);  // never more than 7 bytes beyond the end
  if (size > 1) memcpy(aligned.data(), data + 1, size - 1);
  const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t *>(aligned.data()), size - 1);
  decode_error_e error;
  if (data[0] & 1) {
    const auto decoder =
        build_decoder(encoded_data_file_c({1, "f", 0, db::surrogate::metadata}, bytes), &error);
    if (!decoder) return 0;
    const size_t n = std::min<size_t>(decoder->get_num_entries(), 1000);
    for (size_t i = 0; i < n; ++i) decoder->build_metric_locator_at(i);
    for (uint64_t id = 0; id < 16; ++id) decoder->build_metric_locator(id);
    decoder->build_metric_locator(decoder->get_max_surrogate_id());
    decoder->get_surrogate_id_from_key(metric_key_c(some_metric().get()));
  } else {
    const auto decoder =
        build_oil_decoder(encoded_data_file_c({1, "f", 0, db::surrogate::activity}, bytes), &error);
    if (!decoder) return 0;
    const size_t n = std::min<size_t>(decoder->get_num_entries(), 1000);
    uint64_t id;
    std::vector<oil_interval_t> pairs;
    for (size_t i = 0; i < n; ++i) decoder->get_oil_at(i, &id, &pairs);
    for (uint64_t i = 0; i < 16; ++i) decoder->find(i);
  }
  return 0;
}
