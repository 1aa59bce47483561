// The response as handlers write it. On the owner's thread what was flushed goes out when the handler
// returns; a job that holds a floating session, and a coroutine, write to the socket themselves.

#include <poll.h>

#include <cstdarg>
#include <cstdio>
#include <memory>

#include "platform/krel/base/krel_util.h"
#include "platform/krel/http/http_connection.h"

namespace {

constexpr int64_t keep_alive_unread = 64 * 1024;

bool is_gone(const krel_http_session_t *session) {
  return session->connection->broken || session->response.broken || session->request.aborted;
}

// Hooks run and the fate of the connection is decided just before the header is made.
void before_header(krel_http_session_t *session) {
  krel_http_response_t &response = session->response;
  if (response.header_out) return;
  if (!session->response_hooks_ran) {
    session->response_hooks_ran = true;
    http_rules_run_response_hooks(session);
  }
  if (response.status == 0) response.status = 200;
  if (http_connections_winding_up()) response.close = true;
  const krel_http_request_t &request = session->request;
  if (request.message_complete) return;
  const bool short_rest = !request.chunked && request.body_left() <= keep_alive_unread;
  if (request.aborted || request.malformed || request.expects_continue || !(short_rest || request.chunked))
    response.close = true;
}

size_t unsent(const krel_http_session_t *session) {
  return session->response.body.size() + session->connection->out.size();
}

// A coroutine that is ahead of its reader lets others run.
bool yield_until_drained(krel_http_session_t *session) {
  krel_http_connection_t *connection = session->connection;
  const struct timeval nap = {0, 2000};
  size_t before = unsent(session);
  uint64_t progress_ns = krel_gethrtime();
  while (unsent(session) > HTTP_HIGH_WATER) {
    krelev_aco_sleep(&nap);
    if (!connection->pump_and_send(true)) return false;
    if (unsent(session) != before) {
      before = unsent(session);
      progress_ns = krel_gethrtime();
    } else if (krel_gethrtime() - progress_ns > uint64_t{http_timeouts().write_ms} * 1000000) {
      connection->broken = true;
      return false;
    }
  }
  return true;
}

}  // namespace

bool krel_http_response_status_set(krel_http_session_t *session, int code, const char *reason) {
  krel_http_response_t &response = session->response;
  if (is_gone(session) || response.header_out || code < 200 || code > 999) return false;
  response.status = code;
  response.reason.clear();
  for (const char *c = reason ? reason : ""; *c; c++) {
    if (static_cast<unsigned char>(*c) >= 0x20 && *c != 0x7f) response.reason.push_back(*c);
  }
  return true;
}

bool krel_http_response_header_set(krel_http_session_t *session, const char *name, const char *value) {
  return !is_gone(session) && !session->response.header_out && session->response.set_header(name, value);
}

bool krel_http_response_option_set(krel_http_session_t *session, int option) {
  krel_http_response_t &response = session->response;
  const krel_http_request_t &request = session->request;
  if (is_gone(session) || response.header_out) return false;
  if (option & KREL_HTTP_CLOSE) response.close = true;
  if (option & KREL_HTTP_CHUNKED) {
    if (request.minor == 0) return false;
    response.set_chunked();
  }
  if (option & KREL_HTTP_COMPRESS) {
    const char *accepted = request.joined_header("accept-encoding");
    const krel_compress_type_e type =
        accepted ? http_accepted_encoding(accepted, option & KREL_HTTP_COMPRESS) : KREL_COMPRESS_NONE;
    if (type == KREL_COMPRESS_NONE) return false;
    response.set_encoding(type);
  }
  return true;
}

bool krel_http_response_append(krel_http_session_t *session, const void *bytes, size_t length) {
  if (is_gone(session) || session->response.final) return false;
  session->response.body.append(bytes, length);
  return true;
}

bool krel_http_response_append_str(krel_http_session_t *session, const char *text) {
  return krel_http_response_append(session, text, __builtin_strlen(text));
}

bool krel_http_response_appendf(krel_http_session_t *session, const char *format, ...) {
  if (is_gone(session) || session->response.final) return false;
  http_queue_c &body = session->response.body;
  const auto [to, room] = body.tail_room();
  va_list args, again;
  va_start(args, format);
  va_copy(again, args);
  const int length = vsnprintf(to, room, format, args);
  va_end(args);
  if (length >= 0 && static_cast<size_t>(length) < room) {
    body.commit(static_cast<size_t>(length));
  } else if (length >= 0) {
    char *large = body.reserve(static_cast<size_t>(length) + 1);
    vsnprintf(large, static_cast<size_t>(length) + 1, format, again);
    body.commit(static_cast<size_t>(length));
  }
  va_end(again);
  return length >= 0;
}

bool krel_http_response_append_mmap(krel_http_session_t *session, int fd, size_t length, off_t offset) {
  http_queue_c taken;
  taken.append_file(fd, offset, length);
  if (is_gone(session) || session->response.final) return false;
  session->response.body.splice(taken);
  return true;
}

bool krel_http_response_flush(krel_http_session_t *session, bool final) {
  krel_http_response_t &response = session->response;
  krel_http_connection_t *connection = session->connection;
  if (is_gone(session)) return false;
  before_header(session);
  response.final |= final;
  // On the loop a complete answer waits for its pipelined neighbours.
  if (final && !session->floating && !session->in_coroutine) {
    response.pump(session->request, connection->out, http_date_header(), true);
    return !response.broken;
  }
  if (!connection->pump_and_send(true)) return false;
  if (session->in_coroutine && krelev_is_aco()) return yield_until_drained(session);
  return !response.broken;
}

bool krel_http_response_end(krel_http_session_t *session) {
  return krel_http_response_flush(session, true);
}

bool krel_http_response_closed(const krel_http_session_t *session) {
  if (is_gone(session)) return true;
  if (!session->floating && !session->in_coroutine) return false;
  struct pollfd wait = {session->connection->transport->fd(), 0, 0};
  return ::poll(&wait, 1, 0) == 1 && (wait.revents & (POLLERR | POLLHUP)) != 0;
}

size_t krel_http_response_buffered(const krel_http_session_t *session) {
  return unsent(session);
}

bool krel_http_response_wait_drained(krel_http_session_t *session, size_t limit, int timeout_ms) {
  krel_http_connection_t *connection = session->connection;
  if (!session->floating || is_gone(session)) return !is_gone(session) && unsent(session) < limit;
  const uint64_t end_ns = krel_gethrtime() + static_cast<uint64_t>(std::max(timeout_ms, 0)) * 1000000;
  for (;;) {
    if (session->response.header_out && !connection->pump_and_send(false)) return false;
    if (session->response.broken) return false;
    if (unsent(session) < limit) return true;
    const uint64_t now_ns = krel_gethrtime();
    if (now_ns >= end_ns || !connection->blocked) return false;
    const short events = connection->transport->write_needs() == KRELEV_READ ? POLLIN : POLLOUT;
    struct pollfd wait = {connection->transport->fd(), events, 0};
    ::poll(&wait, 1, static_cast<int>((end_ns - now_ns + 999999) / 1000000));
  }
}
