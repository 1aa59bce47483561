#pragma once
#include <string>

#include "load_send.h"

struct verify_result_t {
  uint64_t metrics = 0, samples = 0, lost = 0, wrong = 0, failed_reads = 0;
  double seconds = 0;
  std::string first_difference;
  bool good() const { return lost + wrong + failed_reads == 0; }
};

// Reads the chosen share of the metrics back over as many connections as sent them. `progress` runs now and
// then, on the thread of the first connection.
verify_result_t verify(const load_options_t &options, const load_data_c &data, const load_sender_c &sent,
                       void (*progress)(uint64_t done, uint64_t of));
