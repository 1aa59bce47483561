// Files that are not what they should be: cut short, pages that were never written, bits that have turned. The
// process survives all of them; what still opens can be used.

#include <filesystem>
#include <fstream>
#include <sstream>

#include "db/ranged/nntbs/shard/kv_engine.h"
#include "support/log_capture.h"
#include "unit/db/ranged/nntbs/shard/shard_fixture.h"

namespace db::ranged::nntbs {
namespace {

constexpr uint64_t METRICS = 40, BLOCKS = 12;

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}
void write_file(const std::string &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

class damage_c : public shard_test_c {
 protected:
  // A file with a tree of some depth and a list of free pages.
  void SetUp() override {
    const rollup_shard_sp shard = make_shard(16 << 20);
    for (uint64_t round = 0; round < 3; ++round)
      ASSERT_FALSE(put_blocks(shard, 1, 0, BLOCKS - 4 * round, 0, METRICS, round + 1));
    shard->close_underlying_storage();
    ASSERT_EQ(check_btree_file(file(), format(), true), "");
    m_good = read_file(file());
    m_good.resize(std::min(m_good.size(), (used_pages() + 64) * 4096));  // less to write; the store extends it
    find_structure();
  }
  // The pages of the trees and the head: those that the file cannot do without.
  void find_structure() {
    const size_t pages = used_pages();
    for (size_t n = 0; n < pages; ++n) {
      const auto flags = static_cast<uint8_t>(m_good[n * 4096 + format().flags_at]);
      if (flags != 1 && flags != 2 && flags != 8) continue;
      std::string bytes = m_good;
      std::fill_n(bytes.begin() + static_cast<long>(n * 4096), 4096, '\0');
      write_file(file(), bytes);
      if (!check_btree_file(file(), format(), true).empty()) m_structure.push_back(n);
    }
    write_file(file(), m_good);
    ASSERT_GT(m_structure.size(), 8U);
  }
  // How many pages are in use.
  size_t used_pages() const { return m_good.find_last_not_of('\0') / 4096 + 1; }
  // Everything that the store does, on whatever is there. True when the shard is still online afterwards.
  bool use(uint64_t seed) {
    const rollup_shard_sp shard = make_shard(16 << 20);
    uint64_t blocks = 0;
    {
      auto [error, txn] = shard->start_read_transaction();
      uint64_t sid, floor, ts;
      nntbs_block_t block;
      if (!error)
        for (error = txn->seek_to_first(&sid, &floor, &block); !error; error = txn->next(&sid, &floor, &block))
          ++blocks;
      txn.reset();
      EXPECT_LE(blocks, METRICS * BLOCKS);
      for (sid = 1; sid <= METRICS; ++sid) shard->get_timestamp(sid, sid % 2 == 0, &ts);
    }
    for (std::error_code error = storage_errc_e::map_full; error == storage_errc_e::map_full;) {
      auto [started, txn] = shard->start_write_transaction();
      error = started;
      for (uint64_t n = seed % 7; n < METRICS * BLOCKS && !error; n += 3) {
        const uint64_t sid = 1 + n / BLOCKS, floor = n % BLOCKS * SPAN;
        error = txn->put(sid, floor, make_block(sid, floor));
      }
      if (!error) error = txn->commit_write();
    }
    shard->delete_before(2, 5 * SPAN);
    if (shard->maintenance_mode() != ONLINE) {
      EXPECT_EQ(shard->maintenance_mode(), OFFLINE_CORRUPTED);
      return false;
    }
    // what was taken is there
    EXPECT_FALSE(put_blocks(shard, 1000, 0, 3));
    EXPECT_TRUE(has_block(shard, 1000, 2));
    return true;
  }

  std::string m_good;
  std::vector<size_t> m_structure;
};
INSTANTIATE_ENGINES(damage_c);

TEST_P(damage_c, cut_files_are_seen_at_once) {
  const size_t end = (m_structure.back() + 1) * 4096;  // behind it there may be pages that were given back
  for (const size_t size : {0UL, 100UL, 4095UL, 4096UL, 8192UL, 12288UL, end / 2, end / 2 + 1, end - 1}) {
    write_file(file(), m_good.substr(0, size));
    log_capture_c errors("error");
    const rollup_shard_sp shard = make_shard();
    EXPECT_EQ(shard->maintenance_mode(), OFFLINE_CORRUPTED) << size;
    EXPECT_TRUE(errors.contains(path() + " is damaged and stays offline"));
    EXPECT_TRUE(errors.contains("put the directory back from a backup"));
    EXPECT_EQ(shard->start_read_transaction().first, storage_errc_e::wrong_mode);
    EXPECT_EQ(std::filesystem::file_size(file()), size);  // left as it is
  }
  // Put back, and taken online by hand.
  const rollup_shard_sp shard = make_shard();
  write_file(file(), m_good);
  EXPECT_TRUE(shard->request_maintenance(ONLINE));
  EXPECT_TRUE(has_block(shard, METRICS, BLOCKS - 1));
}

TEST_P(damage_c, no_mutation_takes_the_process_down) {
  log_capture_c errors("error"), notices("notice");
  const bool lmdb = GetParam() == rollup_storage_e::lmdb;
  const size_t pages = used_pages();
  int refused = 0;
  const char *const more = getenv("VELMAR_MUTATIONS");
  const uint64_t seeds = more ? strtoull(more, nullptr, 10) : lmdb ? 200 : 60;
  for (uint64_t seed = 1; seed <= seeds; ++seed) {
    std::mt19937_64 random(seed);
    std::string bytes = m_good;
    const size_t page = (random() % 4 ? m_structure[random() % m_structure.size()] : random() % pages) * 4096;
    const size_t other = random() % pages * 4096;
    switch (random() % 6) {
      case 0:  // never written
        std::fill_n(bytes.begin() + static_cast<long>(page), 4096, '\0');
        break;
      case 1:  // an older or another page in its place
        bytes.replace(page, 4096, m_good, other, 4096);
        break;
      case 2:
        for (size_t i = 0; i < 64; ++i) bytes[page + random() % 4096] = static_cast<char>(random());
        break;
      case 3:  // in the header and the offsets, and in the trees' records of the head
        bytes[page + random() % 200] ^= static_cast<char>(1U << random() % 8);
        break;
      case 4:
        bytes[random() % 300 + 4096 * (random() % 3)] ^= static_cast<char>(1U << random() % 8);
        break;
      default:
        bytes[page + random() % 4096] = static_cast<char>(random());
    }
    write_file(file(), bytes);
    if (!use(seed)) ++refused;
    if (HasFailure()) {
      ADD_FAILURE() << "seed " << seed;
      return;
    }
  }
  EXPECT_GT(refused, static_cast<int>(seeds) / 3);
  EXPECT_LT(refused, static_cast<int>(seeds));
}

// The header of a page of values is not looked at when the file is opened: whoever gives the page back does.
TEST_P(damage_c, a_value_that_claims_more_pages_than_it_has) {
  const rollup_shard_sp before = make_shard();
  std::string bytes = m_good;
  for (size_t n = 0; n < used_pages(); ++n)
    if (static_cast<uint8_t>(bytes[n * 4096 + format().flags_at]) == 4)
      bytes[n * 4096 + format().bounds_at] = 100;
  write_file(file(), bytes);
  const rollup_shard_sp shard = make_shard();
  EXPECT_TRUE(put_blocks(shard, 1, 0, 1));
  EXPECT_EQ(shard->maintenance_mode(), OFFLINE_CORRUPTED);
}

TEST_P(damage_c, foreign_keys_and_values) {
  const auto env = GetParam() == rollup_storage_e::lmdb ? make_lmdb_env(LMDB_DEFAULT_FLAGS) : make_mdbx_env();
  const auto put = [&](const std::vector<uint8_t> &key, const std::vector<uint8_t> &value) {
    ASSERT_TRUE(env->open(path(), 0));
    std::unique_ptr<kv_txn_c> txn;
    ASSERT_TRUE(env->begin(true, &txn));
    ASSERT_EQ(txn->put(key, value), 0);
    ASSERT_EQ(txn->commit(), 0);
    env->close();
  };
  const block_key_t key = make_block_key(METRICS + 1, 0);
  put({1}, {1, 2, 3});
  put({key.begin(), key.begin() + 9}, {1});
  put({key.begin(), key.end()}, {BLOCK_VERSION, 0, 7});
  {
    const rollup_shard_sp shard = make_shard();
    auto [error, txn] = shard->start_read_transaction();
    uint64_t sid, floor, count = 0;
    nntbs_block_t block;
    for (error = txn->seek_to_first(&sid, &floor, &block); !error; error = txn->next(&sid, &floor, &block))
      ++count;
    EXPECT_EQ(count, METRICS * BLOCKS + 1);  // keys of another length are passed over
    floor = 0;
    ASSERT_FALSE(txn->seek(METRICS + 1, &floor, &block));
    EXPECT_EQ(block.crc & 0xff, 7U);
    EXPECT_EQ(float{block.datum[126].stddev}, 0.0F);
    EXPECT_FALSE(block_is_sound(block));
  }
  put({key.begin(), key.end()}, std::vector<uint8_t>(4079));
  const rollup_shard_sp shard = make_shard();
  auto [error, txn] = shard->start_read_transaction();
  uint64_t floor = 0;
  nntbs_block_t block;
  EXPECT_EQ(txn->seek(METRICS + 1, &floor, &block), storage_errc_e::corrupted);
  EXPECT_EQ(shard->maintenance_mode(), OFFLINE_CORRUPTED);
}

}  // namespace
}  // namespace db::ranged::nntbs
