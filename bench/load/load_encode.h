#pragma once
// Turns samples into the body of a request. One encoder a thread; buffers are reused from batch to batch.

#include <memory>
#include <string_view>

#include "load_data.h"

class load_encoder_c {
 public:
  virtual ~load_encoder_c() = default;
  virtual void begin() = 0;
  // `steps` consecutive samples of one series, from `step`.
  virtual void add(uint64_t series, uint64_t step, uint64_t steps) = 0;
  // Valid until the next begin().
  virtual std::string_view end() = 0;
  virtual const char *content_type() const = 0;
};

// Names are worked out once, for the series in [first, first + count).
std::unique_ptr<load_encoder_c> make_encoder(form_e form, const load_data_c &data, uint64_t first,
                                             uint64_t count);
std::unique_ptr<load_encoder_c> make_graphite_encoder(const load_data_c &data, uint64_t first, uint64_t count);
std::unique_ptr<load_encoder_c> make_text_encoder(const load_data_c &data, uint64_t first, uint64_t count);
