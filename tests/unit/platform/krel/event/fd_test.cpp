#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "support.h"

namespace {

struct pair_t {
  int ours = -1, theirs = -1;
  pair_t() {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
    ours = fds[0];
    theirs = fds[1];
  }
  ~pair_t() {
    close(ours);
    if (theirs >= 0) close(theirs);
  }
  void send(const char *text) {
    EXPECT_EQ(write(theirs, text, strlen(text)), static_cast<ssize_t>(strlen(text)));
  }
};

struct reader_t {
  std::function<int(krelev_event_t, int)> on_event;
  static int callback(krelev_event_t event, int mask, void *closure, const struct timeval *) {
    return static_cast<reader_t *>(closure)->on_event(event, mask);
  }
};

std::string read_all(int fd) {
  char buffer[256];
  ssize_t n = read(fd, buffer, sizeof buffer);
  return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
}

}  // namespace

TEST(fd_event, reports_readiness_and_follows_the_mask_that_is_returned) {
  krelev_run_c run;
  pair_t pair;
  counter_c calls;
  std::string got;
  std::vector<int> masks;
  reader_t reader{[&](krelev_event_t event, int mask) {
    masks.push_back(mask);
    int next = mask == KRELEV_READ ? KRELEV_WRITE : 0;  // read, then wait for room, then leave
    if (mask == KRELEV_READ) got += read_all(krelev_get_fd(event));
    calls.add();
    return next;
  }};
  krelev_event_t event = krelev_alloc_fd(pair.ours, KRELEV_READ, reader_t::callback, &reader);
  krelev_add(event);
  pair.send("abc");
  ASSERT_TRUE(calls.reaches(2));
  counter_c settled;
  krelev_post(krelev_get_owner(event), [&] {
    krelev_free(event);  // it came off and is ours again
    settled.add();
  });
  ASSERT_TRUE(settled.reaches(1));
  EXPECT_EQ(got, "abc");
  EXPECT_EQ(masks, (std::vector<int>{KRELEV_READ, KRELEV_WRITE}));
}

// A connection is passed round between the loops with a read on each: the way of float and resume.
TEST(fd_event, moves_between_owners_without_losing_data) {
  krelev_run_c run({{"concurrency", "3"}});
  pair_t pair;
  constexpr int k_moves = 500;
  counter_c calls;
  std::atomic<int> wrong{0};
  int moves = 0;
  reader_t reader{[&](krelev_event_t event, int mask) {
    if (!pthread_equal(pthread_self(), krelev_choose_owner(moves)) || mask != KRELEV_READ) ++wrong;
    if (read_all(krelev_get_fd(event)) != "x") ++wrong;
    krelev_remove_fd(event);
    if (++moves == k_moves) {
      krelev_free(event);
    } else {
      pair.send("x");  // before the next owner has it
      krelev_set_owner(event, krelev_choose_owner(moves));
      krelev_add(event);
    }
    calls.add();
    return static_cast<int>(KRELEV_READ);  // of no consequence: the event is elsewhere
  }};
  krelev_event_t event = krelev_alloc_fd(pair.ours, KRELEV_READ, reader_t::callback, &reader);
  pair.send("x");
  krelev_add(event);
  EXPECT_TRUE(calls.reaches(k_moves));
  run.stop();
  EXPECT_EQ(wrong, 0);
}

TEST(fd_event, exception_alone_is_silent_about_data_and_sees_the_hang_up) {
  krelev_run_c run({{"concurrency", "1"}});
  pair_t pair;
  counter_c calls, passed;
  std::atomic<int> seen{0};
  reader_t reader{[&](krelev_event_t event, int mask) {
    seen = mask;
    krelev_remove_fd(event);
    krelev_free(event);
    calls.add();
    return 0;
  }};
  krelev_add(krelev_alloc_fd(pair.ours, KRELEV_EXCEPTION, reader_t::callback, &reader));
  pair.send("data");
  for (int i = 0; i < 3; ++i) {  // whole turns, with looks at the fds between
    krelev_post(krelev_choose_owner(0), [&] { passed.add(); });
    ASSERT_TRUE(passed.reaches(i + 1));
  }
  EXPECT_EQ(calls.get(), 0);
  close(pair.theirs);
  pair.theirs = -1;
  ASSERT_TRUE(calls.reaches(1));
  EXPECT_EQ(seen, KRELEV_EXCEPTION);
}

TEST(fd_event, removed_or_freed_while_on_its_way_never_fires) {
  krelev_run_c run({{"concurrency", "2"}});
  pair_t pair;
  pair.send("ready at once");
  std::atomic<int> fired{0};
  reader_t reader{[&](krelev_event_t, int) {
    ++fired;
    return 0;
  }};
  counter_c entered, done;
  std::mutex gate;
  gate.lock();
  // Behind this post the event is on its way to the loop, but not there.
  krelev_event_t kept = krelev_alloc_fd(pair.ours, KRELEV_READ, reader_t::callback, &reader);
  krelev_event_t freed = krelev_alloc_fd(pair.theirs, KRELEV_WRITE, reader_t::callback, &reader);
  krelev_post(krelev_choose_owner(0), [&] {
    entered.add();
    std::lock_guard wait(gate);
    krelev_remove_fd(kept);
    krelev_remove_fd(freed);
    krelev_free(freed);
  });
  ASSERT_TRUE(entered.reaches(1));
  krelev_add(kept);
  krelev_add(freed);
  gate.unlock();
  krelev_post(krelev_choose_owner(0), [&] {
    krelev_free(kept);
    done.add();
  });
  EXPECT_TRUE(done.reaches(1));
  run.stop();
  EXPECT_EQ(fired, 0);
}

TEST(fd_event, one_that_throws_comes_off_its_loop) {
  krelev_run_c run({{"concurrency", "1"}});
  pair_t pair;
  pair.send("x");
  std::atomic<int> calls{0};
  reader_t reader{[&](krelev_event_t, int) -> int {
    ++calls;
    throw std::runtime_error("on purpose");
  }};
  krelev_event_t event = krelev_alloc_fd(pair.ours, KRELEV_READ, reader_t::callback, &reader);
  krelev_add(event);
  ASSERT_TRUE(becomes_true([&] { return calls == 1; }));
  counter_c done;
  krelev_post(krelev_choose_owner(0), [&] {
    krelev_free(event);
    done.add();
  });
  EXPECT_TRUE(done.reaches(1));
  EXPECT_EQ(calls, 1) << "the data is still there, but nobody asks for it";
}
