#pragma once
// A rollup read that another node answers.

#include "be/rollup/rest_closure.h"
#include "libvelmar/topo/topo.h"

namespace velmar_be_rollup {

// //proxy/rest_get/@timeout_ms; at start. 0: a peer may take its time.
void rest_proxy_set_timeout(int32_t timeout_ms);
int32_t rest_proxy_get_timeout();

class rest_proxy_closure_c final : public rest_closure_c {
 public:
  rest_proxy_closure_c(krel_http_session_t *session, const parsed_params_c &params, metric_locator_sp locator,
                       data_type_e data_type, const host_config *host);
  void work() override;

 private:
  void fetch();
  void take_header(std::string_view name, std::string_view value);

  const host_config *const m_host;
  const std::string m_query, m_accept;
  std::string m_content_type;  // of the peer's answer
};

}  // namespace velmar_be_rollup
