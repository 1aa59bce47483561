#include "platform/krel/base/krel_log_writer.h"

#include <fmt/format.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <map>
#include <memory>
#include <thread>
#include <unordered_map>

#include "platform/krel/base/krel_log_outlet.h"
#include "platform/krel/base/krel_util.h"
#include "platform/krel/base/thread_annotations.h"

namespace {

struct stream_s : krel_log_stream_t {
  constexpr stream_s(const char *stream_name, bool on)
      : krel_log_stream_t{{on}, stream_name}, parent(nullptr), top_on(on) {}
  stream_s *parent;                         // fixed once the stream can be found; null at the top
  bool top_on;                              // of a top-level stream without any setting
  std::optional<bool> by_hand, configured;  // under the tree mutex
};

constinit stream_s g_error("error", true);
constinit stream_s g_notice("notice", true);
constinit stream_s g_debug("debug", false);

struct queued_t {
  stream_s *stream;
  std::string line;
};

using outlets_t = std::vector<std::shared_ptr<krel_log_outlet_c>>;

// Lock order: tree, output, queue.
class log_c {
 public:
  static log_c &get() {
    static log_c *log = new log_c;  // never ends: destructors of statics may log
    return *log;
  }

  stream_s *find(std::string_view name) {
    krel_lock_c lock(m_tree);
    return find_locked(name);
  }

  bool exists(std::string_view name) {
    krel_lock_c lock(m_tree);
    return m_streams.count(std::string(name)) != 0;
  }

  void switch_by_hand(std::string_view name, bool on) {
    krel_lock_c lock(m_tree);
    find_locked(name)->by_hand = on;
    refresh();
  }

  stream_s *new_on_fd(std::string_view name, int fd) {
    krel_lock_c lock(m_tree);
    stream_s *stream = find_locked(name);
    stream->by_hand = true;
    refresh();
    krel_lock_c out(m_output);
    m_fd_outlets[stream] = krel_log_outlet_c::on_fd(fd);
    return stream;
  }

  bool configure(const std::vector<krel_log_setting_t> &settings, const std::string &default_path,
                 std::string *error) {
    krel_lock_c lock(m_tree);
    std::map<std::string, std::shared_ptr<krel_log_outlet_c>> opened;  // one per file, however many streams
    auto open = [&](const std::string &path, uint64_t rotate, uint64_t retain) {
      auto &outlet = opened[path];
      if (!outlet) outlet = krel_log_outlet_c::open(path, rotate, retain, error);
      return outlet;
    };
    std::unordered_map<stream_s *, outlets_t> outlets;
    for (const krel_log_setting_t &s : settings) {
      if (s.path.empty()) continue;
      auto outlet = open(s.path, s.rotate_seconds, s.retain_seconds);
      if (!outlet) return false;
      outlets[find_locked(s.name)].push_back(outlet);
    }
    auto fallback = open(default_path.empty() ? "-" : default_path, 0, 0);
    if (!fallback) return false;
    for (auto &[name, stream] : m_streams) stream->configured.reset();
    for (const krel_log_setting_t &s : settings)
      if (s.enabled) find_locked(s.name)->configured = s.enabled;
    refresh();
    krel_lock_c out(m_output);
    write_queued();
    m_outlets.swap(outlets);
    m_fallback = fallback;
    return true;
  }

  void put(stream_s *stream, std::string line) {
    if (m_asynch.load(std::memory_order_acquire)) {
      if (enqueue(stream, line)) return;
    }
    krel_lock_c out(m_output);
    write_queued();
    rotate();
    write(stream, line);
  }

  void put_fatal(stream_s *stream, const std::string &line) NO_THREAD_SAFETY_ANALYSIS {
    for (int tries = 0; !m_output.try_lock(); tries++) {
      if (tries == k_fatal_tries) {
        (void)!::write(STDERR_FILENO, line.data(), line.size());
        return;
      }
      struct timespec ms = {0, 1000000};
      nanosleep(&ms, nullptr);
    }
    write_queued();
    write(stream, line);
    for (krel_log_outlet_c *outlet : outlets_of(stream)) outlet->sync();
    m_output.unlock();  // what other threads log until the abort is still written
  }

  void go_asynch() {
    krel_lock_c mode(m_mode);
    if (m_writer.joinable()) return;
    {
      krel_lock_c queue(m_queue_mutex);
      m_stop = false;
    }
    m_writer = std::thread([this] { writer_loop(); });
    m_asynch.store(true, std::memory_order_release);
  }

