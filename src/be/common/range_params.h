#pragma once
// Parameters that reads of a span of time share.

#include <cstdint>
#include <string>

#include "platform/krel/http/krel_http.h"

namespace velmar_be_common {

// A time in milliseconds from the parameter `name` (time text) or `ts_name` (seconds), of which exactly one is
// given. False with the text for the client.
bool parse_range_time(krel_http_request_t *request, const char *name, const char *ts_name, uint64_t *out,
                      std::string *error);

}  // namespace velmar_be_common
