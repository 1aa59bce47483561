// POST /raw: from the socket to the counts.
//
// The reader runs on the connection's loop thread and hands complete lines to parse jobs as it goes. It floats
// while it waits: for a parse job to end (16 at most are outstanding), for memory, and at last for the stores.

#include "be/raw/rest_raw_put.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "be/common/ingestion_path.h"
#include "be/raw/raw_put_budget.h"
#include "be/raw/raw_put_parse.h"
#include "be/raw/raw_put_write.h"
#include "libvelmar/topo/topo.h"
#include "platform/krel/base/krel_log.h"
#include "replicate/replicate_mgr.h"
#include "rest/rest_helpers.h"
#include "rest/rest_result.h"

namespace be::raw {

namespace {

constexpr size_t BUFFER_SIZE = 1048556;
constexpr size_t MAX_READ = 0xfffea;
constexpr size_t FLATBUFFER_READ = 65516;
constexpr size_t MAX_FLATBUFFER = 256 * 1024 * 1024;
constexpr size_t BUDGET = 96 * 1024 * 1024;
constexpr size_t FLATBUFFER_BATCH = 10000;
constexpr int MAX_CHUNKS = 16;

krelev_jobq_t *raw_parse_jobq = nullptr;

raw_put_budget_c &budget() {
  static raw_put_budget_c b(BUDGET);
  return b;
}

struct chunk_t;
int rest_raw_put_continue(krel_http_rest_closure_t *restc, int npats, char **pats);
int rest_raw_put_complete(krel_http_rest_closure_t *restc, int npats, char **pats);

// The HTTP side of a put.
class rest_raw_put_closure_t {
 public:
  explicit rest_raw_put_closure_t(krel_http_session_t *session) : m_session(session) {
    request = raw_put_request_t::create([this](raw_put_request_t *) { join_complete(); });
  }
  ~rest_raw_put_closure_t() { request->let_go(); }

  static void destroy(void *closure) {
    // a request that ended before its body did: the work that was started ends by itself, and frees this
    static_cast<rest_raw_put_closure_t *>(closure)->http_side_ended();
  }

  int read(krel_http_rest_closure_t *restc);

  raw_put_request_t *request;
  raw_mgr_flatbuffers_e flatbuffers = RAW_TSV;

 private:
  enum class step_e { go_on, wait_for_body, waits_elsewhere, complete, broken };