  void go_synch() {
    krel_lock_c mode(m_mode);
    m_asynch.store(false, std::memory_order_release);
    if (m_writer.joinable()) {
      {
        krel_lock_c queue(m_queue_mutex);
        m_stop = true;
      }
      m_wake.notify_one();
      m_writer.join();
    }
    krel_lock_c out(m_output);
    write_queued();
  }

  void reopen_all() {
    krel_lock_c out(m_output);
    write_queued();
    for (auto &[stream, outlets] : m_outlets)
      for (auto &outlet : outlets) outlet->reopen();
    m_fallback->reopen();
  }

  void rotation(bool on) {
    krel_lock_c out(m_output);
    m_rotation = on;
  }

 private:
  static constexpr size_t k_queue_bytes = 16 << 20;
  static constexpr int k_fatal_tries = 5000;

  log_c() {
    for (stream_s *s : {&g_error, &g_notice, &g_debug}) m_streams.emplace(s->name, s);
    m_fallback = krel_log_outlet_c::on_fd(STDERR_FILENO);
    std::atexit([] { krel_log_go_synch(); });
    pthread_atfork([] { get().before_fork(); }, [] { get().after_fork(false); },
                   [] { get().after_fork(true); });
  }

  stream_s *find_locked(std::string_view name) REQUIRES(m_tree) {
    auto [it, made] = m_streams.try_emplace(std::string(name));
    if (!made) return it->second;
    auto *stream = it->second = new stream_s(it->first.c_str(), false);  // streams are never freed
    size_t slash = name.rfind('/');
    if (slash != std::string_view::npos && slash > 0) stream->parent = find_locked(name.substr(0, slash));
    stream->has_output.store(is_on(stream), std::memory_order_relaxed);
    return stream;
  }

  static bool is_on(const stream_s *stream) {
    for (const stream_s *s = stream;; s = s->parent) {
      if (s->by_hand) return *s->by_hand;
      if (s->configured) return *s->configured;
      if (s->parent == nullptr) return s->top_on;
    }
  }

  void refresh() REQUIRES(m_tree) {
    for (auto &[name, stream] : m_streams) stream->has_output.store(is_on(stream), std::memory_order_relaxed);
  }

  std::vector<krel_log_outlet_c *> outlets_of(stream_s *stream) REQUIRES(m_output) {
    for (stream_s *s = stream; s != nullptr; s = s->parent) {
      if (auto fd = m_fd_outlets.find(s); fd != m_fd_outlets.end()) return {fd->second.get()};
      auto it = m_outlets.find(s);
      if (it == m_outlets.end()) continue;
      std::vector<krel_log_outlet_c *> found;
      for (auto &outlet : it->second) found.push_back(outlet.get());
      return found;
    }
    return {m_fallback.get()};
  }

  void write(stream_s *stream, std::string_view lines) REQUIRES(m_output) {
    for (krel_log_outlet_c *outlet : outlets_of(stream)) outlet->write(lines);
  }

  void rotate() REQUIRES(m_output) {
    if (!m_rotation) return;
    int64_t now_s = krel_now_ms() / 1000;
    if (now_s == m_rotation_looked_s) return;
    m_rotation_looked_s = now_s;
    for (auto &[stream, outlets] : m_outlets)
      for (auto &outlet : outlets) outlet->rotate_if_due(now_s);
  }

  // False when the writer has gone: the caller writes itself. A full queue drops the line and counts
  // it, since a loop thread must not wait for a disk.
  bool enqueue(stream_s *stream, std::string &line) {
    bool first;
    {
      krel_lock_c queue(m_queue_mutex);
      if (m_stop) return false;
      if (m_queued_bytes + line.size() > k_queue_bytes) {
        m_dropped++;
        return true;
      }
      first = m_queue.empty();
      m_queued_bytes += line.size();
      m_queue.push_back({stream, std::move(line)});
    }
    if (first) m_wake.notify_one();
    return true;
  }

