#include "platform/krel/http/http_connection.h"

#include <algorithm>
#include <atomic>

#include "platform/krel/base/krel_log.h"

namespace {

constexpr size_t pipeline_high = 64 * 1024;   // unsent answers that stop the next pipelined request
constexpr int64_t discard_limit = 64 * 1024;  // a longer unread body costs the connection
constexpr size_t linger_limit = 1024 * 1024;
constexpr int max_requests_a_turn = 64;

std::atomic<bool> winding_up{false};

}  // namespace

krel_http_connection_t *http_connection_of(http_wheel_entry_t *entry) {
  return reinterpret_cast<krel_http_connection_t *>(entry);
}

void http_connections_wind_up(bool on) {
  winding_up = on;
}

bool http_connections_winding_up() {
  return winding_up.load(std::memory_order_relaxed);
}

krel_http_connection_t::~krel_http_connection_t() {
  if (event) krelev_free(event);
}

void http_connection_serve(std::unique_ptr<http_transport_c> transport, pthread_t owner) {
  auto connection = std::make_unique<krel_http_connection_t>(std::move(transport));
  krel_http_connection_t *raw = connection.release();  // its event owns it from here on
  krelev_post(owner, [raw] { raw->start(); });
}

void krel_http_connection_t::start() {
  event = krelev_alloc_fd(transport->fd(), KRELEV_READ, on_event, this);
  krelev_set_owner(event, pthread_self());
  pool = krelev_get_pool_for_event(event);
  loop = http_loop_t::current();
  loop->link(&wheel);
  loop->set_deadline(&wheel, http_timeouts().header_ms);
  arm(KRELEV_READ);
}

void krel_http_connection_t::arm(int mask) {
  if (!event) return;
  krelev_set_mask(event, mask);
  if (armed) return;
  armed = true;
  krelev_add(event);
}

int krel_http_connection_t::on_event(krelev_event_t event, int, void *closure, const struct timeval *) {
  auto *connection = static_cast<krel_http_connection_t *>(closure);
  if (connection->state == http_state_e::parked) {
    connection->armed = false;
    return 0;
  }
  const int mask = connection->run();
  if (mask == PARKED) return krelev_get_mask(event);
  if (mask != GONE) return mask;
  delete connection;
  return 0;
}

int krel_http_connection_t::run() {
  blocked = false;
  input.forget_short_read();
  if (!out.empty() && state != http_state_e::parked) send();
  for (int requests = 0;;) {
    step_e step = step_e::wait;
    if (broken && state != http_state_e::handler) {
      step = die();
    } else {
      switch (state) {
        case http_state_e::header:
          if (++requests > max_requests_a_turn) {
            // The others get their turn; what is unparsed makes the next event come at once.
            if (!send()) continue;
            return KRELEV_READ | KRELEV_WRITE;
          }
          step = step_header();
          break;
        case http_state_e::handler:
          step = step_handler();
          break;
        case http_state_e::response:
          step = step_response();
          break;
        case http_state_e::discard:
          step = step_discard();
          break;
        case http_state_e::closing:
          step = step_closing();
          break;
        case http_state_e::lingering:
          step = step_lingering();
          break;
        case http_state_e::parked:
        case http_state_e::gone:
          return 0;
      }
    }
    if (step == step_e::next) continue;
    if (step == step_e::off) return 0;
    if (step == step_e::gone) return GONE;
    if (step == step_e::parked) return PARKED;
    if (!out.empty() && !blocked && !send()) continue;
    if (out.empty()) settle();
    return wait_mask();
  }
}

