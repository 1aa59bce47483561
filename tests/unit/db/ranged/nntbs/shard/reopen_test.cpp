// A store that has given up on itself, as LMDB does when the last step of a commit fails: the shard opens it
// anew.

#include "db/ranged/nntbs/shard/kv_rollup_shard.h"
#include "support/log_capture.h"
#include "unit/db/ranged/nntbs/shard/shard_fixture.h"

namespace db::ranged::nntbs {
namespace {

struct failing_env_c final : kv_env_c {
  std::unique_ptr<kv_env_c> real = make_lmdb_env(LMDB_DEFAULT_FLAGS);
  int begin_answers = 0;  // until it is opened anew
  bool stays = false;     // also then
  int opened = 0;

  const char *name() const override { return real->name(); }
  const char *data_file() const override { return real->data_file(); }
  const char *error_text(int code) const override { return real->error_text(code); }
  std::string check(const std::string &directory, bool whole) const override {
    return real->check(directory, whole);
  }
  kv_status_t open(const std::string &directory, uint64_t map_size) override {
    ++opened;
    if (!stays) begin_answers = 0;
    return real->open(directory, map_size);
  }
  bool is_open() const override { return real->is_open(); }
  void close() override { real->close(); }
  kv_status_t begin(bool writable, std::unique_ptr<kv_txn_c> *out) override {
    if (begin_answers) return {begin_answers, "begin"};
    return real->begin(writable, out);
  }
  map_t get_map() const override { return real->get_map(); }
  int sync() override { return real->sync(); }
  void log_growth(const std::string &, uint64_t, uint64_t) const override {}
};

class shard_on_c final : public kv_rollup_shard_c {
 public:
  shard_on_c(const std::string &path, std::unique_ptr<kv_env_c> env)
      : kv_rollup_shard_c(rollup_shard_key_c(0, PERIOD, static_cast<int32_t>(1000 * SPAN)),
                          std::make_shared<rollup_shard_anchor_c>(path, rollup_shard_latency_t{}),
                          std::move(env), SMALL_MAP) {}
  std::error_code delete_before(uint64_t, uint64_t) override { return {}; }

 private:
  ~shard_on_c() override = default;
};

TEST(reopen, after_the_store_gave_up) {
  const temp_dir_c dir;
  auto owned = std::make_unique<failing_env_c>();
  failing_env_c &env = *owned;
  const rollup_shard_sp shard(new shard_on_c(dir / "60_0-7620000", std::move(owned)));
  const auto put = [&](uint64_t sid) {
    auto [error, txn] = shard->start_write_transaction();
    if (!error) error = txn->put(sid, 0, make_block(sid, 0));
    return error ? error : txn->commit_write();
  };
  ASSERT_FALSE(put(1));
  const int before = env.opened;
  log_capture_c errors("error");
  env.begin_answers = static_cast<int>(storage_errc_e::panic);
  EXPECT_FALSE(put(2));
  EXPECT_EQ(env.opened, before + 1);
  env.begin_answers = static_cast<int>(storage_errc_e::panic);
  env.stays = true;
  EXPECT_EQ(put(3), storage_errc_e::panic);  // once is enough
  EXPECT_EQ(shard->maintenance_mode(), ONLINE);
  env.begin_answers = static_cast<int>(storage_errc_e::readers_full);
  EXPECT_EQ(shard->start_read_transaction().first, storage_errc_e::readers_full);
  EXPECT_EQ(shard->maintenance_mode(), ONLINE);
  env.begin_answers = 0;
  for (const uint64_t sid : {1U, 2U}) {
    auto [error, txn] = shard->start_read_transaction();
    nntbs_block_t block;
    uint64_t floor = 0;
    ASSERT_FALSE(txn->seek(sid, &floor, &block));
    EXPECT_TRUE(same(block, make_block(sid, 0)));
  }
}

}  // namespace
}  // namespace db::ranged::nntbs