  step_e read_ascii_data(int *mask);
  step_e read_flatbuffer_data(int *mask);
  step_e hand_out();
  void start_chunk();
  void drop_long_line(char *buffer, size_t *used);
  void float_session() { krel_http_connection_event_float(krel_http_session_connection(m_session)); }
  void resume() { krel_http_session_resume_after_float(m_session); }
  void finish(krel_http_rest_closure_t *restc);
  void join_complete();
  void http_side_ended();
  void drop_side() {
    if (m_sides.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  friend struct chunk_t;
  void chunk_ended(size_t charge);

  krel_http_session_t *const m_session;
  std::string m_in_progress;  // a partial line, or the flatbuffer so far
  std::string m_chunk;        // complete lines that wait to be handed out
  bool m_granted = false;     // the memory for m_chunk has been taken
  bool m_skips_line = false;  // in the middle of a line that is too long
  bool m_committed = false;
  bool m_body_complete = false;
  std::atomic<int> m_sides{2};  // the HTTP side and the joiner
  std::atomic<bool> m_http_gone{false};
  std::atomic<int> m_chunks{0};  // handed out and not yet stored
  std::atomic<bool> m_waits_for_chunk{false};
};

// Complete lines on their way: the memory they were charged goes back when their samples are stored.
struct chunk_t {
  rest_raw_put_closure_t *closure;
  std::string text;
  size_t charge;
  libvelmar_join_t joiner;

  void parse() {
    raw_put_request_t *request = closure->request;
    raw_batch_t batch;
    const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    if (rest_raw_mgr_parse_ingestion_data(request, &raw_mgr().known, text.data(), text.size(), lines, &batch))
      raw_mgr_process_batch(request, joiner, std::move(batch));
    text = {};
    libvelmar_join_commit(joiner);
  }
  static void stored(void *closure) {
    const std::unique_ptr<chunk_t> chunk(static_cast<chunk_t *>(closure));
    chunk->closure->chunk_ended(chunk->charge);
  }
};

// The work has ended, on whichever thread ended it.
void rest_raw_put_closure_t::join_complete() {
  if (!m_http_gone.load(std::memory_order_acquire)) resume();
  drop_side();
}

void rest_raw_put_closure_t::http_side_ended() {
  if (!m_committed) {
    m_http_gone.store(true, std::memory_order_release);
    m_committed = true;
    libvelmar_join_commit(request->joiner);
  }
  drop_side();
}

void rest_raw_put_closure_t::chunk_ended(size_t charge) {
  m_chunks.fetch_sub(1);
  if (m_waits_for_chunk.exchange(false)) resume();
  budget().give_back(charge);
}

void rest_raw_put_closure_t::start_chunk() {
  m_chunks.fetch_add(1);
  m_granted = false;
  const size_t charge = m_chunk.size();
  auto *chunk = new chunk_t{this, std::move(m_chunk), charge, nullptr};
  m_chunk.clear();
  chunk->joiner = libvelmar_join_create_child(request->joiner, chunk_t::stored, chunk);
  // leaves the loop, reaches a thread of the parse queue
  krelev_jobq_run(raw_parse_jobq, [chunk] { chunk->parse(); });
}

// Hands the complete lines to a parse job. Floats when 16 chunks are under way or the memory for another is
// not there; the lines are kept and handed out when the reader comes back.
rest_raw_put_closure_t::step_e rest_raw_put_closure_t::hand_out() {
  if (m_chunk.empty()) return step_e::go_on;
  if (m_chunks.load() >= MAX_CHUNKS) {
    float_session();
    m_waits_for_chunk = true;
    // one may have ended between the test and the mark
    if (m_chunks.load() < MAX_CHUNKS && m_waits_for_chunk.exchange(false)) resume();
    return step_e::waits_elsewhere;
  }
  if (!m_granted && !budget().try_take(m_chunk.size())) {
    float_session();
    m_granted = true;
    if (budget().take_or_wait(m_chunk.size(), [this] { resume(); })) resume();
    return step_e::waits_elsewhere;
  }
  start_chunk();
  return step_e::go_on;
}

// A line that does not fit the buffer is one error; it is dropped up to its newline.
void rest_raw_put_closure_t::drop_long_line(char *buffer, size_t *used) {
  if (m_skips_line) {
    const char *newline = static_cast<const char *>(memchr(buffer, '\n', *used));
    const size_t dropped = newline ? static_cast<size_t>(newline - buffer) + 1 : *used;
    memmove(buffer, buffer + dropped, *used - dropped);
    *used -= dropped;
    m_skips_line = !newline;
  } else if (*used >= BUFFER_SIZE - 1 && !memchr(buffer, '\n', *used)) {
    request->counters.processed.fetch_add(1);
    request->counters.errors.fetch_add(1);
    krel_log(krel_error, "a line of more than %zu bytes is refused\n", BUFFER_SIZE);
    m_skips_line = true;
    *used = 0;
  }
}

rest_raw_put_closure_t::step_e rest_raw_put_closure_t::read_ascii_data(int *mask) {
  thread_local const std::unique_ptr<char[]> buffer(new char[BUFFER_SIZE]);
  size_t used = m_in_progress.size();
  memcpy(buffer.get(), m_in_progress.data(), used);
  m_in_progress.clear();
  int64_t total = 0;
  bool would_block = false;
  while (!m_body_complete && !would_block && used < BUFFER_SIZE - 1) {
    const size_t room = std::min(MAX_READ, BUFFER_SIZE - 1 - used);
    const ssize_t n = rest_try_read_http(m_session, buffer.get() + used, room, 1, &total, mask);
    if (n < 0 && errno != EAGAIN) return step_e::broken;
    would_block = n < 0;
    m_body_complete = n == 0;
    used += static_cast<size_t>(std::max<ssize_t>(n, 0));
    drop_long_line(buffer.get(), &used);
  }
  if (m_body_complete && used && buffer[used - 1] != '\n') buffer[used++] = '\n';
  const char *last = static_cast<const char *>(memrchr(buffer.get(), '\n', used));
  const size_t complete = last ? static_cast<size_t>(last - buffer.get()) + 1 : 0;
  m_in_progress.assign(buffer.get() + complete, used - complete);
  m_chunk.assign(buffer.get(), complete);
  const step_e step = hand_out();
  if (step != step_e::go_on) return step;
  return m_body_complete ? step_e::complete : would_block ? step_e::wait_for_body : step_e::go_on;
}

rest_raw_put_closure_t::step_e rest_raw_put_closure_t::read_flatbuffer_data(int *mask) {
  int64_t total = 0;
  for (;;) {
    const size_t used = m_in_progress.size();
    if (used > MAX_FLATBUFFER) return step_e::broken;
    m_in_progress.resize(used + FLATBUFFER_READ);
    const ssize_t n =
        rest_try_read_http(m_session, m_in_progress.data() + used, FLATBUFFER_READ, 1, &total, mask);
    const int error = errno;
    m_in_progress.resize(used + static_cast<size_t>(std::max<ssize_t>(n, 0)));
    if (n == 0) return step_e::complete;
    if (n < 0) return error == EAGAIN ? step_e::wait_for_body : step_e::broken;
  }
}

// The body is there: what is left runs under the joiner, and the answer goes out when that has ended.
void rest_raw_put_closure_t::finish(krel_http_rest_closure_t *restc) {
  restc->fastpath = rest_raw_put_complete;
  float_session();
  if (flatbuffers != RAW_TSV) {
    libvelmar_join_raise(request->joiner, 1);
    krelev_jobq_run(raw_parse_jobq, [this] {
      raw_put_request_t *const r = request;
      rest_raw_mgr_parse_flatbuffer(
          r, &raw_mgr().known, flatbuffers, m_in_progress, FLATBUFFER_BATCH,
          [r](raw_batch_t &&batch) { raw_mgr_process_batch(r, r->joiner, std::move(batch)); });
      libvelmar_join_one(r->joiner);
    });
  }
  m_committed = true;
  libvelmar_join_commit(request->joiner);
}

int rest_raw_put_closure_t::read(krel_http_rest_closure_t *restc) {
  ingestion_gate_mgr_c::count_read();
  int mask = 0;
  step_e step = hand_out();
  if (step == step_e::go_on && m_body_complete) step = step_e::complete;
  while (step == step_e::go_on)
    step = flatbuffers == RAW_TSV ? read_ascii_data(&mask) : read_flatbuffer_data(&mask);
  switch (step) {
    case step_e::complete:
      finish(restc);
      return 0;
    case step_e::wait_for_body:
      return mask;
    case step_e::broken: {
      const char *text = flatbuffers == RAW_TSV ? "Failed to read the body" : "Failed to parse flatbuffer data";
      rest_req_fail(m_session, REST_BAD_REQUEST, text);
      return 0;
    }
    default:
      return 0;
  }
}

int rest_raw_put_continue(krel_http_rest_closure_t *restc, int, char **) {
  return static_cast<rest_raw_put_closure_t *>(restc->call_closure)->read(restc);
}

int rest_raw_put_complete(krel_http_rest_closure_t *restc, int, char **) {
  krel_http_session_t *session = restc->http_ctx;
  raw_put_request_t *request = static_cast<rest_raw_put_closure_t *>(restc->call_closure)->request;
  std::string error;
  if (const int code = request->get_error(&error)) {
    krel_http_response_status_set(session, code, "ERROR");
    krel_http_response_header_set(session, "Content-Type", "text/plain");
    krel_http_response_append(session, error.data(), error.size());
    krel_http_response_end(session);
    return 0;
  }
  const atomic_counters_t &c = request->counters;
  rest_json_answer(
      session, 200, "OK",
      fmt::format(
          "{{ \"records\": {}, \"updated\": {}, \"misdirected\": {}, \"discarded\": {}, \"errors\": {} }}",
          c.processed.load(), c.successes.load(), c.noti.load(), c.discarded.load(), c.errors.load()));
  return 0;
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
  auto *closure = new rest_raw_put_closure_t(session);
  closure->flatbuffers = choose_format(http_request);
  if (const auto timeout = rest_x_velmar_timeout(session)) closure->request->set_stale_time_out(*timeout);
  restc->call_closure = closure;
  restc->call_closure_free = rest_raw_put_closure_t::destroy;
  restc->fastpath = rest_raw_put_continue;
  int mask = 0;
  if (rest_choose_thread(session, &mask)) return mask;
  return closure->read(restc);
}

}  // namespace

}  // namespace be::raw

void rest_raw_put_init() {
  using namespace be::raw;
  raw_parse_jobq = krelev_jobq_retrieve("velmar_raw_put_parse");
  krel_assert(raw_parse_jobq);
  expirable_c::init();
  ingestion_gate_mgr_c::init();
  krel_assert(krel_http_rest_register("POST", "/", "^raw$", rest_raw_put) == 0);
}
