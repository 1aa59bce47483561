#pragma once
// HTTP/1.1 server and REST rules on top of krelev.
//
// A connection belongs to one loop thread; its requests are handled one at a time, in order
// (pipelining keeps them parsed and waiting). A request is a session. No body is ever held in memory
// by this layer: a handler pulls the upload with krel_http_session_req_consume, and while a response
// has more than the high-water mark unsent the handler's krel_http_response_flush tells so.
//
// Life of a handler. The rule's handler is called on the loop thread with the captured groups. It
//  - answers and returns 0, or
//  - wants more of the body: returns a mask (READ|...) and is called again when there is some, or
//  - floats: takes the connection off the loop (krel_http_connection_event_float), hands the session
//    to a job and returns 0. From then on the session belongs to that job, which may append to and
//    flush the response, and must end with krel_http_session_resume_after_float. The layer then calls
//    restc->fastpath on the owning loop thread.
// A handler or job that throws ends its own request with 500 (or the connection, if the header is out).

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/krel/event/krelev.h"

struct krel_http_session_t;     // one request and its response
struct krel_http_connection_t;  // the TCP or TLS connection
struct krel_http_request_t;
struct krel_http_response_t;
struct krel_rest_mountpoint_t;  // a registered rule

struct krel_http_rest_closure_t;
using krel_rest_handler_t = int (*)(krel_http_rest_closure_t *restc, int npats, char **pats);

struct krel_http_rest_closure_t {
  krel_http_session_t *http_ctx;
  void *call_closure;                 // the handler's own state
  void (*call_closure_free)(void *);  // called when the request has ended, however it ended
  krel_rest_handler_t fastpath;       // replaces the handler for further calls
};

// ---- rules
// path is base + what the regular expression (PCRE, anchored by its own ^ and $) matches behind it.
// "GET" serves HEAD as well. 0 on success. The captured groups are percent-decoded once.
int krel_http_rest_register(const char *method, const char *base, const char *expression,
                            krel_rest_handler_t handler);
krel_rest_mountpoint_t *krel_http_rest_new_rule(const char *method, const char *base, const char *expression,
                                                krel_rest_handler_t handler);
void krel_rest_mountpoint_set_krelev_pool(krel_rest_mountpoint_t *rule, krelev_pool_t *pool);
// The handler runs as a coroutine: it may use the krelev_aco_* calls and write as it goes.
void krel_rest_mountpoint_set_aco(krel_rest_mountpoint_t *rule, bool on);
// A catch-all rule takes part neither in 404 nor in 405 decisions.
void krel_rest_mountpoint_set_catch_all(krel_rest_mountpoint_t *rule, bool on);
// Runs before every handler; a nonzero result ends the request (the hook has answered).
using krel_rest_hook_t = int (*)(krel_http_rest_closure_t *restc);
void krel_rest_get_handler_hook_register(const char *name, krel_rest_hook_t hook);
// Runs when a response's header is about to be written.
using krel_http_response_hook_t = void (*)(krel_http_session_t *session);
void http_response_starting_hook_register(const char *name, krel_http_response_hook_t hook);
// Serves files below //rest/@document_root; "/" is index.html. Never leaves the root.
int krel_rest_simple_file_handler(krel_http_rest_closure_t *restc, int npats, char **pats);

// ---- start-up
// Reads //rest: @document_root and the limits, durations: @header_timeout (30s, of a header not complete),
// @idle_timeout (75s, between requests), @body_timeout (30s, of a body without progress), @write_timeout
// (60s, of a response without progress).
void krel_http_rest_init();
void krel_capabilities_listener_init();                                   // GET /capa
void krel_capabilities_add_feature(const char *name, const char *value);  // a null value is ""
std::string krel_capabilities_get_features();                             // a JSON object, name to value
void krel_http_set_version(const char *version);                          // what /capa says
// Opens every <listener type="http_rest_api">; other types through krel_listener_register_type.
// A listener that cannot be opened is fatal and says why. `app` names the configuration's root.
void krel_listener_init(const char *app);
// Gets a connected non-blocking socket, which it owns, on the first loop's thread. `listener_config` is a
// const krel_conf_section_t *, the <listener> element; it stays. Such a listener has no TLS. A null callback:
// listeners of that type are configuration for others to read and are not opened.
using krel_accept_callback_t = void (*)(int fd, const std::string &peer, void *listener_config);
void krel_listener_register_type(const char *type, krel_accept_callback_t accept);
int krel_listener_port(int index);  // the port in force of the index-th listener; -1 when there is none
void krel_listener_close_all();     // stop accepting (shutdown); requests in flight go on
uint64_t krel_http_requests_in_flight();

