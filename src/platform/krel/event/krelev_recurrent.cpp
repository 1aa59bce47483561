#include "platform/krel/event/krelev_recurrent.h"

#include <memory>

#include "platform/krel/base/krel_util.h"
#include "platform/krel/event/krelev_loop.h"
#include "platform/krel/event/krelev_pool.h"
#include "platform/krel/event/krelev_thread.h"

krelev_event_t krelev_alloc_recurrent(krelev_callback_t callback, void *closure) {
  return std::make_unique<krelev_event_s>(krelev_kind_e::recurrent, KRELEV_RECURRENT, callback, closure)
      .release();
}

void krelev_recurrent_free(krelev_event_s *event) {
  std::unique_ptr<krelev_event_s>{event};
}

void krelev_recurrent_add(krelev_event_s *event) {
  krelev_owner_of(event);
  krelev_post_on(event->loop, [event] { event->loop->add_recurrent(event); });
}

bool krelev_recurrent_run(krelev_event_s *event) {
  bool busy = false;
  struct timeval now = krelev_timeval(static_cast<int64_t>(krel_now_us()));
  krelev_guarded("recurrent event", event->callback,
                 [&] { busy = event->callback(event, KRELEV_RECURRENT, event->closure, &now) != 0; });
  return busy;
}
