#include "util/io/file_helpers.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/fault_files.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "util/io/file_mmap_allocator.h"
#include "util/io/fs_avail.h"
#include "util/io/mmap_file.h"
#include "util/io/tolv_move.h"

namespace fs = std::filesystem;

namespace {

std::string read(const std::string &path) {
  std::string out;
  return util::io::system_files().read_whole(path, &out) ? "(none)" : out;
}
void write(const std::string &path, const std::string &bytes) {
  ASSERT_FALSE(util::io::atomic_replace(path, bytes));
}

TEST(files, open_modes_differ_in_what_they_make_and_keep) {
  using util::io::open_mode_e;
  temp_dir_c dir;
  auto &files = util::io::system_files();
  std::unique_ptr<util::io::file_c> file;
  for (const open_mode_e mode : {open_mode_e::read, open_mode_e::write})
    EXPECT_EQ(files.open(dir / "f", mode, &file), std::errc::no_such_file_or_directory);
  ASSERT_FALSE(files.open(dir / "f", open_mode_e::create_new, &file));
  ASSERT_FALSE(file->append("abc", 3));
  ASSERT_FALSE(file->append("def", 3));
  EXPECT_EQ(files.open(dir / "f", open_mode_e::create_new, &file), std::errc::file_exists);
  ASSERT_FALSE(files.open(dir / "f", open_mode_e::create, &file));
  char buffer[8];
  size_t got = 0;
  ASSERT_FALSE(file->pread(buffer, sizeof buffer, 4, &got));
  EXPECT_EQ(std::string(buffer, got), "ef");
  ASSERT_FALSE(files.open(dir / "f", open_mode_e::replace, &file));
  EXPECT_EQ(read(dir / "f"), "");
  ASSERT_FALSE(file->pwrite("xyz", 3, 0));
  std::string out;
  EXPECT_EQ(files.read_whole(dir / "f", &out, 2), std::errc::file_too_large);
  std::vector<std::string> names;
  ASSERT_FALSE(files.mkdir(dir / "a"));
  ASSERT_FALSE(files.list(dir.path(), &names));
  EXPECT_EQ(names, (std::vector<std::string>{"a", "f"}));
}

TEST(file_helpers, directories_for_a_file_are_made_up_to_its_last_slash) {
  temp_dir_c dir;
  EXPECT_FALSE(util::io::mkdir_for_file(dir / "a//b/c"));
  EXPECT_TRUE(fs::is_directory(dir / "a/b"));
  EXPECT_FALSE(fs::exists(dir / "a/b/c"));
  EXPECT_FALSE(util::io::mkdir_for_file(dir / "a/b/c/"));
  EXPECT_TRUE(fs::is_directory(dir / "a/b/c"));
  EXPECT_FALSE(util::io::mkdir_for_file("plain"));
  write(dir / "file", "");
  log_capture_c log("debug/mkdir");
  EXPECT_EQ(util::io::mkdir_for_file(dir / "file/x"), std::errc::not_a_directory);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"mkdir for file(" + dir / "file/x" + ") -> Not a directory"});
}

TEST(file_helpers, resizing_keeps_bytes_and_makes_what_is_missing) {
  temp_dir_c dir;
  ASSERT_FALSE(util::io::create_or_resize_file(dir / "x/y/f", 3));
  EXPECT_EQ(read(dir / "x/y/f"), std::string(3, '\0'));
  write(dir / "x/y/f", "abcdef");
  ASSERT_FALSE(util::io::create_or_resize_file(dir / "x/y/f", 4));
  EXPECT_EQ(read(dir / "x/y/f"), "abcd");
  EXPECT_EQ(util::io::resize_file(dir / "none", 1), std::errc::no_such_file_or_directory);
  fault_files_c full(dir.path(), 7);
  full.fail_step(2, ENOSPC);
  EXPECT_EQ(util::io::create_or_resize_file(dir / "g", 10, full).value(), ENOSPC);
}

TEST(file_helpers, names_for_deleting_count_up_until_one_is_free) {
  temp_dir_c dir;
  for (const char *expected : {"X.deleting", "X.deleting-1", "X.deleting-2"}) {
    fs::create_directory(dir / "X");
    const auto [error, name] = util::io::rename_for_delete(dir / "X");
    EXPECT_FALSE(error);
    EXPECT_EQ(name, dir / expected);
    EXPECT_TRUE(fs::is_directory(name));
    EXPECT_FALSE(fs::exists(dir / "X"));
  }
  EXPECT_TRUE(util::io::rename_for_delete(dir / "X").first);
}

