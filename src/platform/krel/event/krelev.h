#pragma once
// Events, loop pools, timers, job queues and coroutines.
//
// Threads: a loop pool is N threads with one loop each. An event belongs to one loop thread (its
// owner) and its callback runs only there. Adding an event, queueing a job and waking a loop are safe
// from any thread. A loop thread never blocks: doors of blocking operations assert !krelev_in_loop().

#include <pthread.h>
#include <sys/time.h>

#include <cstdint>
#include <functional>
#include <string>

struct krelev_event_s;
using krelev_event_t = krelev_event_s *;  // owned by the event system once added, by the caller before
struct krelev_jobq_t;
struct krelev_pool_t;
struct krelev_subqueue_t {  // identity of a sub-queue: jobs of equal id run in order, one at a time
  uint64_t id;
};
constexpr uint64_t KRELEV_NO_SUBQUEUE = 0;  // sub-queue id of a job that is in none

enum krelev_mask_e : int {
  KRELEV_READ = 1,
  KRELEV_WRITE = 2,
  KRELEV_EXCEPTION = 4,
  KRELEV_TIMER = 8,
  KRELEV_ASYNCH_WORK = 16,
  KRELEV_ASYNCH_CLEANUP = 32,
  KRELEV_ASYNCH_COMPLETE = 48,
  KRELEV_RECURRENT = 64,
};

// For a file event the result is the mask to wait for next; 0 takes the event off the loop. The fd
// stays open unless the callback closed it, and the event is the caller's again (free it or add it
// again). A callback that hands its event to another thread, frees it or moves it calls
// krelev_remove_fd first; what it returns then no longer matters. Every other kind returns 0.
// A callback that throws is logged; a file event that did so is taken off its loop.
using krelev_callback_t = int (*)(krelev_event_t event, int mask, void *closure, const struct timeval *now);

// ---- start-up. Parameters are the keys of <krelev><config>; later calls for one key win, the
// configuration (//krelev/config/KEY) beats both. "jobq_NAME" =
// "concurrency,min,max[,gc|none][,backlog][,lifo|fifo]", "concurrency" = threads of the pool "default",
// "loop_NAME" = threads of a further pool. An unknown key or a value that does not parse is fatal.
void krelev_config(const char *key, const char *value);
int krelev_init();                // makes pools and queues; 0 on success. Once, before anything below
[[noreturn]] void krelev_loop();  // runs the first loop of "default" on the calling thread
// Tests and tools: starts all loops on threads of their own and returns; stop ends and joins them
// together with the queues. After stop krelev_init may be called again.
void krelev_start_threads();
void krelev_stop();

// ---- names, for diagnostics (/capa, logs)
void krelev_name_callback(const char *name, krelev_callback_t callback);
const char *krelev_name_for_callback(krelev_callback_t callback);  // "unnamed" when it has none

// ---- pools and owners
krelev_pool_t *krelev_pool(const char *name);  // null when there is none; "default" always exists
int krelev_loop_concurrency(krelev_pool_t *pool = nullptr);
bool krelev_in_loop();
pthread_t krelev_choose_owner(int index);  // loop thread index modulo count of "default"; 0 is the first
pthread_t krelev_choose_owner_pool(krelev_pool_t *pool, int index);
void krelev_set_owner(krelev_event_t event, pthread_t owner);
pthread_t krelev_get_owner(krelev_event_t event);
krelev_pool_t *krelev_get_pool_for_event(krelev_event_t event);
// Runs a function once on that loop thread, in order of posting. From any thread.
void krelev_post(pthread_t owner, std::function<void()> function);

// ---- events. An event's owner is the loop that allocated it, or the first of "default".
void *krelev_get_closure(krelev_event_t event);
void krelev_set_closure(krelev_event_t event, void *closure);
krelev_callback_t krelev_get_callback(krelev_event_t event);
void krelev_free(krelev_event_t event);  // of an event that is not added

// Mask: READ and WRITE; errors and hang-ups come as whichever of them is asked for. EXCEPTION alone
// waits for an error or a full hang-up and stays silent about data.
krelev_event_t krelev_alloc_fd(int fd, int mask, krelev_callback_t callback, void *closure);
int krelev_get_fd(krelev_event_t event);
int krelev_get_mask(krelev_event_t event);
void krelev_set_mask(krelev_event_t event, int mask);  // on the owner's thread
void krelev_add(krelev_event_t event);                 // starts any kind of event on its owner
// Takes a file event off its loop without closing the fd, on the owner's thread. The event stays
// valid and can be added again, also with another owner.
void krelev_remove_fd(krelev_event_t event);
int krelev_set_fd_nonblocking(int fd);

// A timer fires once at an absolute wall-clock time on its owner's loop and frees itself.
krelev_event_t krelev_alloc_timer(krelev_callback_t callback, void *closure, const struct timeval *when);
// True when the timer had not fired and now never will; the event is then the caller's to free. From
// any thread, at any time: a timer that fires, has fired or is long gone gives false.
bool krelev_remove_timed(krelev_event_t event);
// A recurrent event runs in every turn of its owner's loop (at least every 10 ms while it returns
// nonzero; a callback that returns 0 has had nothing to do and is asked again within 1 s).
krelev_event_t krelev_alloc_recurrent(krelev_callback_t callback, void *closure);

