// Uploads: the body of a request as a handler pulls it, unframed and decoded.

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/krel/http/http_connection.h"

namespace {

ssize_t fail(int error) {
  errno = error;
  return -1;
}

ssize_t broken_body(krel_http_request_t &request) {
  request.malformed = true;
  request.keep_alive = false;
  return fail(EINVAL);
}

void send_continue(krel_http_connection_t &connection) {
  connection.session->request.expects_continue = false;
  connection.out.append("HTTP/1.1 100 Continue\r\n\r\n");
  connection.send();
}

// What is staged, decoded. 0: the decoder needs more.
ssize_t decode(krel_http_connection_t &connection, void *buffer, size_t size) {
  krel_http_request_t &request = connection.session->request;
  http_input_c &input = connection.input;
  if (!request.decoder) {
    request.decoder.reset(krel_create_stream_decompress_ctx());
    if (!request.decoder || krel_stream_decompress_init(request.decoder.get(), request.coding) != 0)
      return broken_body(request);
  }
  if (input.staged() == 0 && !request.decoder_full) return 0;
  size_t taken = input.staged(), made = size;
  const int result =
      krel_stream_decompress(request.decoder.get(), taken > 0 ? input.stage() : "", &taken, buffer, &made);
  input.unstage(taken);
  request.decoder_full = made == size;
  if (made > 0) return static_cast<ssize_t>(made);
  return result == 0 ? 0 : broken_body(request);
}

// Bytes from what is staged; 0 when there are none.
ssize_t take_staged(krel_http_connection_t &connection, void *buffer, size_t size) {
  http_input_c &input = connection.input;
  if (connection.session->request.coding != KREL_COMPRESS_NONE) return decode(connection, buffer, size);
  const size_t n = std::min(size, input.staged());
  if (n > 0) memcpy(buffer, input.stage(), n);
  input.unstage(n);
  return static_cast<ssize_t>(n);
}

ssize_t at_end(krel_http_request_t &request) {
  if (request.coding != KREL_COMPRESS_NONE && request.decoder &&
      krel_stream_decompress_finish(request.decoder.get()) != 0)
    return broken_body(request);
  return 0;
}

}  // namespace

ssize_t krel_http_session_req_consume(krel_http_session_t *session, void *buffer, size_t size, int *mask) {
  krel_http_request_t &request = session->request;
  krel_http_connection_t &connection = *session->connection;
  http_input_c &input = connection.input;
  *mask = KRELEV_READ | KRELEV_EXCEPTION;
  if (request.malformed || size == 0) return fail(EINVAL);
  if (request.aborted) return fail(EPIPE);
  if (session->floating) return fail(EINVAL);
  for (;;) {
    const bool any = input.staged() > 0 || request.coding != KREL_COMPRESS_NONE;
    if (const ssize_t n = any ? take_staged(connection, buffer, size) : 0; n != 0) return n;
    if (input.staged() > 0) continue;
    if (request.message_complete) return at_end(request);
    if (input.unparsed() > 0) {
      request.expects_continue = false;
      if (!request.parse_body(input)) return broken_body(request);
      continue;
    }
    if (request.expects_continue) send_continue(connection);
    ssize_t n;
    if (!request.chunked && request.coding == KREL_COMPRESS_NONE) {
      n = connection.transport->read(buffer, std::min(size, request.body_left()));
      if (n > 0)
        return request.parse_direct(static_cast<char *>(buffer), static_cast<size_t>(n)) ? n
                                                                                         : broken_body(request);
    } else {
      n = input.fill_body(*connection.transport, &request.header_block);
      if (n > 0) continue;
    }
    if (n == HTTP_AGAIN) return fail(EAGAIN);
    request.aborted = true;
    return fail(EPIPE);
  }
}

bool krel_http_request_payload_complete(const krel_http_request_t *request) {
  return request->message_complete && !request->decoder_full && !request->has_staged();
}
