#include "be/hist/hist_stream.h"

#include <gtest/gtest.h>

namespace {

TEST(hist_stream, bins_as_text_or_hex_with_time_and_period) {
  histogram_t *hist = hist_alloc();
  hist_insert(hist, 0.125, 3);
  hist_insert(hist, -7, 1);
  std::string out;
  hist_stream_t stream;
  hist_stream(&out, &stream, 1700000000999, 0, hist);
  stream.format = HIST_FORMAT_HEX;
  hist_stream(&out, &stream, 60000, 60, hist);
  hist_stream_null(&out, &stream, 120000, 60);
  EXPECT_EQ(out,
            "[1700000000,{\"-70e-001\":1,\"+12e-002\":3}],\n"
            "[60,60,{\"0xba00\": 1,\"0x0cff\": 3}],\n[120,60,null]");
  hist_free(hist);
}

}  // namespace
