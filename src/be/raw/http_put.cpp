#include "be/raw/http_put.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "be/raw/raw_put_budget.h"
#include "be/raw/raw_put_write.h"
#include "platform/krel/base/krel_log.h"
#include "rest/rest_helpers.h"

namespace be::raw {

namespace {

constexpr size_t MAX_READ = 0xfffea;
constexpr int MAX_CHUNKS = 16;

}  // namespace

// Complete lines on their way: the memory they were charged goes back when their samples are stored.
struct http_put_c::chunk_t {
  http_put_c *put;
  std::string text;
  size_t charge;
  libvelmar_join_t joiner;

  void parse() {
    raw_batch_t batch;
    const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    if (put->parse(text.data(), text.size(), lines, &batch))
      raw_mgr_process_batch(put->request, joiner, std::move(batch));
    text = {};
    libvelmar_join_commit(joiner);
  }
  static void stored(void *closure) {
    const std::unique_ptr<chunk_t> chunk(static_cast<chunk_t *>(closure));
    chunk->put->chunk_ended(chunk->charge);
  }
};

http_put_c::http_put_c(krel_http_session_t *session, size_t longest_line, krel_log_stream_t *log)
    : request(raw_put_request_t::create([this](raw_put_request_t *) { join_complete(); })),
      m_session(session),
      m_longest_line(std::min(longest_line, HTTP_PUT_LONGEST_LINE)),
      m_log(log) {}

krelev_jobq_t *http_put_c::parse_jobq() const {
  return raw_mgr().parse_jobq;
}

int http_put_c::start(krel_http_rest_closure_t *restc, http_put_c *put) {
  restc->call_closure = put;
  restc->call_closure_free = http_side_ended;
  restc->fastpath = go_on;
  int mask = 0;
  if (rest_choose_thread(put->m_session, &mask)) return mask;
  return put->read(restc);
}

int http_put_c::go_on(krel_http_rest_closure_t *restc, int, char **) {
  return static_cast<http_put_c *>(restc->call_closure)->read(restc);
}

int http_put_c::complete(krel_http_rest_closure_t *restc, int, char **) {
  static_cast<http_put_c *>(restc->call_closure)->answer();
  return 0;
}

// The work has ended, on whichever thread ended it.
void http_put_c::join_complete() {
  if (!m_http_gone.load(std::memory_order_acquire)) resume();
  drop_side();
}

// A request that ends before its body does: the work that was started ends by itself, and frees this.
void http_put_c::http_side_ended(void *closure) {
  auto *put = static_cast<http_put_c *>(closure);
  if (!put->m_committed) {
    put->m_http_gone.store(true, std::memory_order_release);
    put->m_committed = true;
    libvelmar_join_commit(put->request->joiner);
  }
  put->drop_side();
}

void http_put_c::chunk_ended(size_t charge) {
  m_chunks.fetch_sub(1);
  if (m_waits_for_chunk.exchange(false)) resume();
  raw_put_budget().give_back(charge);
}

void http_put_c::start_chunk() {
  m_chunks.fetch_add(1);
  m_granted = false;
  const size_t charge = m_chunk.size();
  auto *chunk = new chunk_t{this, std::move(m_chunk), charge, nullptr};
  m_chunk.clear();
  chunk->joiner = libvelmar_join_create_child(request->joiner, chunk_t::stored, chunk);
  // leaves the loop, reaches a thread of the parse queue
  krelev_jobq_run(parse_jobq(), [chunk] { chunk->parse(); });
}

// Hands the complete lines to a parse job. Floats when 16 chunks are under way or the memory for another is
// not there; the lines are kept and handed out when the reader comes back.
http_put_c::step_e http_put_c::hand_out() {
  if (m_chunk.empty()) return step_e::go_on;
  if (m_chunks.load() >= MAX_CHUNKS) {
    float_session();
    m_waits_for_chunk = true;
    // one may have ended between the test and the mark
    if (m_chunks.load() < MAX_CHUNKS && m_waits_for_chunk.exchange(false)) resume();
    return step_e::waits_elsewhere;
  }
  if (!m_granted && !raw_put_budget().try_take(m_chunk.size())) {
    float_session();
    m_granted = true;
    if (raw_put_budget().take_or_wait(m_chunk.size(), [this] { resume(); })) resume();
    return step_e::waits_elsewhere;
  }
  start_chunk();
  return step_e::go_on;
}

// A line that does not fit the buffer is one error; it is dropped up to its newline.
void http_put_c::drop_long_line(char *buffer, size_t *used) {
  if (m_skips_line) {
    const char *newline = static_cast<const char *>(memchr(buffer, '\n', *used));
    const size_t dropped = newline ? static_cast<size_t>(newline - buffer) + 1 : *used;
    memmove(buffer, buffer + dropped, *used - dropped);
    *used -= dropped;
    m_skips_line = !newline;
  } else if (*used >= m_longest_line && !memchr(buffer, '\n', *used)) {
    request->counters.processed.fetch_add(1);
    request->counters.errors.fetch_add(1);
    krel_log(m_log, "a line of more than %zu bytes is refused\n", m_longest_line);
    line_dropped();
    m_skips_line = true;
    *used = 0;
  }
}

http_put_c::step_e http_put_c::read_lines(int *mask) {
  thread_local const std::unique_ptr<char[]> buffer(new char[HTTP_PUT_LONGEST_LINE + 1]);
  size_t used = m_partial.size();
  memcpy(buffer.get(), m_partial.data(), used);
  m_partial.clear();
  int64_t total = 0;
  bool would_block = false;
  while (!m_body_complete && !would_block && used < m_longest_line) {
    const size_t room = std::min(MAX_READ, m_longest_line - used);
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
  m_partial.assign(buffer.get() + complete, used - complete);
  m_chunk.assign(buffer.get(), complete);
  const step_e step = hand_out();
  if (step != step_e::go_on) return step;
  return m_body_complete ? step_e::complete : would_block ? step_e::wait_for_body : step_e::go_on;
}

// The body is there: what is left runs under the joiner, and the answer goes out when that has ended.
void http_put_c::finish(krel_http_rest_closure_t *restc) {
  restc->fastpath = complete;
  float_session();
  body_is_complete();
  m_committed = true;
  libvelmar_join_commit(request->joiner);
}

int http_put_c::read(krel_http_rest_closure_t *restc) {
  ingestion_gate_mgr_c::count_read();
  int mask = 0;
  step_e step = hand_out();
  if (step == step_e::go_on && m_body_complete) step = step_e::complete;
  while (step == step_e::go_on) step = read_body(&mask);
  switch (step) {
    case step_e::complete:
      finish(restc);
      return 0;
    case step_e::wait_for_body:
      return mask;
    case step_e::broken:
      answer_broken();
      return 0;
    default:
      return 0;
  }
}

}  // namespace be::raw
