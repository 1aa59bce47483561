#pragma once
// A put over HTTP: the body is read on the connection's loop thread and handed out, in chunks of complete
// lines, to parse jobs as it comes. The reader floats while it waits: for a parse job to end (16 at most are
// outstanding), for memory, and at last for the stores. Then the request is answered.
//
// Frees itself when both its sides, HTTP and the work that was started, have ended.

#include <atomic>
#include <string>

#include "be/raw/raw_batch.h"
#include "be/raw/raw_put_request.h"
#include "platform/krel/http/krel_http.h"

struct krel_log_stream_t;
struct krelev_jobq_t;

namespace be::raw {

constexpr size_t HTTP_PUT_LONGEST_LINE = 1048555;

class http_put_c {
 public:
  // Takes the request over and reads; what the handler returns.
  static int start(krel_http_rest_closure_t *restc, http_put_c *put);

  raw_put_request_t *const request;

 protected:
  enum class step_e { go_on, wait_for_body, waits_elsewhere, complete, broken };

  // A line of more than `longest_line` bytes (HTTP_PUT_LONGEST_LINE at most) is one error, said on `log`.
  http_put_c(krel_http_session_t *session, size_t longest_line, krel_log_stream_t *log);
  virtual ~http_put_c() { request->let_go(); }

  // On a parse thread, inside a memory section: complete lines, each with its newline; the text may be changed.
  // False: the chunk is given up.
  virtual bool parse(char *text, size_t length, size_t lines, raw_batch_t *batch) = 0;
  // Where the chunks are parsed.
  virtual krelev_jobq_t *parse_jobq() const;
  // On the loop thread. As much of the body as is there.
  virtual step_e read_body(int *mask) { return read_lines(mask); }
  // On the loop thread. A line that is too long has been counted and dropped.
  virtual void line_dropped() {}
  // The body is there; the joiner may be raised for what is left to do.
  virtual void body_is_complete() {}
  // Each ends the response.
  virtual void answer() = 0;
  virtual void answer_broken() = 0;

  krel_http_session_t *const m_session;

 private:
  struct chunk_t;

  static int go_on(krel_http_rest_closure_t *restc, int npats, char **pats);
  static int complete(krel_http_rest_closure_t *restc, int npats, char **pats);
  static void http_side_ended(void *closure);
  int read(krel_http_rest_closure_t *restc);
  step_e read_lines(int *mask);
  void drop_long_line(char *buffer, size_t *used);
  step_e hand_out();
  void start_chunk();
  void chunk_ended(size_t charge);
  void finish(krel_http_rest_closure_t *restc);
  void join_complete();
  void float_session() { krel_http_connection_event_float(krel_http_session_connection(m_session)); }
  void resume() { krel_http_session_resume_after_float(m_session); }
  void drop_side() {
    if (m_sides.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  const size_t m_longest_line;
  krel_log_stream_t *const m_log;
  std::string m_partial;      // of a line that has not ended
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

}  // namespace be::raw
