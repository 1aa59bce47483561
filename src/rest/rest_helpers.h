#pragma once
// What all REST handlers share: leaving the loop and coming back, reading uploads without blocking, the
// headers between nodes, and the modes in which a node takes no data.

#include <sys/time.h>

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/krel/http/krel_http.h"

// ---- leaving the loop
// Queues a job; its callback runs with the masks of krelev_alloc_asynch.
void velmar_go_asynch(krelev_jobq_t *jobq, krelev_callback_t callback, void *closure);
// The same after taking the connection off its loop; the job ends with krel_http_session_resume_after_float.
void velmar_http_go_asynch(krelev_jobq_t *jobq, krelev_callback_t callback, void *closure,
                           krel_http_connection_t *connection);
// Spreads connections over the loop threads: the wanted owner is thread number fd + 1. True when the
// connection has been moved: the handler returns *mask and is called again there.
bool rest_choose_thread(krel_http_session_t *session, int *mask);

// ---- uploads. `total` counts the bytes read in this turn of the loop.
// One read. > 0: bytes; 0: the body has ended; -1 with errno EINVAL (no session or total), EAGAIN (nothing
// now, or this turn has had the advisory limit: return *mask to be called again), else broken.
ssize_t rest_try_read_http(krel_http_session_t *session, void *buffer, size_t size, size_t minimum,
                           int64_t *total, int *mask);
// Collects a whole body of at most `limit` bytes in `body`. complete: all is there. False: broken (errno)
// or too large (EFBIG).
bool rest_get_upload(krel_http_session_t *session, std::string *body, size_t limit, int *mask, bool *complete);
// Copies the body to a file descriptor in 32 KiB steps. False: a read or write failed, logged.
bool rest_get_fd_upload(krel_http_session_t *session, int fd, int *mask, bool *complete);

// ---- streaming answers from a job
struct flush_buffer_t {
  krel_http_session_t *session;
  std::string buffer;
  size_t current_size = 0;  // bytes handed over so far
};
// Appends what is buffered and flushes; waits while the client has more than 4 MiB to read. -1 when the
// client is gone; the buffer is then empty.
int rest_flush_http_buffer(flush_buffer_t *buffer);

// ---- headers between nodes
bool rest_x_velmar_proxied_on(krel_http_session_t *session);
// Milliseconds left for the work; none when the header is missing or invalid (logged).
std::optional<int64_t> rest_x_velmar_timeout(krel_http_session_t *session);
std::optional<struct timeval> rest_x_velmar_deadline(krel_http_session_t *session);
// Does the sender of a merge mean a topology that is in force here, this one or the next?
bool http_validate_target_topo(krel_http_session_t *session);
int rest_helper_adopt_taskid(krel_http_rest_closure_t *restc);  // a handler hook
using rest_uuid_t = std::array<uint8_t, 16>;
std::vector<rest_uuid_t> rest_get_down_nodes(krel_http_session_t *session);
bool rest_is_node_down(const rest_uuid_t &node, const std::vector<rest_uuid_t> &down);
bool timed_out(const struct timeval &now, const struct timeval &start, int64_t limit_ms);

// ---- modes
enum defer_t { NNTBS_DEFER = 0, TEXT_DEFER = 1, HIST_DEFER = 2, RAW_DEFER = 3, NO_DEFER = 4 };
// Reads //deferred_processing and //krelev/config/default_ca_chain; a bad value is fatal. Once, at start.
void rest_helper_init(bool journal_only, bool reject_nnt_puts);
bool rest_helper_rejects_nnt_puts();
bool rest_helper_is_journal_only();
// Where the node's average lag in seconds comes from; none means no lag.
void rest_helper_set_latency_source(std::function<double()> source);
bool rest_helper_is_deferment_active(defer_t type);
// 0 when data may be taken; otherwise -1, and the session (if any) has been answered with 403.
int check_for_deferment_mode(krel_http_session_t *session, defer_t type);
