#pragma once
#include "platform/krel/event/krelev_event.h"

struct krelev_fd_event_t;
bool krelev_fd_is_idle(krelev_event_s *event);  // neither on a loop nor on its way to one
void krelev_fd_drop(krelev_fd_event_t *event);  // of a loop that has ended: takes it off and frees it