// What to wait for, and how long.
int krel_http_connection_t::wait_mask() {
  const http_timeouts_t &limits = http_timeouts();
  const int to_write = out.empty() ? 0 : transport->write_needs();
  if (to_write) loop->set_deadline(&wheel, limits.write_ms);
  switch (state) {
    case http_state_e::handler: {
      int mask = session->result;
      if (!to_write) {
        // A body must make progress; a handler that waits to write has nothing to wait for.
        if (wheel.deadline == 0 || session->request.received != seen)
          loop->set_deadline(&wheel, limits.body_ms);
        seen = session->request.received;
      }
      const bool waiting = input.staged() > 0 || input.unparsed() > 0 || transport->pending();
      if ((mask & KRELEV_READ) && (mask & KRELEV_WRITE) == 0 && waiting) mask |= KRELEV_WRITE;
      if (mask & KRELEV_READ) mask = (mask & ~KRELEV_READ) | transport->read_needs();
      mask = (mask & (KRELEV_READ | KRELEV_WRITE)) | to_write;
      return mask ? mask : KRELEV_READ;
    }
    case http_state_e::header:
      // Deadlines of reading are set where reading stopped.
      return to_write ? to_write : transport->read_needs();
    case http_state_e::discard:
      return transport->read_needs() | to_write;
    case http_state_e::lingering:
      return transport->read_needs();
    default:
      return to_write ? to_write : KRELEV_WRITE;
  }
}

bool krel_http_connection_t::send() {
  while (!out.empty()) {
    http_segment_t *front = out.front();
    ssize_t n;
    if (front->fd >= 0) {
      off_t offset = static_cast<off_t>(front->begin);
      n = transport->send_file(front->fd, &offset, front->size());
    } else {
      struct iovec pieces[16];
      const int count = out.pieces(pieces, 16);
      n = transport->write(pieces, count);
    }
    if (n == HTTP_AGAIN) {
      blocked = true;
      return true;
    }
    if (n < 0) {
      broken = true;
      out.clear();
      return false;
    }
    out.consume(static_cast<size_t>(n));
  }
  return true;
}

// Brings the response to the socket as far as that takes it.
bool krel_http_connection_t::pump_and_send(bool flushing) {
  krel_http_response_t &response = session->response;
  for (;;) {
    response.pump(session->request, out, http_date_header(), flushing);
    blocked = false;
    if (!send()) return false;
    if (blocked || response.ended || response.broken || response.body.empty()) return true;
  }
}

// ---- the header of a request

krel_http_connection_t::step_e krel_http_connection_t::step_header() {
  if (input.unparsed() == 0) {
    const step_e step = read_header_bytes();
    if (step != step_e::next) return step;
  }
  if (out.size() > pipeline_high) {
    if (!send()) return step_e::next;
    if (out.size() > pipeline_high) return step_e::wait;
  }
  if (!session) {
    session = loop->take_session();
    session->begin(this);
    input.begin_request();
    loop->clear_deadline(&wheel);
    served = true;
  }
  switch (session->request.parse_header(input)) {
    case http_parse_e::complete:
      return start_request();
    case http_parse_e::failed:
      return refuse(session->request.error_code, session->request.error);
    case http_parse_e::more:
      break;
  }
  return step_e::next;
}

// next: there is something to parse.
krel_http_connection_t::step_e krel_http_connection_t::read_header_bytes() {
  // Answers go out before anything more is read: a reader that is slow with them stops here.
  if (!out.empty()) {
    if (!send()) return step_e::next;
    if (!out.empty()) return step_e::wait;
  }
  if (!session && http_connections_winding_up()) return die();
  ssize_t n = HTTP_AGAIN;
  if (!input.short_read() || transport->pending()) n = input.fill_header(*transport);
  if (n > 0) return step_e::next;
  if (n != HTTP_AGAIN) return die();
  const http_timeouts_t &limits = http_timeouts();
  if (!session) {
    input.release();
    // A fresh connection keeps the deadline it came with.
    if (served) loop->set_deadline(&wheel, limits.idle_ms);
  } else if (wheel.deadline == 0) {
    loop->set_deadline(&wheel, limits.header_ms);
  }
  return step_e::wait;
}

// An answer of the layer to a request that it cannot hand on; the connection ends with it.
krel_http_connection_t::step_e krel_http_connection_t::refuse(int code, const char *text) {
  if (!session) {
    session = loop->take_session();
    session->begin(this);
  }
  session->request.keep_alive = session->request.aborted = false;
  session->request.message_complete = false;
  session->answer_error(code, text);
  state = http_state_e::response;
  return step_e::next;
}

