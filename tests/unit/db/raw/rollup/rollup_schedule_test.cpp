// When shards are rolled up and deleted, and what keeps them.

#include <gtest/gtest.h>

#include <filesystem>

#include "rollup_fixture.h"

namespace db::raw {
namespace {

constexpr uint64_t START = NOW - DAY;

class rollup_schedule : public testing::Test {
 protected:
  rollup_schedule() {
    init_private_nan();
    for (uint64_t id = 1; id <= 40; id++) lookup.add(id);
    open();
  }
  ~rollup_schedule() override { rollup_hooks_clear(); }
  void open(const store_options_t &options = {}) {
    store.reset();
    store = std::make_unique<store_c>(dir.path(), &lookup, std::vector<rollup_target_c *>{&minutes}, options);
  }
  void write(uint64_t at_s, int value = 1) { store->write({nom_sample_t::of_int32(1, at_s * 1000, value)}); }
  std::shared_ptr<raw_shard_c> shard() { return store->shard(START); }
  bool is_finished() { return shard()->get_rollup_progress().is_finished(); }
  // Lets that time pass, with all that falls due on the way.
  void pass_s(uint64_t seconds) {
    for (const uint64_t end_s = now_s + seconds; now_s < end_s;) {
      now_s = std::min(now_s + HOUR, end_s);
      store->set_now(now_s);
      store->steps.run_all();
    }
  }

