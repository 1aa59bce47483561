#pragma once
// One rollup read on its way: made on the loop thread, worked on by a job, answered on the loop thread.

#include <cstdint>
#include <string>

#include "be/rollup/parsed_params.h"
#include "db/ranged/ranged.h"

namespace velmar_be_rollup {

enum class data_type_e { json, nnt };
constexpr const char *JSON_TYPE = "application/json";
constexpr const char *NNT_TYPE = "application/x-tolvanus-nnt";

class rest_closure_c {
 public:
  rest_closure_c(krel_http_session_t *session, const parsed_params_c &params, metric_locator_sp locator,
                 data_type_e data_type);
  virtual ~rest_closure_c() = default;
  rest_closure_c(const rest_closure_c &) = delete;
  rest_closure_c &operator=(const rest_closure_c &) = delete;

  // On the job, while the session floats: reads and hands over the answer, or keeps the error for
  // write_out_response. Blocks.
  virtual void work() = 0;
  // On the loop thread, at last.
  void write_out_response();
  // The header is out and the rest cannot follow: the connection must end.
  bool is_broken() const { return m_broken; }
  krel_http_session_t *get_session() const { return m_session; }

 protected:
  enum have_bits_e : unsigned { HAVE_EPOCH = 1, HAVE_APOCALYPSE = 2 };

  void fail(std::string text) { m_error = std::move(text); }
  void fail(db::kv::code_e code);
  void set_epoch(uint64_t ms);
  void set_apocalypse(uint64_t ms);
  // Status 200, the content type and what is known of the metric's range.
  void start_answer(const char *content_type);

  krel_http_session_t *const m_session;
  const parsed_params_c m_params;
  const data_type_e m_data_type;
  db::kv::ranged_c::key_c m_search_key;
  bool m_broken = false;

 private:
  unsigned m_have_bits = 0;
  uint64_t m_epoch = 0, m_apocalypse = 0;  // milliseconds
  std::string m_error;
  bool m_no_such_rollup = false;
};

}  // namespace velmar_be_rollup
