#pragma once
// The pools and their threads, and who owns what.

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/krel/event/krelev_loop.h"

struct krelev_pool_t {
  std::string name;
  std::vector<std::unique_ptr<krelev_loop_c>> loops;
};

// All pools of a run: fixed from krelev_init to krelev_stop, so that reading needs no lock.
class krelev_pools_c {
 public:
  krelev_pools_c(uint32_t default_threads, const std::vector<std::pair<std::string, uint32_t>> &further);
  ~krelev_pools_c();

  static krelev_pools_c &get();   // asserts that krelev_init was called
  static krelev_pools_c *find();  // null before
  static void install(std::unique_ptr<krelev_pools_c> pools);
  static void uninstall();

  void start();                   // all loops on threads of their own
  [[noreturn]] void run_first();  // the first loop on the calling thread, the others on theirs
  bool started() const { return m_gate.load(std::memory_order_acquire) == k_open; }
  void stop();  // ends and joins; after start only
  krelev_loop_c &first() { return *m_pools.front()->loops.front(); }
  krelev_loop_c *of_thread(pthread_t thread);  // null when that thread has none
  const std::vector<std::unique_ptr<krelev_pool_t>> &pools() const { return m_pools; }

 private:
  static constexpr int k_closed = 0, k_open = 1;

  void open_gate();

  std::vector<std::unique_ptr<krelev_pool_t>> m_pools;  // "default" first
  std::vector<std::thread> m_threads;
  std::atomic<int> m_gate{k_closed};  // the threads wait until it opens
  pthread_t m_initial_thread;         // stands for the first loop until that has a thread
};

krelev_loop_c *krelev_default_owner();  // the calling loop, else the first; null before krelev_init
krelev_loop_c *krelev_owner_of(krelev_event_s *event);  // gives it the default owner if it has none
void krelev_post_on(krelev_loop_c *loop, std::function<void()> function);
