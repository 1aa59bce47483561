// Leaving the loop, uploads, streaming.

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "global/velmar_global_state.h"
#include "platform/krel/base/krel_log.h"
#include "rest/rest_helpers.h"

namespace {

constexpr size_t UPLOAD_STEP = 32 * 1024;
constexpr size_t MAX_UNSENT = 0x400000;
constexpr int DRAIN_STEP_MS = 10;
constexpr int EVERYTHING = KRELEV_READ | KRELEV_WRITE | KRELEV_EXCEPTION;

}  // namespace

void velmar_go_asynch(krelev_jobq_t *jobq, krelev_callback_t callback, void *closure) {
  krelev_add_asynch(jobq, krelev_alloc_asynch(callback, closure));
}

void velmar_http_go_asynch(krelev_jobq_t *jobq, krelev_callback_t callback, void *closure,
                           krel_http_connection_t *connection) {
  krel_log(krel_debug, "Descheduling for asynch merge completion...\n");
  krelev_event_t connection_event = krel_http_connection_event_float(connection);
  krelev_event_t job = krelev_alloc_asynch(callback, closure);
  krelev_set_owner(job, krelev_get_owner(connection_event));
  krelev_add_asynch(jobq, job);
}

bool rest_choose_thread(krel_http_session_t *session, int *mask) {
  krel_http_connection_t *connection = krel_http_session_connection(session);
  krelev_event_t event = krel_http_connection_event(connection);
  const pthread_t wanted = krelev_choose_owner(krelev_get_fd(event) + 1);
  if (pthread_equal(krelev_get_owner(event), wanted)) return false;
  krel_http_connection_set_owner(connection, wanted);
  *mask = EVERYTHING;
  return true;
}

ssize_t rest_try_read_http(krel_http_session_t *session, void *buffer, size_t size, size_t, int64_t *total,
                           int *mask) {
  if (!session || !total) {
    errno = EINVAL;
    return -1;
  }
  if (velmar_global_value_exceeds_krelev_rw_advisory_limit(
          static_cast<int>(std::min<int64_t>(*total, INT32_MAX)))) {
    *mask = EVERYTHING;
    errno = EAGAIN;
    return -1;
  }
  const ssize_t n = krel_http_session_req_consume(session, buffer, size, mask);
  if (n > 0) *total += n;
  return n;
}

bool rest_get_upload(krel_http_session_t *session, std::string *body, size_t limit, int *mask, bool *complete) {
  int64_t total = 0;
  *complete = false;
  for (;;) {
    const size_t used = body->size();
    body->resize(used + UPLOAD_STEP);
    const ssize_t n = rest_try_read_http(session, body->data() + used, UPLOAD_STEP, 1, &total, mask);
    body->resize(used + static_cast<size_t>(std::max<ssize_t>(n, 0)));
    if (body->size() > limit) {
      errno = EFBIG;
      return false;
    }
    if (n == 0) *complete = true;
    if (n == 0 || (n < 0 && errno == EAGAIN)) return true;
    if (n < 0) return false;
  }
}

bool rest_get_fd_upload(krel_http_session_t *session, int fd, int *mask, bool *complete) {
  char buffer[UPLOAD_STEP];
  int64_t total = 0;
  *complete = false;
  for (;;) {
    const ssize_t n = rest_try_read_http(session, buffer, sizeof(buffer), 1, &total, mask);
    if (n == 0) *complete = true;
    if (n == 0 || (n < 0 && errno == EAGAIN)) return true;
    if (n < 0) {
      krel_log(krel_error, "Failed to read: %d/%s\n", errno, strerror(errno));
      return false;
    }
    const ssize_t written = write(fd, buffer, static_cast<size_t>(n));
    if (written != n) {
      krel_log(krel_error, "Failed write: %d != %d (errno: %s)\n", static_cast<int>(written),
               static_cast<int>(n), strerror(errno));
      return false;
    }
  }
}

int rest_flush_http_buffer(flush_buffer_t *buffer) {
  krel_http_session_t *session = buffer->session;
  buffer->current_size += buffer->buffer.size();
  bool ok = krel_http_response_append(session, buffer->buffer.data(), buffer->buffer.size());
  buffer->buffer.clear();
  ok = ok && krel_http_response_flush(session, false);
  while (ok && krel_http_response_buffered(session) > MAX_UNSENT) {
    krel_http_response_wait_drained(session, MAX_UNSENT, DRAIN_STEP_MS);
    ok = !krel_http_response_closed(session);
  }
  return ok ? 0 : -1;
}
