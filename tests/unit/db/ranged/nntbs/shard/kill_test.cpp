// The process is killed at seeded moments while it writes, grows and makes shards: everything that was
// acknowledged is there.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "platform/krel/base/krel_log.h"
#include "unit/db/ranged/nntbs/shard/shard_fixture.h"

namespace db::ranged::nntbs {
namespace {

struct ack_t {
  uint32_t shard, sid, first, count, seed;
};

class kill_c : public shard_test_c {
 protected:
  static constexpr int WRITERS = 3;

  std::string shard_path(uint32_t n) const { return m_dir / ("60_" + std::to_string(n)); }

  // Writes until it is killed; each acknowledged range goes to fd, whole, in one write.
  [[noreturn]] void write_for_ever(int fd, uint32_t round) {
    for (const char *stream : {"error", "notice"}) krel_log_stream_switch(stream, false);
    std::vector<std::thread> threads;
    for (uint32_t w = 0; w < WRITERS; ++w)
      threads.emplace_back([=, this] {
        std::mt19937 random(round * 100 + w);
        const auto below = [&](uint32_t bound) { return static_cast<uint32_t>(random() % bound); };
        for (uint32_t n = 0;; ++n) {
          // ever new shards, and older ones that grow
          const uint32_t at = below(1 + n / 8) % 8;
          const ack_t ack = {round * 8 + at, 1 + w, below(200), 1 + below(30), below(UINT32_MAX)};
          const rollup_shard_sp shard = shards[ack.shard % 8];
          if (put_blocks(shard, ack.sid, ack.first, ack.count, ack.seed)) _exit(3);
          if (write(fd, &ack, sizeof ack) != sizeof ack) _exit(4);
        }
      });
    for (std::thread &t : threads) t.join();
    _exit(5);
  }

  std::vector<rollup_shard_sp> shards;
};
INSTANTIATE_ENGINES(kill_c);

TEST_P(kill_c, what_was_acknowledged_is_there) {
  const int rounds = GetParam() == rollup_storage_e::lmdb ? 16 : 5;
  std::mt19937 random(42);
  uint64_t verified = 0;
  for (uint32_t round = 0; round < static_cast<uint32_t>(rounds); ++round) {
    int pipe_fd[2];
    ASSERT_EQ(pipe(pipe_fd), 0);
    const auto acks = static_cast<size_t>(random() % 120);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(pipe_fd[0]);
      for (uint32_t i = 0; i < 8; ++i) shards.push_back(make_shard_at(shard_path(round * 8 + i), 256 << 10));
      write_for_ever(pipe_fd[1], round);
    }
    close(pipe_fd[1]);
    std::map<std::pair<uint32_t, std::pair<uint32_t, uint32_t>>, uint32_t> expected;  // shard, sid, block: seed
    // What one writer did last may be in the store or not: the kill came before its acknowledgement.
    std::vector<ack_t> all;
    ack_t ack;
    const auto take = [&] { return read(pipe_fd[0], &ack, sizeof ack) == sizeof ack; };
    while (all.size() < acks && take()) all.push_back(ack);
    kill(child, SIGKILL);
    while (take()) all.push_back(ack);
    close(pipe_fd[0]);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << WEXITSTATUS(status);
    for (const ack_t &a : all)
      for (uint32_t i = a.first; i < a.first + a.count; ++i) expected[{a.shard, {a.sid, i}}] = a.seed;
    uint64_t wrong = 0;
    for (uint32_t n = round * 8; n < round * 8 + 8; ++n) {
      if (std::filesystem::exists(shard_path(n) + "/" + data_file_of(GetParam()))) {
        ASSERT_EQ(check_btree_file(shard_path(n) + "/" + data_file_of(GetParam()), format(), true), "");
      }
      const rollup_shard_sp shard = make_shard_at(shard_path(n), 256 << 10);
      ASSERT_EQ(shard->maintenance_mode(), ONLINE);
      for (const auto &[place, seed] : expected) {
        if (place.first != n) continue;
        const auto [sid, block] = place.second;
        if (!has_block(shard, sid, block, seed)) {
          // the one write of that metric that was under way may have replaced it
          auto [error, txn] = shard->start_read_transaction();
          nntbs_block_t found;
          uint64_t floor = block * SPAN;
          ASSERT_FALSE(txn->seek(sid, &floor, &found));
          ASSERT_EQ(floor, block * SPAN);
          ASSERT_TRUE(block_is_sound(found));
          ++wrong;
        }
        ++verified;
      }
      ASSERT_FALSE(put_blocks(shard, 77, 0, 1));  // goes on
      ASSERT_TRUE(has_block(shard, 77, 0));
    }
    ASSERT_LE(wrong, 30U * WRITERS);
  }
  EXPECT_GT(verified, 1000U);
}

}  // namespace
}  // namespace db::ranged::nntbs