  void write_queued() REQUIRES(m_output) {
    std::vector<queued_t> taken;
    uint64_t dropped;
    {
      krel_lock_c queue(m_queue_mutex);
      taken.swap(m_queue);
      dropped = m_dropped;
      m_dropped = 0;
      m_queued_bytes = 0;
    }
    std::string run;  // neighbours of one stream go out in one write
    for (size_t i = 0; i < taken.size(); i++) {
      run += taken[i].line;
      if (i + 1 < taken.size() && taken[i + 1].stream == taken[i].stream && run.size() < 65536) continue;
      write(taken[i].stream, run);
      run.clear();
    }
    if (dropped > 0)
      write(&g_error, fmt::format("[log] {} lines were dropped: the log's outlets are too slow\n", dropped));
  }

  void writer_loop() {
    krel_thread_setname("log");
    for (;;) {
      {
        krel_lock_c queue(m_queue_mutex);
        while (m_queue.empty() && !m_stop) m_wake.wait(queue);
        if (m_queue.empty()) return;
      }
      krel_lock_c out(m_output);
      rotate();
      write_queued();
    }
  }

  void before_fork() NO_THREAD_SAFETY_ANALYSIS {
    m_mode.lock();
    m_tree.lock();
    m_output.lock();
    m_queue_mutex.lock();
  }

  // The child has no writer thread; what was queued is the parent's to write.
  void after_fork(bool child) NO_THREAD_SAFETY_ANALYSIS {
    if (child && m_writer.joinable()) {
      new (&m_writer) std::thread;
      m_asynch.store(false);
      m_queue.clear();
      m_queued_bytes = 0;
      m_dropped = 0;
      m_stop = true;
    }
    m_queue_mutex.unlock();
    m_output.unlock();
    m_tree.unlock();
    m_mode.unlock();
  }

  krel_mutex_c m_mode;  // guards going synch and asynch; taken before all others
  std::thread m_writer GUARDED_BY(m_mode);
  std::atomic<bool> m_asynch{false};

  krel_mutex_c m_tree;
  std::map<std::string, stream_s *> m_streams GUARDED_BY(m_tree);

  krel_mutex_c m_output;  // guards the outlets and the order of writes
  std::unordered_map<stream_s *, outlets_t> m_outlets GUARDED_BY(m_output);
  std::unordered_map<stream_s *, std::shared_ptr<krel_log_outlet_c>> m_fd_outlets GUARDED_BY(m_output);
  std::shared_ptr<krel_log_outlet_c> m_fallback GUARDED_BY(m_output);
  bool m_rotation GUARDED_BY(m_output) = false;
  int64_t m_rotation_looked_s GUARDED_BY(m_output) = 0;

  krel_mutex_c m_queue_mutex;
  std::vector<queued_t> m_queue GUARDED_BY(m_queue_mutex);
  size_t m_queued_bytes GUARDED_BY(m_queue_mutex) = 0;
  uint64_t m_dropped GUARDED_BY(m_queue_mutex) = 0;
  bool m_stop GUARDED_BY(m_queue_mutex) = true;
  std::condition_variable_any m_wake;
};

stream_s *own(krel_log_stream_t *stream) {
  return static_cast<stream_s *>(stream);
}

}  // namespace

constinit krel_log_stream_t *const krel_error = &g_error;
constinit krel_log_stream_t *const krel_notice = &g_notice;
constinit krel_log_stream_t *const krel_debug = &g_debug;

krel_log_stream_t *krel_log_stream_find(const char *name) {
  return log_c::get().find(name);
}
bool krel_log_stream_exists(const char *name) {
  return log_c::get().exists(name);
}
krel_log_stream_t *krel_log_stream_new_on_fd(const char *name, int fd) {
  return log_c::get().new_on_fd(name, fd);
}
void krel_log_stream_switch(const char *name, bool on) {
  log_c::get().switch_by_hand(name, on);
}

void krel_log_go_synch() {
  log_c::get().go_synch();
}
void krel_log_go_asynch() {
  log_c::get().go_asynch();
}
void krel_log_reopen_all() {
  log_c::get().reopen_all();
}
void krel_log_rotation(bool on) {
  log_c::get().rotation(on);
}

bool krel_log_configure(const std::vector<krel_log_setting_t> &settings, const std::string &default_path,
                        std::string *error) {
  return log_c::get().configure(settings, default_path, error);
}

void krel_log_writer_put(krel_log_stream_t *stream, std::string line) {
  log_c::get().put(own(stream), std::move(line));
}
void krel_log_writer_put_fatal(krel_log_stream_t *stream, const std::string &line) {
  log_c::get().put_fatal(own(stream), line);
}
