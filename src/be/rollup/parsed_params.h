#pragma once
// What the query of a rollup read asks for.

#include <cstdint>
#include <optional>
#include <string>

#include "be/nntbs/nnt_multitype_part.h"
#include "platform/krel/http/krel_http.h"

namespace db::kv {
class ranged_reader_c;
}

namespace velmar_be_rollup {

enum rest_get_engine_e : int {
  REST_GET_ENGINE_DISPATCH = 0,          // rollups, and what lies past them from samples
  REST_GET_ENGINE_DISPATCH_COARSEN = 1,  // the same, and where both lack a coarser rollup
  REST_GET_ENGINE_NNT = 2,               // rollups only
  REST_GET_ENGINE_RECALC = 3,            // samples only
};
std::optional<rest_get_engine_e> rest_get_engine_parse(const char *text);
// Null: the node cannot read that way.
const db::kv::ranged_reader_c *rest_get_engine_reader(rest_get_engine_e engine);

struct parsed_params_c {
  bool m_valid = false;
  std::string m_error;  // for the client, of the first parameter that is wrong
  bool m_can_squash = true;
  uint64_t m_start = 0, m_end = 0;  // milliseconds, whole multiples of the span, which is not 0
  uint64_t m_rollup_span = 0;
  nnt_multitype_part m_type = NNT_AVERAGE;
  const db::kv::ranged_reader_c *m_ranged_reader = nullptr;
  bool m_get_metadata = false;
  std::string m_stream_tags;  // always empty: refused
  rest_get_engine_e m_get_engine = REST_GET_ENGINE_DISPATCH;

  uint64_t get_cell_count() const { return (m_end - m_start) / m_rollup_span; }
  static parsed_params_c parse(krel_http_request_t *request);
};

}  // namespace velmar_be_rollup
