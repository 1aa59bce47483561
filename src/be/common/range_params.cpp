#include "be/common/range_params.h"

#include <fmt/format.h>

#include "be/common/query_param.h"

namespace velmar_be_common {

bool parse_range_time(krel_http_request_t *request, const char *name, const char *ts_name, uint64_t *out,
                      std::string *error) {
  const exclusive_parse_params_c<uint64_t> param({name, get_time_gm_ms_parser()},
                                                 {ts_name, get_timestamp_s_ms_parser()});
  switch (param.try_parse(request, out)) {
    case param_result_e::ok:
      return true;
    case param_result_e::absent:
      *error = fmt::format("need \"{}\" or \"{}\" argument.", name, ts_name);
      break;
    case param_result_e::conflict:
      *error = fmt::format("only one of \"{}\" or \"{}\" should be provided.", name, ts_name);
      break;
    default:
      *error = fmt::format("could not parse {} time.", name);
  }
  return false;
}

}  // namespace velmar_be_common
