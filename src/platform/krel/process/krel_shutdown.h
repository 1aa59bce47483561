#pragma once
// Signals of the child and its orderly end; the public side is in krel_main.h.

// Blocks SIGTERM, SIGINT and SIGHUP in the calling thread and all that it starts later, and starts the
// thread that takes them. Once per process, before other threads.
void krel_signals_start();
// Runs the registered functions, the last one first, on the calling thread. Each runs once.
void krel_shutdown_run();