TEST(file_helpers, a_backup_moves_an_older_one_to_the_first_free_number) {
  temp_dir_c dir;
  fs::create_directories(dir / "X/sub");
  write(dir / "X/sub/f", "3");
  write(dir / "X_bak", "2");
  write(dir / "X_bak.1", "1");
  ASSERT_TRUE(util::io::make_backup(dir / "X", false));
  EXPECT_EQ(read(dir / "X_bak.1"), "1");
  EXPECT_EQ(read(dir / "X_bak.2"), "2");
  EXPECT_EQ(read(dir / "X_bak/sub/f"), "3");
  EXPECT_EQ(read(dir / "X/sub/f"), "3");
  ASSERT_TRUE(util::io::make_backup(dir / "X", true));
  EXPECT_FALSE(fs::exists(dir / "X"));
  EXPECT_EQ(read(dir / "X_bak/sub/f"), "3");
  const util::io::backup_result_t missing = util::io::make_backup(dir / "Y", true);
  EXPECT_FALSE(missing);
  EXPECT_EQ(missing.text, "Unable to make a backup copy for shard:No such file or directory");
}

TEST(mmap_file, maps_whole_files_and_moves) {
  temp_dir_c dir;
  write(dir / "f", "hello");
  write(dir / "empty", "");
  util::io::mmap_file_c file;
  ASSERT_FALSE(file.open(dir / "f"));
  util::io::mmap_file_c other(std::move(file));
  EXPECT_EQ(file.size(), 0u);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(other.data()), other.size()), "hello");
  EXPECT_FALSE(other.open(dir / "empty"));
  EXPECT_EQ(other.size(), 0u);
  EXPECT_EQ(other.open(dir / "none"), std::errc::no_such_file_or_directory);
  EXPECT_EQ(other.open(dir.path()), std::errc::is_a_directory);
}

TEST(file_mmap_allocator, serves_zeroed_files_and_leaves_nothing_behind) {
  temp_dir_c dir;
  write(dir / "7.mem", "of a killed process");
  {
    util::mem::file_mmap_allocator_c allocator(dir.path());
    EXPECT_TRUE(fs::is_empty(dir.path()));
    auto *a = static_cast<char *>(allocator.alloc(100000));
    auto *b = static_cast<char *>(allocator.alloc(1));
    ASSERT_TRUE(a && b && a != b);
    EXPECT_EQ(std::count(a, a + 100000, '\0'), 100000);
    memset(a, 'x', 100000);
    EXPECT_EQ(*b, '\0');
    allocator.free(a);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 1);
    log_capture_c log("error");
    EXPECT_EQ(allocator.alloc(1ull << 62), nullptr);  // more than any file may have
    EXPECT_TRUE(log.contains("Unable to create file"));
  }
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

// A second file system, where there is one.
std::string other_file_system() {
  struct stat here, there;
  temp_dir_c probe;
  if (stat(probe.path().c_str(), &here) != 0 || stat("/dev/shm", &there) != 0) return "";
  return here.st_dev == there.st_dev ? "" : "/dev/shm";
}

TEST(tolv_move, moves_and_copies_within_and_across_file_systems) {
  temp_dir_c dir;
  const std::string other = other_file_system();
  std::vector<std::string> targets = {dir / "deep/er/to"};
  if (!other.empty())
    targets.push_back(other + "/velmar_test_" + fs::path(dir.path()).filename().string() + "/to");
  for (const std::string &to : targets) {
    write(dir / "from", "bytes");
    ASSERT_EQ(chmod((dir / "from").c_str(), 0640), 0);
    ASSERT_EQ(tolv_synch_copy(dir / "from", to), 0);
    EXPECT_EQ(read(dir / "from"), "bytes");
    EXPECT_EQ(read(to), "bytes");
    write(dir / "from", "newer");
    ASSERT_EQ(tolv_synch_move(dir / "from", to), 0) << to;
    EXPECT_EQ(read(dir / "from"), "(none)");
    EXPECT_EQ(read(to), "newer");
    struct stat st;
    ASSERT_EQ(stat(to.c_str(), &st), 0);
    EXPECT_EQ(std::distance(fs::directory_iterator(fs::path(to).parent_path()), {}), 1) << "a temporary stayed";
    fs::remove_all(fs::path(to).parent_path());
  }
  EXPECT_EQ(tolv_synch_move(dir / "none", dir / "to"), ENOENT);
  EXPECT_EQ(tolv_synch_copy(dir.path(), dir / "to"), EISDIR);
}

TEST(fs_avail, tells_room_and_fails_on_a_missing_path) {
  temp_dir_c dir;
  uint64_t fsid = 0, total = 0, avail = 0;
  double ratio = 0;
  EXPECT_EQ(fs_get_avail(dir.path(), &fsid, &total, &avail, &ratio), 0.0);
  EXPECT_GT(total, 0u);
  EXPECT_LE(avail, total);
  EXPECT_GE(ratio, 1.0);
  ratio = 0;
  EXPECT_EQ(fs_get_avail(dir / "none", &fsid, &total, &avail, &ratio), -1.0);
  EXPECT_EQ(ratio, 1.0);
}

}  // namespace
