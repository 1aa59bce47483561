// POST /raw: what is taken, in which form, and how it is answered.

#include "be/raw/rest_raw_put.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "be/common/ingestion_path.h"
#include "be/raw/http_put.h"
#include "be/raw/raw_put_parse.h"
#include "be/raw/raw_put_write.h"
#include "libvelmar/topo/topo.h"
#include "platform/krel/base/krel_log.h"
#include "replicate/replicate_mgr.h"
#include "rest/rest_helpers.h"
#include "rest/rest_result.h"

namespace be::raw {

namespace {

constexpr size_t FLATBUFFER_READ = 65516;
constexpr size_t MAX_FLATBUFFER = 256 * 1024 * 1024;
constexpr size_t FLATBUFFER_BATCH = 10000;

class rest_raw_put_closure_t final : public http_put_c {
 public:
  rest_raw_put_closure_t(krel_http_session_t *session, raw_mgr_flatbuffers_e form)
      : http_put_c(session, HTTP_PUT_LONGEST_LINE, krel_error), flatbuffers(form) {}

 private:
  bool parse(char *text, size_t length, size_t lines, raw_batch_t *batch) override {
    return rest_raw_mgr_parse_ingestion_data(request, &raw_mgr().known, text, length, lines, batch);
  }
  step_e read_body(int *mask) override {
    return flatbuffers == RAW_TSV ? http_put_c::read_body(mask) : read_flatbuffer(mask);
  }
  step_e read_flatbuffer(int *mask);
  void body_is_complete() override;
  void answer() override;
  void answer_broken() override {
    const char *text = flatbuffers == RAW_TSV ? "Failed to read the body" : "Failed to parse flatbuffer data";
    rest_req_fail(m_session, REST_BAD_REQUEST, text);
  }

  const raw_mgr_flatbuffers_e flatbuffers;
  std::string m_buffer;  // the flatbuffer so far
};

http_put_c::step_e rest_raw_put_closure_t::read_flatbuffer(int *mask) {
  int64_t total = 0;
  for (;;) {
    const size_t used = m_buffer.size();
    if (used > MAX_FLATBUFFER) return step_e::broken;
    m_buffer.resize(used + FLATBUFFER_READ);
    const ssize_t n = rest_try_read_http(m_session, m_buffer.data() + used, FLATBUFFER_READ, 1, &total, mask);
    const int error = errno;
    m_buffer.resize(used + static_cast<size_t>(std::max<ssize_t>(n, 0)));
    if (n == 0) return step_e::complete;
    if (n < 0) return error == EAGAIN ? step_e::wait_for_body : step_e::broken;
  }
}

void rest_raw_put_closure_t::body_is_complete() {
  if (flatbuffers == RAW_TSV) return;
  libvelmar_join_raise(request->joiner, 1);
  krelev_jobq_run(raw_mgr().parse_jobq, [this] {
    raw_put_request_t *const r = request;
    rest_raw_mgr_parse_flatbuffer(
        r, &raw_mgr().known, flatbuffers, m_buffer, FLATBUFFER_BATCH,
        [r](raw_batch_t &&batch) { raw_mgr_process_batch(r, r->joiner, std::move(batch)); });
    libvelmar_join_one(r->joiner);
  });
}

void rest_raw_put_closure_t::answer() {
  std::string error;
  if (const int code = request->get_error(&error)) {
    krel_http_response_status_set(m_session, code, "ERROR");
    krel_http_response_header_set(m_session, "Content-Type", "text/plain");
    krel_http_response_append(m_session, error.data(), error.size());
    krel_http_response_end(m_session);
    return;
  }
  rest_json_answer(m_session, 200, "OK", put_counts_json(request->counters));
}

// Reasons to take nothing; true when the request has been answered.
bool refuse(krel_http_session_t *session) {
  const char *stats = nullptr;
  int status = 200;
  const char *reason = "OK";
  if (!be::common::is_ingestion_path_enabled(be::common::ingestion_path_e::raw)) {
    stats = "raw ingestion is currently disabled";
  } else if (!raw_mgr().numeric_writer) {
    stats = "not configured to store raw numeric data";
  } else if (check_for_deferment_mode(session, RAW_DEFER) != 0) {
    return true;
  } else if (topo_i_am_ephemeral()) {
    stats = "cannot write to ephemeral node";
    status = 418;
    reason = "EPHEMERAL NODE";
  } else if (!replicate_mgr_get_participating()) {
    stats = "cannot write to node not participating in current topology";
    status = 418;
    reason = "NON-PARTICIPATING NODE";
  }
  if (!stats) return false;
  rest_json_answer(session, status, reason, fmt::format("{{\"stats\": \"{}\"}}", stats));
  return true;
}

raw_mgr_flatbuffers_e choose_format(const krel_http_request_t *http_request) {
  const char *type = krel_http_request_header(http_request, "content-type");
  const auto begins = [&](std::string_view text) { return type && std::string_view(type).rfind(text, 0) == 0; };
  if (begins("application/x-tolvanus-metric-list-flatbuffer")) return RAW_FLATBUFFERS_RELAY_V1;
  if (begins("application/x-dorn-metric-list-flatbuffer")) return RAW_FLATBUFFERS_DORN;
  return RAW_TSV;
}

int rest_raw_put(krel_http_rest_closure_t *restc, int, char **) {
  krel_http_session_t *session = restc->http_ctx;
  if (refuse(session)) return 0;
  ingestion_gate_mgr_c::count_start();
  const krel_http_request_t *http_request = krel_http_session_request(session);
  const char *datapoints = krel_http_request_header(http_request, "x-velmar-datapoints");
  if (!datapoints || atoi(datapoints) < 1) {
    rest_req_error(session, "X-Velmar-Datapoints header must be present and positive");
    return 0;
  }
  auto *closure = new rest_raw_put_closure_t(session, choose_format(http_request));
  if (const auto timeout = rest_x_velmar_timeout(session)) closure->request->set_stale_time_out(*timeout);
  return http_put_c::start(restc, closure);
}

}  // namespace

}  // namespace be::raw

void rest_raw_put_init() {
  using namespace be::raw;
  expirable_c::init();
  ingestion_gate_mgr_c::init();
  krel_assert(krel_http_rest_register("POST", "/", "^raw$", rest_raw_put) == 0);
}