krel_http_connection_t::step_e krel_http_connection_t::start_request() {
  loop->in_flight.fetch_add(1, std::memory_order_relaxed);
  session->counted = true;
  loop->clear_deadline(&wheel);
  seen = 0;
  const krel_http_request_t &request = session->request;
  http_match_t match;
  switch (http_rules_match(request.method(), {request.path, request.path_length}, &match)) {
    case http_match_e::found:
      break;
    case http_match_e::no_path:
      session->answer_error(404, "not found");
      state = http_state_e::response;
      return step_e::next;
    case http_match_e::no_method:
      session->response.set_header("Allow", http_rules_allowed({request.path, request.path_length}));
      session->answer_error(405, "method not allowed");
      state = http_state_e::response;
      return step_e::next;
  }
  session->rule = match.rule;
  if (!session->set_groups(match)) return refuse(400, "a NUL in the path");
  state = http_state_e::handler;
  if (event) {
    krelev_pool_t *wanted = match.rule->pool ? match.rule->pool : krelev_pool("default");
    if (wanted != pool) return move(krelev_choose_owner_pool(wanted, transport->fd()));
  }
  return step_e::next;
}

// ---- the handler

krel_http_connection_t::step_e krel_http_connection_t::step_handler() {
  if (broken) session->request.aborted = true;
  // One that waits to write is called again when there is room for its writing.
  if (session->result != 0 && !session->request.aborted && out.size() >= HTTP_HIGH_WATER) return step_e::wait;
  session->result = session->call();
  if (state == http_state_e::parked) return step_e::parked;
  return after_handler();
}

krel_http_connection_t::step_e krel_http_connection_t::after_handler() {
  if (moving) {
    moving = false;
    return move(move_to);
  }
  if (broken) return die();
  krel_http_response_t &response = session->response;
  if (response.broken) return die();
  if (!response.final) {
    if (session->request.aborted && !response.header_out) {
      response.reset_to_error();
      return timed_out ? refuse(408, "the request's body stalls")
                       : refuse(400, "the request's body ends early");
    }
    if (session->request.aborted) return die();
    if (session->result != 0) return step_e::wait;
    if (response.status == 0 && response.body.empty() && !response.header_out)
      session->fail_internal();
    else
      krel_http_response_flush(session.get(), true);
  }
  state = http_state_e::response;
  return step_e::next;
}

// The handler has said all; its answer goes to the queue, and the request ends.
krel_http_connection_t::step_e krel_http_connection_t::step_response() {
  krel_http_response_t &response = session->response;
  krel_assert(response.final || broken);
  while (!response.ended) {
    response.pump(session->request, out, http_date_header(), false);
    if (response.broken) return die();
    if (response.ended) break;
    if (!send()) return step_e::next;
    if (blocked) return step_e::wait;
  }
  return end_request();
}

krel_http_connection_t::step_e krel_http_connection_t::end_request() {
  krel_http_request_t &request = session->request;
  close_after = session->response.close;
  if (!close_after && !request.message_complete) {
    state = http_state_e::discard;
    return step_e::next;
  }
  const bool unread = !request.message_complete;
  // In flight until its answer is with the socket: a stop waits for that.
  if (session->counted && !owes) {
    session->counted = false;
    owes = true;
  }
  session->end();
  loop->give_session(std::move(session));
  input.end_request();
  loop->clear_deadline(&wheel);
  if (close_after) {
    close_after = unread || input.unparsed() > 0;  // whether there is something to linger for
    state = http_state_e::closing;
  } else {
    state = http_state_e::header;
  }
  return step_e::next;
}

