#pragma once
#include "platform/krel/event/krelev_event.h"

bool krelev_recurrent_run(krelev_event_s *event);  // on the owner's thread; true when it had work
