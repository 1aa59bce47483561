#pragma once
// The life of the daemon: instance lock, monitor and child, signals, orderly end.
//
// foreground 0: a daemon, a monitor and its child. 1: monitor and child in the foreground. 2 and more:
// no monitor, the calling process is the child. The monitor restarts a child that dies or stops beating,
// after 1 s to 30 s, and gives up after 5 deaths within 60 s of their own start. Its result is the
// process's: 0 when the child ended by itself with 0 or on request, the child's status when it exited
// before it had started (krel_watchdog_enable_all), 1 when it gave up.

#include <sys/types.h>

#include <functional>

// The lock is an advisory one on the file `//@pidfile` or "<local state>/<app>.pid", which holds the pid
// of the process to signal. lock 1: fail (result 1) when another instance holds it, 2: wait for it.
// glider: a program that the monitor runs as `glider PID crash|watchdog` on a crash and before it kills a
// child that hangs; null or "" for none. user and group are for krel_conf_security_init, which
// child_main calls: the monitor keeps its rights. Returns the process's exit status.
int krel_main(const char *app, const char *config_file, int debug, int foreground, int lock, const char *glider,
              const char *user, const char *group, int (*child_main)());
// Ends the running instance: SIGTERM, then up to 60 s. 0 once there is none, 1 when it is still there.
int krel_main_terminate(const char *app, const char *config_file, int debug);
// 0 and the ids when an instance runs, 1 when none does.
int krel_main_status(const char *app, const char *config_file, int debug, pid_t *pid, pid_t *pgid);

// May be called before the configuration is read, which they beat.
void krel_main_enable_log(const char *stream);
void krel_main_disable_log(const char *stream);
void krel_main_krelev_config(const char *key, const char *value);  // to krelev_config

// SIGTERM and SIGINT: the functions run once, the last registered first, on a thread of their own; then
// the log is drained and the process exits with 0. A function that throws is logged and passed over.
void krel_main_on_shutdown(const char *name, std::function<void()> function);
bool krel_main_shutting_down();
// SIGHUP: log files are reopened, then the handler is called with the signal's number on a thread.
void krel_main_on_hangup(void (*handler)(int signal));