// What a handler left of a short body is read past.
krel_http_connection_t::step_e krel_http_connection_t::step_discard() {
  krel_http_request_t &request = session->request;
  while (!request.message_complete) {
    input.drop_stage();
    if (input.unparsed() == 0) {
      if (!out.empty() && !blocked && !send()) return step_e::next;
      const ssize_t n = input.fill_body(*transport, &request.header_block);
      if (n == HTTP_AGAIN) {
        if (wheel.deadline == 0 && out.empty()) loop->set_deadline(&wheel, http_timeouts().body_ms);
        return step_e::wait;
      }
      if (n <= 0) {
        session->response.close = true;
        break;
      }
    }
    if (!request.parse_body(input) || request.received > 2 * static_cast<uint64_t>(discard_limit)) {
      session->response.close = true;
      break;
    }
  }
  return end_request();
}

krel_http_connection_t::step_e krel_http_connection_t::step_closing() {
  if (!out.empty()) {
    if (!send()) return step_e::next;
    if (!out.empty()) return step_e::wait;
  }
  if (!close_after) return die();
  // The peer still sends: closing now would reset the connection under the answer.
  transport->shutdown_write();
  state = http_state_e::lingering;
  seen = 0;
  loop->set_deadline(&wheel, http_timeouts().linger_ms);
  return step_e::next;
}

krel_http_connection_t::step_e krel_http_connection_t::step_lingering() {
  char drop[4096];
  for (int i = 0; i < 16; i++) {
    const ssize_t n = transport->read(drop, sizeof(drop));
    if (n == HTTP_AGAIN) return step_e::wait;
    if (n <= 0) return die();
    seen += static_cast<uint64_t>(n);
    if (seen > linger_limit) return die();
  }
  return step_e::wait;
}

// ---- ends, pauses and moves

void krel_http_connection_t::settle() {
  if (owes) loop->in_flight.fetch_sub(1, std::memory_order_relaxed);
  owes = false;
}

krel_http_connection_t::step_e krel_http_connection_t::die() {
  settle();
  if (session) {
    session->end();
    loop->give_session(std::move(session));
  }
  if (wheel.prev) loop->unlink(&wheel);
  if (armed) krelev_remove_fd(event);
  armed = false;
  transport.reset();
  out.clear();
  input.release();
  state = http_state_e::gone;
  return step_e::gone;
}

void krel_http_connection_t::on_deadline() {
  switch (state) {
    case http_state_e::header:
      if (!out.empty() || (!session && served) || !transport->is_established())
        die();
      else
        refuse(408, "the request's header took too long");
      break;
    case http_state_e::handler:
      if (!out.empty()) {
        broken = true;
        out.clear();
      }
      session->request.aborted = timed_out = true;
      break;
    case http_state_e::discard:
      session->response.close = true;
      end_request();
      break;
    default:
      die();
  }
  come_back();
}

void krel_http_connection_t::come_back() {
  const int mask = state == http_state_e::gone ? GONE : run();
  if (mask == GONE)
    delete this;
  else if (mask > 0)
    arm(mask);
}

void krel_http_connection_t::park() {
  if (state == http_state_e::parked) return;
  state = http_state_e::parked;
  if (!out.empty()) send();
  if (wheel.prev) loop->unlink(&wheel);
}

void krel_http_connection_t::resume(bool call_on) {
  loop = http_loop_t::current();
  loop->link(&wheel);
  state = http_state_e::handler;
  session->floating = false;
  blocked = false;
  input.forget_short_read();
  if (session->failed) {
    session->fail_internal();
  } else if (call_on && !session->response.final && !broken && session->restc.fastpath) {
    session->result = session->call();
    if (state == http_state_e::parked) return;
  } else if (call_on) {
    session->result = 0;
  }
  if (after_handler() != step_e::off) come_back();  // else it is with another thread
}

krel_http_connection_t::step_e krel_http_connection_t::move(pthread_t owner) {
  park();
  if (armed) krelev_remove_fd(event);
  armed = false;
  krelev_set_owner(event, owner);
  krelev_post(owner, [this] {
    loop = http_loop_t::current();
    loop->link(&wheel);
    pool = krelev_get_pool_for_event(event);
    state = http_state_e::handler;
    come_back();
  });
  return step_e::off;
}
