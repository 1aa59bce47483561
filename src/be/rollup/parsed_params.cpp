#include "be/rollup/parsed_params.h"

#include <cstring>

#include "be/common/query_param.h"
#include "be/common/range_params.h"
#include "db/ranged/readers.h"

namespace velmar_be_rollup {

namespace {

using velmar_be_common::param_result_e;

constexpr const char *ENGINES[] = {"dispatch", "dispatch_coarsen", "nnt", "recalc"};

// Each returns what is wrong, or null.

const char *parse_span(krel_http_request_t *request, parsed_params_c *out) {
  const velmar_be_common::parse_param_c<uint64_t> param("rollup_span",
                                                        velmar_be_common::get_duration_ms_parser());
  switch (param.try_parse(request, &out->m_rollup_span)) {
    case param_result_e::absent:
      return "need rollup_span argument.";
    case param_result_e::ok:
      return out->m_rollup_span ? nullptr : "invalid rollup_span, must be > 0.";
    default:
      return "could not parse rollup_span argument.";
  }
}

const char *check_range(const parsed_params_c &params) {
  if (params.m_start % params.m_rollup_span != 0) return "start value not properly aligned.";
  if (params.m_end % params.m_rollup_span != 0) return "end value not properly aligned.";
  return params.m_end > params.m_start ? nullptr : "end must be greater than start.";
}

const char *parse_type(krel_http_request_t *request, parsed_params_c *out) {
  const char *text = krel_http_request_querystring(request, "type");
  if (!text) return nullptr;
  const auto type = nnt_multitype_part_parse(text);
  if (type) out->m_type = *type;
  return type ? nullptr : "could not parse type argument.";
}

const char *parse_engine(krel_http_request_t *request, parsed_params_c *out) {
  const char *text = krel_http_request_querystring(request, "get_engine");
  const auto engine = text ? rest_get_engine_parse(text) : REST_GET_ENGINE_DISPATCH;
  if (!engine) return "could not parse get_engine argument.";
  out->m_get_engine = *engine;
  out->m_ranged_reader = rest_get_engine_reader(*engine);
  return nullptr;
}

bool parse_flag(krel_http_request_t *request, const char *name, bool *out) {
  const velmar_be_common::parse_param_c<bool> param(name, velmar_be_common::get_krel_boolean_parser());
  return param.try_parse(request, out) != param_result_e::bad;
}

const char *parse_rest(krel_http_request_t *request, parsed_params_c *out) {
  if (const char *error = parse_span(request, out)) return error;
  if (const char *error = check_range(*out)) return error;
  if (const char *error = parse_type(request, out)) return error;
  if (const char *error = parse_engine(request, out)) return error;
  if (!parse_flag(request, "can_squash", &out->m_can_squash))
    return "internal error on can_squash query-param.";
  if (!parse_flag(request, "get_metadata", &out->m_get_metadata))
    return "internal error on get_metadata query-param.";
  if (krel_http_request_querystring(request, "stream_tags"))
    return "stream_tags param is deprecated, please provide a fully canonical name";
  return nullptr;
}

}  // namespace

std::optional<rest_get_engine_e> rest_get_engine_parse(const char *text) {
  for (int i = REST_GET_ENGINE_DISPATCH; i <= REST_GET_ENGINE_RECALC; i++)
    if (strcmp(text, ENGINES[i]) == 0) return static_cast<rest_get_engine_e>(i);
  return std::nullopt;
}

const db::kv::ranged_reader_c *rest_get_engine_reader(rest_get_engine_e engine) {
  switch (engine) {
    case REST_GET_ENGINE_DISPATCH:
      return db::ranged::simple_dispatch_reader();
    case REST_GET_ENGINE_DISPATCH_COARSEN:
      return db::ranged::coarsen_dispatch_reader();
    case REST_GET_ENGINE_NNT:
      return db::ranged::outer_nnt_reader();
    case REST_GET_ENGINE_RECALC:
      return db::ranged::fromRaw_reader();
  }
  return nullptr;
}

parsed_params_c parsed_params_c::parse(krel_http_request_t *request) {
  parsed_params_c params;
  using velmar_be_common::parse_range_time;
  if (!parse_range_time(request, "start", "start_ts", &params.m_start, &params.m_error) ||
      !parse_range_time(request, "end", "end_ts", &params.m_end, &params.m_error))
    return params;
  if (const char *error = parse_rest(request, &params))
    params.m_error = error;
  else
    params.m_valid = true;
  return params;
}

}  // namespace velmar_be_rollup