// ---- session parts
krel_http_request_t *krel_http_session_request(krel_http_session_t *session);
krel_http_response_t *krel_http_session_response(krel_http_session_t *session);
krel_http_connection_t *krel_http_session_connection(krel_http_session_t *session);
// The connection's event: its owner, its fd (krelev_get_fd), its loop.
krelev_event_t krel_http_connection_event(krel_http_connection_t *connection);
// Takes the connection off its loop; returns the event whose owner the resume goes back to.
krelev_event_t krel_http_connection_event_float(krel_http_connection_t *connection);
// Puts the session back on the connection's owner thread; fastpath runs there. From any thread.
void krel_http_session_resume_after_float(krel_http_session_t *session);
// In its stead, for a job that cannot finish: answers 500, or ends the connection if the header is out.
void krel_http_session_fail(krel_http_session_t *session);
// Moves the connection to another loop thread; the handler returns the mask right after and is
// called again there.
void krel_http_connection_set_owner(krel_http_connection_t *connection, pthread_t owner);

// ---- request
std::string_view krel_http_request_method(const krel_http_request_t *request);
const char *krel_http_request_uri_str(const krel_http_request_t *request);           // path, undecoded
const char *krel_http_request_orig_querystring(const krel_http_request_t *request);  // "" when none
// A decoded query parameter or null; the first one of that name wins.
const char *krel_http_request_querystring(krel_http_request_t *request, const char *name);
// A header by its lower-case name or null; repeated headers are joined with ", ".
const char *krel_http_request_header(const krel_http_request_t *request, const char *name);
void krel_http_request_headers_each(const krel_http_request_t *request,
                                    void (*function)(const char *name, const char *value, void *closure),
                                    void *closure);
int64_t krel_http_request_content_length(const krel_http_request_t *request);  // -1: unknown (chunked)
bool krel_http_request_payload_complete(const krel_http_request_t *request);
// Reads up to `size` decoded body bytes. > 0 bytes read, 0 the body has ended, -1 with errno: EAGAIN
// nothing now (*mask is what the handler returns to be called again), EPIPE the client went away,
// EINVAL the body's coding is broken. On the owner's thread only.
ssize_t krel_http_session_req_consume(krel_http_session_t *session, void *buffer, size_t size, int *mask);

// ---- response; calls return false once the client is gone. Header calls come before the first flush.
enum krel_http_response_option_e : int {
  KREL_HTTP_CHUNKED = 1,  // stream without a length
  KREL_HTTP_CLOSE = 2,    // close the connection after the answer
  KREL_HTTP_GZIP = 4,     // encode if the client accepts it; false when it does not
  KREL_HTTP_LZ4F = 8,
  KREL_HTTP_COMPRESS = 12,  // whichever of the two the client prefers
};
bool krel_http_response_status_set(krel_http_session_t *session, int code, const char *reason);
bool krel_http_response_header_set(krel_http_session_t *session, const char *name, const char *value);
bool krel_http_response_option_set(krel_http_session_t *session, int option);
bool krel_http_response_append(krel_http_session_t *session, const void *bytes, size_t length);
bool krel_http_response_append_str(krel_http_session_t *session, const char *text);
bool krel_http_response_appendf(krel_http_session_t *session, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
// Sends `length` bytes of the file from `offset` on without copying; takes the fd over.
bool krel_http_response_append_mmap(krel_http_session_t *session, int fd, size_t length, off_t offset);
// Pushes what was appended. Works on the owner's thread and, while floating, on the session's job;
// there it writes to the socket itself as far as it goes. final ends the response.
bool krel_http_response_flush(krel_http_session_t *session, bool final);
bool krel_http_response_end(krel_http_session_t *session);
bool krel_http_response_closed(const krel_http_session_t *session);
size_t krel_http_response_buffered(const krel_http_session_t *session);  // bytes appended and unsent
// While floating: blocks the job until fewer than `limit` bytes are unsent, the client is gone
// (false), or the timeout has passed (false).
bool krel_http_response_wait_drained(krel_http_session_t *session, size_t limit, int timeout_ms);