  const temp_dir_c dir;
  fake_lookup_c lookup;
  fake_target_c minutes{60};
  std::unique_ptr<store_c> store;
  uint64_t now_s = NOW;
};

TEST_F(rollup_schedule, a_shard_lives_from_its_samples_to_its_delete) {
  write(START);
  pass_s(8 * HOUR);
  EXPECT_EQ(minutes.calls, 0U);
  pass_s(9 * HOUR);
  EXPECT_EQ(minutes.calls, 1U);
  EXPECT_TRUE(is_finished());
  const std::string path = shard()->get_dir_name();
  pass_s(9 * DAY);
  EXPECT_TRUE(std::filesystem::exists(path));
  pass_s(DAY);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(minutes.calls, 1U);  // what is finished is not walked again
}

TEST_F(rollup_schedule, a_late_sample_is_rolled_up_soon_and_not_at_the_delete) {
  write(START);
  pass_s(DAY);
  ASSERT_TRUE(is_finished());
  write(START + 61, 9);
  EXPECT_FALSE(is_finished());
  pass_s(17 * HOUR);
  EXPECT_TRUE(is_finished());
  EXPECT_EQ(minutes.numbers.size(), 2U);
}

TEST_F(rollup_schedule, nothing_that_was_not_rolled_up_is_deleted) {
  minutes.fails_at_id = 1;
  const log_capture_c log("error");
  write(START);
  const std::string path = shard()->get_dir_name();
  pass_s(20 * DAY);
  EXPECT_TRUE(std::filesystem::exists(path));
  minutes.fails_at_id = 0;
  pass_s(2 * DAY);
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(rollup_schedule, waits_while_the_node_is_rebuilt) {
  write(START);
  store->reconstituting = true;
  pass_s(3 * DAY);
  EXPECT_EQ(minutes.calls, 0U);
  EXPECT_EQ(shard()->in_manager(), IN_MANAGER_NO);
  store->reconstituting = false;
  pass_s(DAY);
  EXPECT_TRUE(is_finished());
}

TEST_F(rollup_schedule, a_shard_that_is_offline_waits) {
  write(START);
  const auto offline = shard();
  ASSERT_TRUE(offline->request_maintenance_mode(OFFLINE, std::chrono::milliseconds(100)).ok);
  pass_s(2 * DAY);
  EXPECT_EQ(minutes.calls, 0U);
  EXPECT_EQ(store->ctx->force_rollup(START), force_rollup_e::refused);
  ASSERT_TRUE(offline->request_maintenance_mode(ONLINE, std::chrono::milliseconds(100)).ok);
  pass_s(2 * DAY);
  EXPECT_EQ(minutes.calls, 1U);
}

TEST_F(rollup_schedule, deletes_wait_for_a_rebalance) {
  write(START);
  pass_s(DAY);
  const std::string path = shard()->get_dir_name();
  store->deferral = "rebalance";
  pass_s(11 * DAY);
  EXPECT_TRUE(std::filesystem::exists(path));
  store->deferral = nullptr;
  pass_s(120);
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(rollup_schedule, a_forced_one_takes_what_is_there) {
  EXPECT_EQ(store->ctx->force_rollup(START), force_rollup_e::no_shard);
  EXPECT_EQ(store->ctx->force_rollup(UINT64_MAX / 1000 + 1), force_rollup_e::no_shard);
  write(START);
  EXPECT_EQ(store->ctx->force_rollup(START + 5), force_rollup_e::submitted);
  EXPECT_EQ(store->ctx->force_rollup(START), force_rollup_e::in_progress);
  write(START + 61);  // between the order and the pass
  EXPECT_EQ(store->steps.run_all(), 1U);
  EXPECT_EQ(minutes.numbers.size(), 2U);
  EXPECT_TRUE(is_finished());
  EXPECT_EQ(shard()->in_manager(), IN_MANAGER_NO);
}

TEST_F(rollup_schedule, a_forced_one_walks_on_while_samples_arrive_and_is_repeated) {
  for (uint64_t id = 1; id <= 40; id++) store->write({nom_sample_t::of_int32(id, START * 1000, 1)});
  rollup_step_hook_register(
      "writer",
      [](void *closure, const char *, const char *step) {
        if (std::string_view(step) == "start")
          static_cast<store_c *>(closure)->write({nom_sample_t::of_int32(1, START * 1000 + 1, 1)});
      },
      store.get());
  store->roll_up(START);
  rollup_hooks_clear();
  EXPECT_EQ(minutes.numbers.size(), 40U);
  EXPECT_FALSE(is_finished());
  pass_s(9 * HOUR);
  EXPECT_TRUE(is_finished());
}

TEST_F(rollup_schedule, a_timer_that_falls_due_in_mid_pass_leaves_its_marks_alone) {
  write(START);
  rollup_step_hook_register(
      "late",
      [](void *closure, const char *, const char *step) {
        auto *self = static_cast<store_c *>(closure);
        if (std::string_view(step) != "record") return;
        self->write({nom_sample_t::of_int32(1, START * 1000 + 61000, 1)});
        self->set_now(NOW + DAY);
      },
      store.get());
  store->roll_up(START);
  rollup_hooks_clear();
  EXPECT_FALSE(is_finished());
}

TEST_F(rollup_schedule, a_maintenance_takes_the_shard_out_of_a_pass) {
  for (uint64_t id = 1; id <= 40; id++) store->write({nom_sample_t::of_int32(id, START * 1000, 1)});
  struct closure_t {
    std::shared_ptr<raw_shard_c> shard;
    std::thread thread;
    std::atomic<bool> ok{false};
  } closure{shard(), {}, {}};
  rollup_step_hook_register(
      "offline",
      [](void *c, const char *, const char *step) {
        auto *self = static_cast<closure_t *>(c);
        if (std::string_view(step) != "state" || self->thread.joinable()) return;
        self->thread = std::thread(
            [self] { self->ok = self->shard->request_maintenance_mode(OFFLINE, std::chrono::seconds(60)).ok; });
        while (self->shard->maintenance_mode() == ONLINE) std::this_thread::yield();
      },
      &closure);
  store->roll_up(START);
  closure.thread.join();
  rollup_hooks_clear();
  EXPECT_TRUE(closure.ok);
  EXPECT_TRUE(closure.shard->get_rollup_progress().rollup_in_progress());
  ASSERT_TRUE(closure.shard->request_maintenance_mode(ONLINE, std::chrono::seconds(60)).ok);
  pass_s(DAY);
  EXPECT_TRUE(is_finished());
  EXPECT_EQ(minutes.numbers.size(), 40U);
}

TEST_F(rollup_schedule, the_names_of_suppressed_metrics_go_with_their_samples) {
  open({.suppress = "and(quiet:yes)"});
  lookup.metrics.clear();
  lookup.add(1, METRIC_TYPE_NUMERIC, "gone|ST[quiet:yes]");
  lookup.add(2, METRIC_TYPE_NUMERIC, "kept");
  lookup.add(3, METRIC_TYPE_NUMERIC, "active|ST[quiet:yes]");
  lookup.add(4, METRIC_TYPE_TEXT, "text|ST[quiet:yes]");
  for (const uint64_t id : {1, 2, 4}) velmar_metric_locator_record_activity(lookup.metrics[id].get(), START);
  velmar_metric_locator_record_activity(lookup.metrics[3].get(), NOW + 12 * DAY);
  write(START);
  write(NOW + 5 * DAY);  // a shard that stays
  pass_s(14 * DAY);
  std::vector<uint64_t> left;
  for (const auto &[id, locator] : lookup.metrics) left.push_back(id);
  EXPECT_EQ(left, (std::vector<uint64_t>{2, 3, 4}));
}

}  // namespace
}  // namespace db::raw