// ---- job queues
krelev_jobq_t *krelev_jobq_create(const char *name);                         // null if the name is taken
krelev_jobq_t *krelev_jobq_create_ms(const char *name, bool memory_safety);  // threads run inside epochs
krelev_jobq_t *krelev_jobq_retrieve(const char *name);                       // null when there is none
const char *krelev_jobq_name(const krelev_jobq_t *jobq);
// True when krelev_config or the configuration gave the queue its values.
bool krelev_jobq_is_configured(const krelev_jobq_t *jobq);
// Threads start on demand up to the concurrency, which is kept within min and max (max 0: no bound),
// and end when idle beyond the floor. A created queue has concurrency 1, min 1, max 0. Setting min and
// max sets the floor to min.
void krelev_jobq_set_concurrency(krelev_jobq_t *jobq, uint32_t threads);
void krelev_jobq_set_min_max(krelev_jobq_t *jobq, uint32_t min, uint32_t max);
void krelev_jobq_get_min_max(const krelev_jobq_t *jobq, uint32_t *min, uint32_t *max);
void krelev_jobq_set_floor(krelev_jobq_t *jobq, uint32_t threads);
void krelev_jobq_set_max_backlog(krelev_jobq_t *jobq, uint32_t jobs);  // 0: no limit
bool krelev_jobq_get_memory_safety(const krelev_jobq_t *jobq);
// Runs what is queued, then joins the threads. Blocks: not on a loop, not on a thread of the queue.
// A job added later is never run.
void krelev_jobq_drain_and_shutdown(krelev_jobq_t *jobq);
void krelev_jobq_destroy(krelev_jobq_t *jobq);  // drains first

// A job's callback runs three times and returns 0 each time: WORK and CLEANUP on a queue thread,
// COMPLETE on the event's owner (the loop thread that allocated it, or the first of "default"; set
// another with krelev_set_owner). After COMPLETE the event is freed. A job that throws is logged,
// counts as done, and its CLEANUP and COMPLETE still run.
krelev_event_t krelev_alloc_asynch(krelev_callback_t callback, void *closure);
void krelev_add_asynch(krelev_jobq_t *jobq, krelev_event_t event);  // null queue: the default queue
void krelev_add_asynch_subqueue(krelev_jobq_t *jobq, krelev_event_t event, uint64_t subqueue);
// False when the backlog limit is reached: the event stays the caller's.
bool krelev_try_add_asynch(krelev_jobq_t *jobq, krelev_event_t event);
bool krelev_try_add_asynch_subqueue(krelev_jobq_t *jobq, krelev_event_t event, uint64_t subqueue);
// Light form without an event and without the hop back: runs the function once on a queue thread.
void krelev_jobq_run(krelev_jobq_t *jobq, std::function<void()> function);

// Figures of the recent past weigh most: counts are halved every 65,536 jobs.
struct krelev_jobq_figures_t {
  std::string name;
  uint32_t concurrency, min, max, max_backlog, threads;
  uint64_t backlog, in_flight, total;
  double wait_mean_us, wait_p99_us, run_mean_us, run_p99_us;
};
void krelev_jobq_for_each(const std::function<void(const krelev_jobq_figures_t &)> &function);
struct krelev_pool_figures_t {
  std::string name;
  uint32_t threads;
  uint64_t events, turns;
};
void krelev_pool_for_each(const std::function<void(const krelev_pool_figures_t &)> &function);

// Heartbeats for the watchdog: seconds since the slowest loop last completed a turn.
double krelev_slowest_loop_age_s();

// ---- coroutines, each on one loop thread for its life, with a stack of 128 KiB. No lock and no
// krel_memory section may be held across a call that waits. One that throws is logged and ends.
// Starts one soon, on the calling loop, else on the first of "default". From any thread.
void krelev_aco_start(void (*function)(void *), void *argument);
bool krelev_is_aco();
void *krelev_aco_arg();
void krelev_aco_sleep(const struct timeval *duration);
// Runs the function on the queue and resumes the coroutine on its loop after it. One that throws is
// logged and counts as done.
void krelev_aco_simple_asynch_queue_subqueue(krelev_jobq_t *jobq, uint64_t subqueue, void (*function)(void *),
                                             void *closure);
struct krelev_aco_gate_s;
using krelev_aco_gate_t = krelev_aco_gate_s *;
krelev_aco_gate_t krelev_aco_gate();  // belongs to the loop of the coroutine that makes it
void krelev_aco_run_asynch_queue_subqueue_gated(krelev_aco_gate_t gate, krelev_jobq_t *jobq, uint64_t subqueue,
                                                void (*function)(void *), void *closure);
void krelev_aco_gate_wait(krelev_aco_gate_t gate);  // waits for all started under the gate, frees it
