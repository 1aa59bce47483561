#include "platform/krel/event/krelev_fd.h"

#include <event2/event.h>
#include <fcntl.h>
#include <poll.h>

#include <memory>

#include "platform/krel/base/krel_log.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev_loop.h"
#include "platform/krel/event/krelev_pool.h"
#include "platform/krel/event/krelev_thread.h"

// idle: the caller's. adding: on its way to its owner. added: on the loop.
enum class krelev_fd_state_e { idle, adding, added };

// After the hand-over by krelev_add only the owner's thread touches one.
struct krelev_fd_event_t final : krelev_event_s, krelev_task_c {
  krelev_fd_event_t(int fd_, int mask_, krelev_callback_t callback_, void *closure_)
      : krelev_event_s(krelev_kind_e::fd, mask_, callback_, closure_), fd(fd_) {}
  ~krelev_fd_event_t() {
    if (libevent != nullptr) event_free(libevent);
  }
  void run(krelev_loop_c &) override;  // arrives at its owner
  void drop() override { delete this; }

  int fd;
  krelev_fd_state_e state = krelev_fd_state_e::idle;
  bool withdrawn = false;            // removed while adding
  bool freed = false;                // freed while adding
  bool *left = nullptr;              // of the running callback: set when the event is no longer its own
  struct event *libevent = nullptr;  // of the owner's base while added
  krelev_fd_event_t *prev_added = nullptr, *next_added = nullptr;
};

namespace {

krelev_fd_event_t *fd_event(krelev_event_s *event) {
  krel_assert(event->kind == krelev_kind_e::fd);
  return static_cast<krelev_fd_event_t *>(event);
}

void dispatch(evutil_socket_t, short ready, void *closure);

bool only_exception(int mask) {
  return (mask & (KRELEV_READ | KRELEV_WRITE)) == 0;
}

// libevent shows errors and hang-ups as readiness. A wait for nothing else takes edges of both kinds
// and asks poll what they mean.
short libevent_mask(int mask) {
  int out = EV_PERSIST;
  if (only_exception(mask)) return EV_PERSIST | EV_READ | EV_WRITE | EV_ET;
  if (mask & KRELEV_READ) out |= EV_READ;
  if (mask & KRELEV_WRITE) out |= EV_WRITE;
  return static_cast<short>(out);
}

bool has_exception(int fd) {
  struct pollfd p = {fd, 0, 0};
  return poll(&p, 1, 0) == 1 && (p.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
}

void put_on(krelev_fd_event_t *e) {
  e->libevent = event_new(e->loop->base(), e->fd, libevent_mask(e->mask), dispatch, e);
  krel_assert(e->libevent != nullptr);
  if (event_add(e->libevent, nullptr) != 0) krel_fatal("fd %d cannot be added to a loop\n", e->fd);
  e->state = krelev_fd_state_e::added;
  krelev_fd_event_t *&list = e->loop->fd_events();
  e->next_added = list;
  e->prev_added = nullptr;
  if (list != nullptr) list->prev_added = e;
  list = e;
}

void take_off(krelev_fd_event_t *e) {
  event_free(e->libevent);  // deletes it from the base first
  e->libevent = nullptr;
  e->state = krelev_fd_state_e::idle;
  if (e->prev_added != nullptr)
    e->prev_added->next_added = e->next_added;
  else
    e->loop->fd_events() = e->next_added;
  if (e->next_added != nullptr) e->next_added->prev_added = e->prev_added;
  if (e->left != nullptr) *e->left = true;
  e->left = nullptr;
}

void change_mask(krelev_fd_event_t *e, int mask) {
  if (mask == e->mask) return;
  e->mask = mask;
  event_del(e->libevent);
  event_assign(e->libevent, e->loop->base(), e->fd, libevent_mask(mask), dispatch, e);
  krel_assert(event_add(e->libevent, nullptr) == 0);
}

void dispatch(evutil_socket_t, short ready, void *closure) {
  auto *e = static_cast<krelev_fd_event_t *>(closure);
  int mask = 0;
  if (only_exception(e->mask)) {
    if (!has_exception(e->fd)) return;
    mask = KRELEV_EXCEPTION;
  } else {
    if (ready & EV_READ) mask |= KRELEV_READ;
    if (ready & EV_WRITE) mask |= KRELEV_WRITE;
  }
  e->loop->note_event();
  struct timeval now = krelev_timeval(static_cast<int64_t>(krel_now_us()));
  bool left = false;
  e->left = &left;
  int next = 0;
  krelev_guarded("file event", e->callback, [&] { next = e->callback(e, mask, e->closure, &now); });
  if (left) return;
  e->left = nullptr;
  if (next == 0)
    take_off(e);
  else
    change_mask(e, next);
}

}  // namespace

void krelev_fd_event_t::run(krelev_loop_c &) {
  if (freed) {
    delete this;
  } else if (withdrawn) {
    withdrawn = false;
    state = krelev_fd_state_e::idle;
  } else {
    put_on(this);
  }
}

krelev_event_t krelev_alloc_fd(int fd, int mask, krelev_callback_t callback, void *closure) {
  return std::make_unique<krelev_fd_event_t>(fd, mask, callback, closure).release();
}

int krelev_get_fd(krelev_event_t event) {
  return fd_event(event)->fd;
}

int krelev_set_fd_nonblocking(int fd) {
  int flags = fcntl(fd, F_GETFL, 0);
  return flags < 0 ? -1 : fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

void krelev_fd_add(krelev_event_s *event) {
  krelev_fd_event_t *e = fd_event(event);
  krelev_loop_c *loop = krelev_owner_of(e);
  krel_assert(e->mask != 0);
  if (e->state == krelev_fd_state_e::adding && e->withdrawn && krelev_loop_c::current() == loop) {
    e->withdrawn = false;
    return;
  }
  krel_assert(e->state == krelev_fd_state_e::idle);
  if (krelev_loop_c::current() == loop) return put_on(e);
  e->state = krelev_fd_state_e::adding;
  loop->post(e);
}

void krelev_set_mask(krelev_event_t event, int mask) {
  krelev_fd_event_t *e = fd_event(event);
  krel_assert(mask != 0);
  if (e->state != krelev_fd_state_e::added) {
    e->mask = mask;
    return;
  }
  krel_assert(krelev_loop_c::current() == e->loop);
  change_mask(e, mask);
}

void krelev_remove_fd(krelev_event_t event) {
  krelev_fd_event_t *e = fd_event(event);
  if (e->state == krelev_fd_state_e::idle) return;
  krel_assert(krelev_loop_c::current() == e->loop);
  if (e->state == krelev_fd_state_e::adding)
    e->withdrawn = true;
  else
    take_off(e);
}

void krelev_fd_free(krelev_event_s *event) {
  krelev_fd_event_t *e = fd_event(event);
  if (e->state == krelev_fd_state_e::adding && e->withdrawn) {
    e->freed = true;
    return;
  }
  krel_assert(e->state == krelev_fd_state_e::idle);
  delete e;
}

bool krelev_fd_is_idle(krelev_event_s *event) {
  return fd_event(event)->state == krelev_fd_state_e::idle;
}

void krelev_fd_drop(krelev_fd_event_t *event) {
  take_off(event);
  delete event;
}
