#pragma once
// Content codings of responses: what the client accepts, and the encoder.

#include <string_view>

#include "platform/krel/base/krel_compress.h"
#include "platform/krel/http/http_segments.h"

// The best of the codings allowed (bits of krel_http_response_option_e) by an Accept-Encoding header:
// the highest q wins, the first named among equals, gzip for "*". KREL_COMPRESS_NONE: none.
krel_compress_type_e http_accepted_encoding(std::string_view accept_encoding, int allowed);

// Encodes into a queue. One thread at a time. Contexts are kept by the threads for the next response.
class http_encoder_c {
 public:
  ~http_encoder_c() { stop(); }
  bool start(krel_compress_type_e type);
  void stop();
  explicit operator bool() const { return m_context != nullptr; }
  // False when the coder fails. What comes out goes to the end of `out`.
  bool encode(const void *bytes, size_t length, http_queue_c &out);
  bool flush(http_queue_c &out);
  bool finish(http_queue_c &out);

 private:
  using step_t = int (*)(krel_stream_compress_ctx_t *ctx, void *out, size_t *out_size);
  bool run(step_t step, http_queue_c &out);

  krel_stream_compress_ptr m_context;
};
