// The stored form: what decodes encodes to the same bytes, apart from bins without samples.

#include <cstdlib>
#include <memory>
#include <string>

#include "platform/tolvllhist/tolvllhist.h"

namespace {
struct deleter_t {
  void operator()(histogram_t *hist) const { hist_free(hist); }
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::unique_ptr<histogram_t, deleter_t> hist(hist_alloc());
  if (hist_deserialize(hist.get(), data, size) < 0) {
    if (hist_num_buckets(hist.get()) != 0) abort();
    return 0;
  }
  bool empty_bins = false;
  for (int i = 0; i < hist_num_buckets(hist.get()); ++i) {
    hist_bucket_t bucket;
    uint64_t count;
    if (!hist_bucket_idx_bucket(hist.get(), i, &bucket, &count) || !hist_bucket_is_valid(bucket)) abort();
    empty_bins |= count == 0;
  }
  std::string bytes(hist_serialize_estimate(hist.get()), '\0');
  if (hist_serialize(hist.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) abort();
  if (!empty_bins && bytes != std::string(reinterpret_cast<const char *>(data), size)) abort();

  const double shares[] = {0, 0.5, 0.99, 1};
  double out[4];
  hist_approx_quantile(hist.get(), shares, 4, out);
  hist_approx_inverse_quantile(hist.get(), out, 0, out);
  hist_approx_stddev(hist.get());
  std::unique_ptr<histogram_t, deleter_t> coarse(hist_compress_mbe(hist.get(), static_cast<int8_t>(size)));
  const histogram_t *source = hist.get();
  hist_accumulate(coarse.get(), &source, 1);
  hist_subtract(coarse.get(), &source, 1);
  return 0;
}
