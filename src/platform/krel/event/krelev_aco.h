#pragma once
// Coroutines as the event system's own parts see them. All on the loop's thread.

#include "platform/krel/event/krelev_loop.h"

class krelev_aco_c;

krelev_aco_c *krelev_aco_current();  // null outside
krelev_loop_c &krelev_aco_loop(krelev_aco_c *aco);
void krelev_aco_begin(krelev_loop_c &loop, void (*function)(void *), void *argument);  // runs to its first wait
// From a coroutine: goes back to the loop until someone resumes it.
void krelev_aco_wait();
void krelev_aco_resume(krelev_aco_c *aco);     // from the loop, of one that waits
void krelev_aco_end_all(krelev_loop_c &loop);  // unwinds all that wait
