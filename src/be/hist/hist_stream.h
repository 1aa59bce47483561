#pragma once
// Histograms as JSON, one element of an answer's array a slot.

#include <cstdint>
#include <string>

#include "platform/tolvllhist/tolvllhist.h"

enum hist_format { HIST_FORMAT_DOUBLE = 0, HIST_FORMAT_HEX = 1 };

struct hist_stream_t {
  hist_format format = HIST_FORMAT_DOUBLE;
  bool started = false;  // an element was already written
};

// Appends "[time,{bins}]", with a comma before all but the first; with a period (seconds, not 0)
// "[time,period,{bins}]". offset_ms is printed in whole seconds. Bins are "text":count, or "0x" and four hex
// digits of val and exp.
void hist_stream(std::string *out, hist_stream_t *stream, uint64_t offset_ms, uint32_t period_s,
                 const histogram_t *hist);
// The same with null in the place of the bins.
void hist_stream_null(std::string *out, hist_stream_t *stream, uint64_t offset_ms, uint32_t period_s);
