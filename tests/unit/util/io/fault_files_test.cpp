// The fake must be honest: what it loses and keeps is what its header says.

#include "support/fault_files.h"

#include <gtest/gtest.h>

#include "support/temp_dir.h"

using util::io::file_c;
using util::io::open_mode_e;

namespace {

class fault_files_test : public testing::Test {
 protected:
  void write(const std::string &name, const std::string &bytes, bool sync) {
    std::unique_ptr<file_c> file;
    ASSERT_FALSE(files.open(dir / name, open_mode_e::create, &file, 0644));
    ASSERT_FALSE(file->pwrite(bytes.data(), bytes.size(), 0));
    if (sync) {
      ASSERT_FALSE(file->fsync());
    }
    ASSERT_FALSE(file->close());
  }
  std::string read(const std::string &name) {
    std::string out;
    return files.read_whole(dir / name, &out) ? "(none)" : out;
  }

  temp_dir_c dir;
  fault_files_c files{dir.path(), 1};
};

TEST_F(fault_files_test, unsynced_bytes_and_names_are_lost_and_synced_ones_stay) {
  write("kept", "synced", true);
  write("unnamed", "synced", true);
  ASSERT_FALSE(files.sync_directory(dir.path()));
  write("kept", "SYN", false);
  write("empty", "unsynced", false);
  ASSERT_FALSE(files.sync_directory(dir.path()));
  write("nameless", "synced", true);
  EXPECT_EQ(read("kept"), "SYNced");
  files.crash(crash_loss_e::everything_unsynced);
  EXPECT_EQ(read("kept"), "synced");
  EXPECT_EQ(read("unnamed"), "synced");
  EXPECT_EQ(read("empty"), "");
  EXPECT_EQ(read("nameless"), "(none)");
}

TEST_F(fault_files_test, a_rename_is_old_or_new_and_never_both_or_none) {
  bool old_seen = false, new_seen = false;
  for (int i = 0; i < 64; ++i) {
    write("a", "new", true);
    write("b", "old", true);
    ASSERT_FALSE(files.sync_directory(dir.path()));
    ASSERT_FALSE(files.rename(dir / "a", dir / "b"));
    files.crash(crash_loss_e::random);
    const bool is_new = read("b") == "new" && read("a") == "(none)";
    const bool is_old = read("b") == "old" && read("a") == "new";
    ASSERT_TRUE(is_new || is_old) << read("a") << " " << read("b");
    (is_new ? new_seen : old_seen) = true;
  }
  EXPECT_TRUE(old_seen && new_seen);
}

TEST_F(fault_files_test, unsynced_writes_come_out_whole_torn_and_lost) {
  bool whole = false, torn = false, lost = false;
  for (int i = 0; i < 200; ++i) {
    write("f", std::string(8, '.'), true);
    ASSERT_FALSE(files.sync_directory(dir.path()));
    write("f", "ABCDEFGH", false);
    files.crash(crash_loss_e::random);
    const std::string out = read("f");
    ASSERT_EQ(out.size(), 8u);
    const size_t letters = out.find('.') == std::string::npos ? 8 : out.find('.');
    EXPECT_EQ(out, std::string("ABCDEFGH").substr(0, letters) + std::string(8 - letters, '.'));
    whole |= letters == 8;
    lost |= letters == 0;
    torn |= letters > 0 && letters < 8;
  }
  EXPECT_TRUE(whole && torn && lost);
}

TEST_F(fault_files_test, a_later_sync_does_not_vouch_for_what_a_failed_one_left) {
  write("f", "0000", true);
  ASSERT_FALSE(files.sync_directory(dir.path()));
  std::unique_ptr<file_c> file;
  ASSERT_FALSE(files.open(dir / "f", open_mode_e::write, &file, 0));
  ASSERT_FALSE(file->pwrite("11", 2, 0));
  files.fail_step(1, EIO);
  EXPECT_EQ(file->fsync().value(), EIO);
  ASSERT_FALSE(file->pwrite("22", 2, 2));
  EXPECT_FALSE(file->fsync());
  files.crash(crash_loss_e::everything_unsynced);
  EXPECT_EQ(read("f"), "0022");
  EXPECT_EQ(file->fsync().value(), EIO);  // a handle of before the cut is dead
}

TEST_F(fault_files_test, failed_calls_change_nothing_and_failed_writes_leave_a_part) {
  write("f", "", true);
  std::unique_ptr<file_c> file;
  ASSERT_FALSE(files.open(dir / "f", open_mode_e::write, &file, 0));
  bool part = false;
  for (int i = 0; i < 50; ++i) {
    ASSERT_FALSE(file->truncate(0));
    files.fail_step(1, EIO);
    ASSERT_EQ(file->append("abcdef", 6).value(), EIO);
    const std::string out = read("f");
    ASSERT_EQ(out, std::string("abcdef").substr(0, out.size()));
    part |= !out.empty() && out.size() < 6;
  }
  EXPECT_TRUE(part);
  files.fail_step(2, EACCES);
  EXPECT_FALSE(files.mkdir(dir / "d1", 0755));
  EXPECT_EQ(files.rename(dir / "f", dir / "g").value(), EACCES);
  EXPECT_NE(read("f"), "(none)");
  files.fail_read(1, EIO);
  EXPECT_EQ(read("f"), "(none)");
}

TEST_F(fault_files_test, a_full_disk_takes_what_fits) {
  write("f", "1234", true);
  files.set_free_space(3);
  std::unique_ptr<file_c> file;
  ASSERT_FALSE(files.open(dir / "f", open_mode_e::write, &file, 0));
  EXPECT_FALSE(file->pwrite("abcd", 4, 0));  // needs no room
  EXPECT_EQ(file->append("56789", 5).value(), ENOSPC);
  EXPECT_EQ(read("f"), "abcd567");
  EXPECT_EQ(file->append("8", 1).value(), ENOSPC);
}

TEST_F(fault_files_test, the_power_goes_at_the_step_asked_for_and_one_bit_rots) {
  files.cut_power_at_step(2);
  ASSERT_FALSE(files.mkdir(dir / "a", 0755));
  EXPECT_EQ(files.mkdir(dir / "b", 0755).value(), EIO);
  EXPECT_TRUE(files.is_cut());
  EXPECT_EQ(files.mkdir(dir / "c", 0755).value(), EIO);
  files.crash(crash_loss_e::random);
  EXPECT_FALSE(files.exists(dir / "c"));
  EXPECT_TRUE(!files.exists(dir / "b") || files.exists(dir / "a"));  // names survive in order

  write("f", "abcdefgh", true);
  const uint64_t at = files.flip_bit(dir / "f");
  const std::string out = read("f");
  for (uint64_t i = 0; i < 8; ++i) EXPECT_EQ(__builtin_popcount(out[i] ^ "abcdefgh"[i]), i == at ? 1 : 0);
}

// The helper that state files rely on, against every cut and every failure.
TEST_F(fault_files_test, atomic_replace_gives_old_or_new_at_every_power_cut) {
  const std::string old_bytes(5000, 'o'), new_bytes(7000, 'n');
  for (const crash_loss_e loss : {crash_loss_e::everything_unsynced, crash_loss_e::random}) {
    for (uint64_t n = 1;; ++n) {
      ASSERT_FALSE(util::io::atomic_replace(dir / "state", old_bytes, files));
      files.cut_power_at_step(n);
      const bool acknowledged = !util::io::atomic_replace(dir / "state", new_bytes, files);
      const bool cut = files.is_cut();
      files.crash(loss);
      const std::string found = read("state");
      ASSERT_TRUE(found == new_bytes || (!acknowledged && found == old_bytes)) << "step " << n;
      if (!cut) break;
      ASSERT_LT(n, 10u);
    }
  }
}

TEST_F(fault_files_test, atomic_replace_reports_every_failed_step_and_keeps_a_whole_file) {
  ASSERT_FALSE(util::io::atomic_replace(dir / "state", "old", files));
  const uint64_t before = files.steps();
  ASSERT_FALSE(util::io::atomic_replace(dir / "state", "old", files));
  const uint64_t steps = files.steps() - before;
  ASSERT_EQ(steps, 5u);  // create, write, sync, rename, sync of the directory
  for (uint64_t n = 1; n <= steps; ++n) {
    files.fail_step(n, ENOSPC);
    EXPECT_EQ(util::io::atomic_replace(dir / "state", "new", files).value(), ENOSPC) << n;
    EXPECT_EQ(read("state"), n < 5 ? "old" : "new");
    EXPECT_FALSE(files.exists(dir / "state.tmp"));
    ASSERT_FALSE(util::io::atomic_replace(dir / "state", "old", files));
  }
}

}  // namespace
