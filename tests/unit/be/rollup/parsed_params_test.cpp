// The query of a rollup read, through real requests without sockets.
#include "be/rollup/parsed_params.h"

#include <gtest/gtest.h>

#include "support/http_memory_client.h"

namespace {

using namespace velmar_be_rollup;

parsed_params_c last;

int take(krel_http_rest_closure_t *restc, int, char **) {
  last = parsed_params_c::parse(krel_http_session_request(restc->http_ctx));
  krel_http_response_status_set(restc->http_ctx, 200, "OK");
  krel_http_response_end(restc->http_ctx);
  return 0;
}

parsed_params_c parse(const std::string &query) {
  static const bool registered = krel_http_rest_register("GET", "/params", "^$", take) == 0;
  EXPECT_TRUE(registered);
  http_memory_client_c client;
  last = {};
  client.feed("GET /params?" + query + " HTTP/1.1\r\nHost: h\r\n\r\n");
  return last;
}

TEST(rollup_params, all_of_them) {
  const parsed_params_c p = parse(
      "start_ts=60.500&end_ts=120&rollup_span=500ms&type=derivative_stddev&can_squash=off&get_engine=recalc&"
      "get_metadata=yes");
  ASSERT_TRUE(p.m_valid) << p.m_error;
  EXPECT_EQ(p.m_start, 60'500U);
  EXPECT_EQ(p.m_end, 120'000U);
  EXPECT_EQ(p.m_rollup_span, 500U);
  EXPECT_EQ(p.get_cell_count(), 119U);
  EXPECT_EQ(p.m_type, NNT_DERIVE_STDDEV);
  EXPECT_FALSE(p.m_can_squash);
  EXPECT_TRUE(p.m_get_metadata);
  EXPECT_EQ(p.m_get_engine, REST_GET_ENGINE_RECALC);
}

TEST(rollup_params, defaults) {
  const parsed_params_c p = parse("start=60&end=1970-01-01T00:02:00Z&rollup_span=60s");
  ASSERT_TRUE(p.m_valid) << p.m_error;
  EXPECT_EQ(p.m_start, 60'000U);
  EXPECT_EQ(p.m_end, 120'000U);
  EXPECT_EQ(p.m_type, NNT_AVERAGE);
  EXPECT_TRUE(p.m_can_squash);
  EXPECT_FALSE(p.m_get_metadata);
  EXPECT_EQ(p.m_get_engine, REST_GET_ENGINE_DISPATCH);
}

TEST(rollup_params, the_first_that_is_wrong) {
  const struct {
    const char *query, *error;
  } cases[] = {
      {"", "need \"start\" or \"start_ts\" argument."},
      {"start=60&start_ts=60", "only one of \"start\" or \"start_ts\" should be provided."},
      {"start=x", "could not parse start time."},
      {"start_ts=1.5", "could not parse start time."},
      {"start=60", "need \"end\" or \"end_ts\" argument."},
      {"start=60&end=120&end_ts=120", "only one of \"end\" or \"end_ts\" should be provided."},
      {"start=60&end_ts=-1", "could not parse end time."},
      {"start=60&end=120", "need rollup_span argument."},
      {"start=60&end=120&rollup_span=60", "could not parse rollup_span argument."},
      {"start=60&end=120&rollup_span=0s", "invalid rollup_span, must be > 0."},
      {"start=100&end=200&rollup_span=60s", "start value not properly aligned."},
      {"start=60&end=200&rollup_span=60s", "end value not properly aligned."},
      {"start=60&end=60&rollup_span=60s", "end must be greater than start."},
      {"start=120&end=60&rollup_span=60s", "end must be greater than start."},
      {"start=60&end=120&rollup_span=60s&type=min", "could not parse type argument."},
      {"start=60&end=120&rollup_span=60s&get_engine=fast", "could not parse get_engine argument."},
      {"start=60&end=120&rollup_span=60s&can_squash=2", "internal error on can_squash query-param."},
      {"start=60&end=120&rollup_span=60s&get_metadata=maybe", "internal error on get_metadata query-param."},
      {"start=60&end=120&rollup_span=60s&stream_tags=a:b",
       "stream_tags param is deprecated, please provide a fully canonical name"},
  };
  for (const auto &c : cases) {
    const parsed_params_c p = parse(c.query);
    EXPECT_FALSE(p.m_valid) << c.query;
    EXPECT_EQ(p.m_error, c.error) << c.query;
  }
}

}  // namespace
