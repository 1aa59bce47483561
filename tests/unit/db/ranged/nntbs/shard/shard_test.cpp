// A shard of either engine: blocks in and out, growing, full disks, modes and removal.

#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "db/ranged/nntbs/shard/btree_file.h"
#include "support/log_capture.h"
#include "unit/db/ranged/nntbs/shard/shard_fixture.h"

namespace db::ranged::nntbs {
namespace {

using shard_c = shard_test_c;
INSTANTIATE_ENGINES(shard_c);

nnt_multitype one_cell(uint64_t value) {
  nnt_multitype cell{};
  cell.type = NNT_TYPE_UINT64;
  cell.count = 1;
  cell.value.v_uint64 = value;
  return cell;
}

// Limits how large a file may become, as a full disk does: writes beyond fail.
class full_disk_c {
 public:
  explicit full_disk_c(uint64_t bytes) {
    m_old_handler = signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &m_old);
    struct rlimit limit = m_old;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~full_disk_c() {
    setrlimit(RLIMIT_FSIZE, &m_old);
    signal(SIGXFSZ, m_old_handler);
  }

 private:
  struct rlimit m_old;
  sighandler_t m_old_handler;
};

uint64_t disk_bytes(const std::string &file) {
  struct stat st;
  return stat(file.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_blocks) * 512 : 0;
}

TEST_P(shard_c, blocks_in_key_order) {
  const rollup_shard_sp shard = make_shard();
  ASSERT_FALSE(put_blocks(shard, 2, 3, 4));
  ASSERT_FALSE(put_blocks(shard, 1, 0, 2));
  ASSERT_FALSE(put_blocks(shard, 256, 5, 1));  // ids are little-endian bytes: 256 comes before 1
  auto [error, txn] = shard->start_read_transaction();
  ASSERT_FALSE(error);
  std::vector<std::pair<uint64_t, uint64_t>> seen;
  nntbs_block_t block;
  uint64_t sid, floor;
  for (error = txn->seek_to_first(&sid, &floor, &block); !error; error = txn->next(&sid, &floor, &block)) {
    seen.emplace_back(sid, floor / SPAN);
    EXPECT_TRUE(same(block, make_block(sid, floor)));
  }
  EXPECT_EQ(error, storage_errc_e::not_found);
  const decltype(seen) want = {{256, 5}, {1, 0}, {1, 1}, {2, 3}, {2, 4}, {2, 5}, {2, 6}};
  EXPECT_EQ(seen, want);

  floor = 0;
  EXPECT_FALSE(txn->seek(2, &floor, nullptr));
  EXPECT_EQ(floor, 3 * SPAN);
  floor = 4 * SPAN + 1;
  EXPECT_FALSE(txn->seek(2, &floor, &block));
  EXPECT_EQ(floor, 5 * SPAN);
  floor = 2 * SPAN;  // the next key is another metric's
  EXPECT_EQ(txn->seek(1, &floor, &block), storage_errc_e::not_found);
  floor = 7 * SPAN;  // there is no next key
  EXPECT_EQ(txn->seek(2, &floor, &block), storage_errc_e::not_found);
  txn->stop_read();
}

TEST_P(shard_c, what_is_not_committed_is_gone) {
  const rollup_shard_sp shard = make_shard();
  ASSERT_FALSE(put_blocks(shard, 1, 0, 1));
  for (const bool by_call : {true, false}) {
    auto [error, txn] = shard->start_write_transaction();
    ASSERT_FALSE(error);
    ASSERT_FALSE(txn->put(1, 0, make_block(1, 0, 9)));
    ASSERT_FALSE(txn->put(1, SPAN, make_block(1, SPAN)));
    if (by_call) txn->abort_write();
  }
  EXPECT_TRUE(has_block(shard, 1, 0));
  EXPECT_FALSE(has_block(shard, 1, 1));
  ASSERT_FALSE(put_blocks(shard, 1, 0, 1, 9));
  EXPECT_TRUE(has_block(shard, 1, 0, 9));
}

TEST_P(shard_c, a_reader_sees_one_state_from_whatever_thread) {
  const rollup_shard_sp shard = make_shard();
  ASSERT_FALSE(put_blocks(shard, 1, 0, 1));
  auto [error, txn] = shard->start_read_transaction();
  ASSERT_FALSE(error);
  std::thread([&] { ASSERT_FALSE(put_blocks(shard, 1, 0, 1, 5)); }).join();
  nntbs_block_t block;
  uint64_t floor = 0;
  std::thread([&, txn = std::move(txn)] {
    ASSERT_FALSE(txn->seek(1, &floor, &block));
    EXPECT_TRUE(same(block, make_block(1, 0)));
    txn->stop_read();
  }).join();
  EXPECT_TRUE(has_block(shard, 1, 0, 5));
}

TEST_P(shard_c, first_and_last_time) {
  const rollup_shard_sp shard = make_shard();
  uint64_t ts = 1;
  EXPECT_FALSE(shard->get_timestamp(5, true, &ts));
  auto [error, txn] = shard->start_write_transaction();
  ASSERT_FALSE(error);
  nntbs_block_t block, empty;
  block_init(&empty, 0);
  block_init(&block, 0);
  block_set_cell(&block, 10, one_cell(1));
  block_set_cell(&block, 20, one_cell(1));
  // blocks of empty slots at both ends, and other metrics around; one block that is on no grid
  for (const uint64_t sid : {4U, 5U, 6U}) ASSERT_FALSE(txn->put(sid, sid == 5 ? 2 * SPAN : 0, empty));
  ASSERT_FALSE(txn->put(5, 3 * SPAN, block));
  ASSERT_FALSE(txn->put(5, 7 * SPAN, block));
  ASSERT_FALSE(txn->put(5, 7 * SPAN + 1, block));
  ASSERT_FALSE(txn->put(5, 9 * SPAN, empty));
  ASSERT_FALSE(txn->put(5, 1000 * SPAN, block));
  ASSERT_FALSE(txn->commit_write());
  ASSERT_TRUE(shard->get_timestamp(5, true, &ts));
  EXPECT_EQ(ts, 3 * SPAN + 10 * 60);
  ASSERT_TRUE(shard->get_timestamp(5, false, &ts));
  EXPECT_EQ(ts, 7 * SPAN + 20 * 60);
  EXPECT_FALSE(shard->get_timestamp(4, true, &ts));
  EXPECT_FALSE(shard->get_timestamp(6, false, &ts));
  EXPECT_FALSE(shard->get_timestamp(7, false, &ts));
}

TEST_P(shard_c, deleting_what_is_old) {
  const rollup_shard_sp shard = make_shard();
  ASSERT_FALSE(put_blocks(shard, 1, 0, 5));
  ASSERT_FALSE(put_blocks(shard, 2, 0, 1));
  const uint64_t before = 2 * SPAN + 30 * 60;
  ASSERT_FALSE(shard->delete_before(1, before));
  EXPECT_TRUE(has_block(shard, 2, 0));
  if (GetParam() == rollup_storage_e::lmdb) {
    for (uint64_t i = 0; i < 5; ++i) EXPECT_TRUE(has_block(shard, 1, i));
    return;
  }
  auto [error, txn] = shard->start_read_transaction();
  ASSERT_FALSE(error);
  nntbs_block_t block, want = make_block(1, 2 * SPAN);
  uint64_t floor = 0;
  ASSERT_FALSE(txn->seek(1, &floor, &block));
  ASSERT_EQ(floor, 2 * SPAN);
  EXPECT_TRUE(block_is_sound(block));
  memset(want.datum, 0, 30 * sizeof(nntbs_datum_t));
  block_seal(&want);
  EXPECT_TRUE(same(block, want));
  txn.reset();
  EXPECT_TRUE(has_block(shard, 1, 3));
  EXPECT_TRUE(has_block(shard, 1, 4));
  // a block that ends at that time goes, too: with all its cells cleared, or at once
  ASSERT_FALSE(shard->delete_before(1, UINT64_MAX));
  uint64_t ts;
  EXPECT_FALSE(shard->get_timestamp(1, true, &ts));
}

TEST_P(shard_c, grows_and_keeps_its_size) {
  rollup_shard_sp shard = make_shard();
  ASSERT_FALSE(put_blocks(shard, 1, 0, 600));  // some MiB in one transaction
  EXPECT_GE(shard->get_resize_gen(), 1U);
  for (uint64_t i = 0; i < 600; i += 13) EXPECT_TRUE(has_block(shard, 1, i)) << i;
  shard.reset();
  shard = make_shard();
  ASSERT_FALSE(put_blocks(shard, 2, 0, 200));
  EXPECT_EQ(shard->get_resize_gen(), 0U);
  const uint64_t bytes_a_cell = GetParam() == rollup_storage_e::lmdb ? 36 : 68;
  EXPECT_LT(disk_bytes(file()), 800 * BLOCK_SLOTS * bytes_a_cell);
}

// Four writers fill the shard beside readers whose transactions are long: nobody waits for ever, everything
// that was acknowledged is there.
TEST_P(shard_c, growing_with_many_users) {
  const rollup_shard_sp shard = make_shard();
  constexpr uint64_t ROUNDS = 12, BLOCKS = 40;
  ASSERT_FALSE(put_blocks(shard, 100, 0, 10));
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers, writers;
  for (int r = 0; r < 2; ++r)
    readers.emplace_back([&] {
      while (!stop) {
        auto [error, txn] = shard->start_read_transaction();
        ASSERT_FALSE(error);
        uint64_t sid, floor;
        nntbs_block_t block;
        for (error = txn->seek_to_first(&sid, &floor, &block); !error; error = txn->next(&sid, &floor, &block))
          ASSERT_TRUE(same(block, make_block(sid, floor)));
        ASSERT_EQ(error, storage_errc_e::not_found);
      }
    });
  for (uint64_t w = 1; w <= 4; ++w)
    writers.emplace_back([&, w] {
      for (uint64_t i = 0; i < ROUNDS; ++i) ASSERT_FALSE(put_blocks(shard, w, i * BLOCKS, BLOCKS));
    });
  for (std::thread &t : writers) t.join();
  stop = true;
  for (std::thread &t : readers) t.join();
  for (uint64_t w = 1; w <= 4; ++w)
    for (uint64_t i = 0; i < ROUNDS * BLOCKS; i += 7) EXPECT_TRUE(has_block(shard, w, i)) << w << " " << i;
  EXPECT_LE(shard->get_resize_gen(), 2U);  // 1 MiB, 8 MiB, 64 MiB
}

TEST_P(shard_c, a_resize_that_was_done_is_not_done_again) {
  const rollup_shard_sp shard = make_shard();
  ASSERT_FALSE(put_blocks(shard, 1, 0, 10));
  log_capture_c notice("notice");
  const uint64_t gen = shard->get_resize_gen();
  std::thread a([&] { shard->resize(gen); }), b([&] { shard->resize(gen); });
  a.join();
  b.join();
  EXPECT_EQ(shard->get_resize_gen(), gen + 1);
  EXPECT_TRUE(notice.contains("Mapsize already increased"));
  EXPECT_TRUE(notice.contains((GetParam() == rollup_storage_e::lmdb ? "NNTBS LMDB Mapsize increased for "
                                                                    : "resize: Map size increased for ") +
                              path() + ". old: 1 MiB, new: 8 MiB"));
  EXPECT_TRUE(has_block(shard, 1, 9));
}

TEST_P(shard_c, a_full_disk_costs_only_the_write) {
  const rollup_shard_sp shard = make_shard(64 << 20);
  ASSERT_FALSE(put_blocks(shard, 1, 0, 15));
  uint64_t fits = 0;
  {
    const full_disk_c full(72 * 4096);
    while (fits < 100) {
      const std::error_code error = put_blocks(shard, 2, fits, 10);
      if (error) {
        EXPECT_TRUE(error.value() == EFBIG || error.value() == EIO) << error.message();  // EIO: cut short
        break;
      }
      fits += 10;
    }
    ASSERT_LT(fits, 100U);
    EXPECT_TRUE(put_blocks(shard, 2, fits, 10));  // and again
    EXPECT_EQ(shard->maintenance_mode(), ONLINE);
    for (uint64_t i = 0; i < 15; ++i) EXPECT_TRUE(has_block(shard, 1, i));
  }
  for (uint64_t i = 0; i < fits; ++i) EXPECT_TRUE(has_block(shard, 2, i));
  for (uint64_t i = fits; i < fits + 10; ++i) EXPECT_FALSE(has_block(shard, 2, i));
  ASSERT_FALSE(put_blocks(shard, 2, fits, 20));
  EXPECT_TRUE(has_block(shard, 2, fits + 19));
  shard->close_underlying_storage();
  EXPECT_EQ(check_btree_file(file(), format(), true), "");
}

TEST_P(shard_c, a_full_disk_at_opening_is_no_damage) {
  rollup_shard_sp shard = make_shard();
  {
    const full_disk_c full(0);
    EXPECT_TRUE(shard->open(ONLINE));
    EXPECT_EQ(shard->maintenance_mode(), ONLINE);
  }
  ASSERT_FALSE(put_blocks(shard, 1, 0, 3));
  shard.reset();
  std::filesystem::remove(path() + (GetParam() == rollup_storage_e::lmdb ? "/lock.mdb" : "/mdbx.lck"));
  shard = make_shard();
  {
    const full_disk_c full(0);
    EXPECT_FALSE(has_block(shard, 1, 2));
    EXPECT_EQ(shard->maintenance_mode(), ONLINE);
  }
  EXPECT_TRUE(has_block(shard, 1, 2));
}

TEST_P(shard_c, the_file_decides_the_engine) {
  ASSERT_FALSE(put_blocks(make_shard(), 1, 0, 1));
  const auto other = GetParam() == rollup_storage_e::lmdb ? rollup_storage_e::mdbx : rollup_storage_e::lmdb;
  const rollup_shard_key_c key(0, PERIOD, static_cast<int32_t>(1000 * SPAN));
  const rollup_shard_sp shard =
      rollup_shard_provider_c(other, rollup_lmdb_default_flags())
          .provide(key, std::make_shared<rollup_shard_anchor_c>(path(), rollup_shard_latency_t{}), SMALL_MAP);
  EXPECT_TRUE(has_block(shard, 1, 0));
  EXPECT_FALSE(std::filesystem::exists(path() + "/" + data_file_of(other)));
}

TEST_P(shard_c, modes) {
  const rollup_shard_sp manager = make_shard();
  ASSERT_FALSE(put_blocks(manager, 1, 0, 1));
  EXPECT_TRUE(manager->request_maintenance(ONLINE));
  for (const auto mode : {OFFLINE_PENDING, OFFLINE_RECONSTITUTE, OFFLINE_CORRUPTED, UNKNOWN_STATUS})
    EXPECT_FALSE(manager->request_maintenance(mode));
  rollup_shard_sp caller = manager, user = manager;
  ASSERT_TRUE(caller->request_maintenance(OFFLINE));
  EXPECT_FALSE(caller->request_maintenance(OFFLINE));
  EXPECT_TRUE(has_block(user, 1, 0));  // who is in may go on
  user.reset();
  EXPECT_EQ(manager->maintenance_mode(), OFFLINE_PENDING);
  caller.reset();
  EXPECT_EQ(manager->maintenance_mode(), OFFLINE);
  EXPECT_EQ(manager->start_read_transaction().first, storage_errc_e::wrong_mode);
  EXPECT_EQ(manager->start_write_transaction().first, storage_errc_e::wrong_mode);
  EXPECT_EQ(manager->open(ONLINE), storage_errc_e::wrong_mode);
  ASSERT_TRUE(manager->request_maintenance(ONLINE));
  EXPECT_TRUE(has_block(manager, 1, 0));

  manager->set_maintenance_mode(OFFLINE_RECONSTITUTE);
  EXPECT_FALSE(manager->request_maintenance(ONLINE));
  EXPECT_EQ(manager->open(ONLINE), storage_errc_e::wrong_mode);
  EXPECT_FALSE(manager->open(shard_modes_c(ONLINE) | OFFLINE_RECONSTITUTE));
  EXPECT_FALSE(put_blocks(manager, 1, 1, 1));  // the rebuild itself
}

// Users come and go while the shard is taken offline: the last one to leave, whichever it is, finishes it.
TEST_P(shard_c, going_offline_under_load) {
  for (int round = 0; round < 20; ++round) {
    const rollup_shard_sp manager = make_shard_at(path() + std::to_string(round));
    std::vector<std::thread> users;
    for (int i = 0; i < 4; ++i)
      users.emplace_back([&] {
        for (;;) {
          const rollup_shard_sp user = manager;
          if (user->maintenance_mode() != ONLINE) return;
          auto [error, txn] = user->start_read_transaction();
          ASSERT_FALSE(error);
        }
      });
    {
      const rollup_shard_sp caller = manager;
      ASSERT_TRUE(caller->request_maintenance(OFFLINE));
      caller->wait_for_maintenance_mode();
      EXPECT_EQ(manager->maintenance_mode(), OFFLINE);
    }
    for (std::thread &t : users) t.join();
  }
}

TEST_P(shard_c, removal) {
  const rollup_shard_sp shard = make_shard();
  ASSERT_FALSE(put_blocks(shard, 1, 0, 1));
  {
    auto [error, txn] = shard->start_read_transaction();
    ASSERT_FALSE(error);
    EXPECT_EQ(shard->prep_for_storage_deletion(std::chrono::milliseconds(1)), "");  // in use
  }
  EXPECT_TRUE(has_block(shard, 1, 0));
  std::filesystem::create_directory(path() + ".deleting");
  const std::string renamed = shard->prep_for_storage_deletion(std::chrono::milliseconds(1));
  EXPECT_EQ(renamed, path() + ".deleting-1");
  EXPECT_FALSE(std::filesystem::exists(path()));
  EXPECT_EQ(shard->start_write_transaction().first, storage_errc_e::wrong_mode);
  shard->resize(shard->get_resize_gen());  // a writer that was about to: nothing is made or missed
  EXPECT_FALSE(manageable_rollup_shard_c::delete_underlying_storage(renamed));
  EXPECT_FALSE(std::filesystem::exists(renamed));
}

}  // namespace
}  // namespace db::ranged::nntbs
