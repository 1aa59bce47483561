#pragma once
// What one connection sends through: requests that are answered, or a stream that is not. One thread.

#include <memory>
#include <string_view>

#include "load_send.h"

class load_link_c {
 public:
  virtual ~load_link_c() = default;
  // One batch, and its counts into the result. False: it failed or some of it was refused.
  virtual bool send(std::string_view body, uint64_t count, connection_result_t *result) = 0;
  // All has been sent. False: nothing shows that it arrived.
  virtual bool finish(connection_result_t *) { return true; }
};

// `result` says which series are the connection's.
std::unique_ptr<load_link_c> make_link(const load_options_t &options, const load_data_c &data,
                                       const connection_result_t &result, const char *content_type);
