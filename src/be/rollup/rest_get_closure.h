#pragma once
// A rollup read answered from this node's own data.

#include "be/rollup/rest_closure.h"
#include "rest/rest_helpers.h"

namespace velmar_be_rollup {

class rest_get_closure_c final : public rest_closure_c {
 public:
  using rest_closure_c::rest_closure_c;
  void work() override;

 private:
  void search_metadata();
  void build_json();
  void build_nnt();
  bool send_run(const db::kv::ranged_c::value_c &run);
  bool flush();

  flush_buffer_t m_payload{m_session, "", 0};
  bool m_has_items = false, m_streams = false;
};

}  // namespace velmar_be_rollup
