#pragma once
// From the bytes of a request to batches. The parsers run on threads of "velmar_raw_put_parse", inside a
// memory section, and count what they refuse in the request.

#include <functional>
#include <string>
#include <string_view>

#include "be/raw/raw_batch.h"
#include "be/raw/raw_put_request.h"

namespace be::raw {

enum raw_mgr_flatbuffers_e { RAW_TSV = 0, RAW_FLATBUFFERS_RELAY_V1 = 1, RAW_FLATBUFFERS_DORN = 2 };

// True: the sample is to be dropped. Null: nothing is dropped. Set at start.
using discard_filter_f = bool (*)(int32_t account_id, const velmar_metric_locator_t *locator);
void raw_mgr_set_discard_filter(discard_filter_f filter);
bool raw_mgr_discards(const velmar_metric_locator_t *locator);

// Complete lines, each with its newline; the text is changed. False: the chunk is given up.
bool rest_raw_mgr_parse_ingestion_data(raw_put_request_t *request, known_metrics_c *known, char *text,
                                       size_t length, size_t line_count, raw_batch_t *batch);
// A whole buffer. Batches of at most `batch_size` samples go to `flush` as they fill. False: it does not
// verify; the request's error is set.
bool rest_raw_mgr_parse_flatbuffer(raw_put_request_t *request, known_metrics_c *known,
                                   raw_mgr_flatbuffers_e form, std::string_view bytes, size_t batch_size,
                                   const std::function<void(raw_batch_t &&)> &flush);

}  // namespace be::raw
