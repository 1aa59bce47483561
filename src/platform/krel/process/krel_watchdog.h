#pragma once
// The child's side of the watchdog. Without a monitor all of these do nothing harmful.

// Starts the thread that reports the loops' turns to the monitor, which restarts the child when the
// slowest loop has not turned for `//watchdog/@timeout` (a duration, default 30 s, at least 5 s).
void krel_watchdog_child_krelev_heartbeat();
// Bracket long work that keeps loops from turning, such as start-up. enable also tells the monitor that
// the start is over.
void krel_watchdog_disable_all();
void krel_watchdog_enable_all();
// A hung child is killed with a core dump. From now on the monitor waits until the dump is whole before
// it goes on, instead of cutting it off after a few seconds. Before krel_main.
void krel_watchdog_disable_asynch_core_dump();
