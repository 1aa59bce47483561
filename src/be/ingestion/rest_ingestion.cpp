#include "be/ingestion/rest_ingestion.h"

#include <string>
#include <string_view>

#include "be/common/ingestion_path.h"
#include "platform/krel/base/krel_log.h"
#include "rest/rest_result.h"

namespace {

using be::common::ingestion_path_e;

// "raw-off" and the like; false when the word is none of them.
bool apply_control(std::string_view control) {
  for (const ingestion_path_e path :
       {ingestion_path_e::all, ingestion_path_e::raw, ingestion_path_e::graphite, ingestion_path_e::opentsdb})
    for (const bool on : {true, false})
      if (control == std::string(be::common::ingestion_path_str(path)) + (on ? "-on" : "-off")) {
        be::common::set_ingestion_path_enabled(path, on);
        return true;
      }
  return false;
}

int rest_ingestion_handler(krel_http_rest_closure_t *restc, int, char **) {
  krel_http_session_t *session = restc->http_ctx;
  const char *control = krel_http_request_querystring(krel_http_session_request(session), "control");
  if (control) {
    krel_ex_log(krel_notice, "Got {} for control param.\n", control);
    if (!apply_control(control)) {
      rest_req_invalid(session, fmt::format("Invalid ingestion path control specified: {}", control));
      return 0;
    }
  }
  std::string list;
  for (const ingestion_path_e path : be::common::get_disabled_ingestion_paths())
    list += fmt::format("{}\"{}\"", list.empty() ? "" : ",", be::common::ingestion_path_str(path));
  rest_json_answer(session, 200, "OK", "{\"disabled\":[" + list + "]}");
  return 0;
}

}  // namespace

void rest_ingestion_control_init() {
  krel_assert(krel_http_rest_register("GET", "/", "^ingestion$", rest_ingestion_handler) == 0);
}
