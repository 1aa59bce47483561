#include <gtest/gtest.h>

#include <cerrno>
#include <latch>

#include "platform/krel/event/krelev.h"
#include "support/temp_dir.h"
#include "util/io/files.h"
#include "util/io/tolv_move.h"

namespace {

class tolv_asynch_move_test : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(krelev_init(), 0);
    krelev_start_threads();
    tolv_move_init();
  }
  static void TearDownTestSuite() { krelev_stop(); }
  // Starts it and waits for its result, which must come on a queue's thread.
  template <typename F>
  int result_of(F &&start) {
    std::latch done(1);
    int result = -1;
    bool on_loop = true;
    start([&](int error) {
      result = error;
      on_loop = krelev_in_loop();
      done.count_down();
    });
    done.wait();
    EXPECT_FALSE(on_loop);
    return result;
  }
};

TEST_F(tolv_asynch_move_test, moves_and_unlinks_on_a_queue_and_tells_the_outcome) {
  temp_dir_c dir;
  auto &files = util::io::system_files();
  ASSERT_FALSE(util::io::atomic_replace(dir / "a", "x"));
  EXPECT_EQ(result_of([&](auto done) { tolv_asynch_move(nullptr, dir / "a", dir / "sub/b", done); }), 0);
  EXPECT_TRUE(files.exists(dir / "sub/b") && !files.exists(dir / "a"));
  EXPECT_EQ(result_of([&](auto done) { tolv_asynch_move(nullptr, dir / "a", dir / "c", done); }), ENOENT);
  EXPECT_EQ(result_of([&](auto done) { tolv_asynch_unlink(nullptr, dir / "sub/b", done); }), 0);
  EXPECT_FALSE(files.exists(dir / "sub/b"));
  EXPECT_EQ(result_of([&](auto done) { tolv_asynch_unlink(nullptr, dir / "sub/b", done); }), ENOENT);
}

}  // namespace
