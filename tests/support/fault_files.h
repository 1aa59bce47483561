#pragma once
// A file layer over a real directory that breaks on request and can lose power. Seeded: one seed and one
// sequence of calls give one outcome.
//
// Fault model. A store over files_c must survive all of it without losing what it acknowledged:
//  - Bytes are durable after fsync or fdatasync of their file. Of the changes of a file since then a power
//    cut keeps any subset, each write whole, cut at any byte, or not at all, in no order; a gap reads as
//    zeros. fsync of a file does not make its name durable.
//  - Names (create, rename, unlink, mkdir, rmdir) are durable after sync_directory of a directory they
//    touch. Of the others a power cut keeps any number, in the order they were made. A rename is whole.
//  - A call that fails with an error changed nothing, except that a failed write left any part of itself
//    behind, and that after a failed fsync what it should have synced stays in doubt for ever: a later
//    fsync that succeeds does not vouch for it.
//  - A power cut comes before or after the step it hits; every later call fails, handles are dead.
//  - Media rot: a bit flips in a stored file.
// Not modelled: damage to bytes that were synced other than by flip_bit, lost names after sync_directory.
//
// Files under the root are real, so mappings and other readers work on them; what others than this layer
// write there counts as durable. After crash() the directory holds what a restart would find. Safe from
// any thread.

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/krel/base/krel_log.h"
#include "util/io/files.h"

enum class crash_loss_e { everything_unsynced, random };

class fault_files_c final : public util::io::files_c {
 public:
  // `root` exists; what it holds is taken for durable.
  fault_files_c(std::string root, uint64_t seed) : m_root(std::move(root)), m_random(seed) {
    m_tree = adopt(m_root);
    krel_assert(m_tree && m_tree->directory);
  }

  // ---- faults. A step is a call that changes or syncs something; 1 is the next one.
  void fail_step(uint64_t steps_from_now, int error) {
    std::lock_guard lock(m_mutex);
    m_fail_at = m_steps + steps_from_now;
    m_fail_error = error;
  }
  // The power goes at that step.
  void cut_power_at_step(uint64_t steps_from_now) {
    std::lock_guard lock(m_mutex);
    m_cut_at = m_steps + steps_from_now;
  }
  void fail_read(uint64_t reads_from_now, int error) {
    std::lock_guard lock(m_mutex);
    m_fail_read_at = m_reads + reads_from_now;
    m_fail_read_error = error;
  }
  // Files may grow by that many bytes in all before ENOSPC; room is not given back.
  void set_free_space(uint64_t bytes) {
    std::lock_guard lock(m_mutex);
    m_free_space = bytes;
  }
  // One random bit of the file, on the disk too. The offset is returned.
  uint64_t flip_bit(const std::string &path) {
    std::lock_guard lock(m_mutex);
    const node_ptr node = find(path);
    krel_assert(node && !node->directory);
    settle(*node, {});
    std::string bytes = read_file(path);
    krel_assert(!bytes.empty());
    const uint64_t at = below(bytes.size());
    bytes[at] = static_cast<char>(bytes[at] ^ (1 << below(8)));
    node->synced = bytes;
    write_file(path, bytes);
    return at;
  }
  uint64_t steps() const {
    std::lock_guard lock(m_mutex);
    return m_steps;
  }
  bool is_cut() const {
    std::lock_guard lock(m_mutex);
    return m_cut;
  }

  // Cuts the power, if it is not cut yet, and starts again: the directory becomes what survived. Faults
  // that were set are gone.
  void crash(crash_loss_e loss) {
    std::lock_guard lock(m_mutex);
    const size_t kept = loss == crash_loss_e::random ? below(m_unsynced_names.size() + 1) : 0;
    for (size_t i = 0; i < kept; ++i) m_unsynced_names[i].apply();
    m_unsynced_names.clear();
    for (const auto &entry : std::filesystem::directory_iterator(m_root))
      std::filesystem::remove_all(entry.path());
    restore(*m_tree, m_root, loss);
    m_cut = false;
    m_cut_at = m_fail_at = m_fail_read_at = 0;
    m_free_space = UINT64_MAX;
    ++m_generation;
  }

  // ---- files_c
  std::error_code open(const std::string &path, util::io::open_mode_e mode,
                       std::unique_ptr<util::io::file_c> *out, mode_t permissions) override {
    using util::io::open_mode_e;
    std::lock_guard lock(m_mutex);
    if (m_cut) return error_of(EIO);
    const bool existed = std::filesystem::exists(path);
    const bool changes = (!existed && mode != open_mode_e::read && mode != open_mode_e::write) ||
                         (existed && mode == open_mode_e::replace);
    bool after_cut = false;
    if (changes)
      if (const std::error_code error = step(&after_cut)) return error;
    std::unique_ptr<util::io::file_c> real;
    if (const std::error_code error = m_real.open(path, mode, &real, permissions)) return error;
    node_ptr node = existed ? find(path) : nullptr;
    if (!node) {
      node = std::make_shared<node_t>();
      name_changed(path, node);
    } else if (changes) {
      node->unsynced.push_back({true, 0, ""});
    }
    if (after_cut) return error_of(EIO);
    *out = std::make_unique<fault_file_c>(*this, std::move(real), node);
    return {};
  }

  std::error_code rename(const std::string &from, const std::string &to) override {
    return name_step([&] { return m_real.rename(from, to); },
                     [&] {
                       const node_ptr node = find(from);
                       auto [from_dir, from_name] = place(from);
                       auto [to_dir, to_name] = place(to);
                       from_dir->visible.erase(from_name);
                       to_dir->visible[to_name] = node;
                       name_change_t change;
                       change.sets = {{from_dir, from_name, nullptr}, {to_dir, to_name, node}};
                       m_unsynced_names.push_back(std::move(change));
                     },
                     from);
  }
  std::error_code unlink(const std::string &path) override {
    return name_step([&] { return m_real.unlink(path); }, [&] { name_changed(path, nullptr); }, path);
  }
  std::error_code rmdir(const std::string &path) override {
    return name_step([&] { return m_real.rmdir(path); }, [&] { name_changed(path, nullptr); }, path);
  }
  std::error_code mkdir(const std::string &path, mode_t permissions) override {
    return name_step([&] { return m_real.mkdir(path, permissions); },
                     [&] {
                       auto node = std::make_shared<node_t>();
                       node->directory = true;
                       name_changed(path, node);
                     },
                     "");
  }
  std::error_code sync_directory(const std::string &path) override {
    std::lock_guard lock(m_mutex);
    bool after_cut = false;
    if (const std::error_code error = step(&after_cut)) return error;
    const node_ptr dir = find(path);
    if (!dir) return error_of(ENOENT);
    if (!dir->directory) return error_of(ENOTDIR);
    std::vector<name_change_t> left;
    for (name_change_t &change : m_unsynced_names) {
      if (change.touches(*dir))
        change.apply();
      else
        left.push_back(std::move(change));
    }
    m_unsynced_names = std::move(left);
    return after_cut ? error_of(EIO) : std::error_code();
  }
  std::error_code list(const std::string &path, std::vector<std::string> *names) override {
    std::lock_guard lock(m_mutex);
    if (const std::error_code error = read_step()) return error;
    return m_real.list(path, names);
  }
  std::error_code stat(const std::string &path, struct stat *out) override {
    std::lock_guard lock(m_mutex);
    if (m_cut) return error_of(EIO);
    return m_real.stat(path, out);
  }

 private:
  struct node_t;
  using node_ptr = std::shared_ptr<node_t>;
  struct change_t {
    bool truncate;
    uint64_t at;  // the offset of a write, the size of a truncation
    std::string bytes;
    bool in_doubt = false;  // a sync of it failed
    void apply(std::string *to, size_t length) const {
      if (truncate) {
        to->resize(at);
      } else if (length > 0) {
        if (to->size() < at + length) to->resize(at + length);
        to->replace(at, length, bytes, 0, length);
      }
    }
  };
  struct node_t {
    bool directory = false;
    std::map<std::string, node_ptr> visible, durable;  // a directory's names
    std::string synced;                                // a file's bytes
    std::vector<change_t> unsynced;
  };
  struct name_change_t {
    struct set_t {
      node_ptr dir;
      std::string name;
      node_ptr node;  // null: removed
    };
    std::vector<set_t> sets;
    bool touches(const node_t &dir) const {
      for (const set_t &set : sets)
        if (set.dir.get() == &dir) return true;
      return false;
    }
    void apply() const {
      for (const set_t &set : sets) {
        if (set.node)
          set.dir->durable[set.name] = set.node;
        else
          set.dir->durable.erase(set.name);
      }
    }
  };

  class fault_file_c final : public util::io::file_c {
   public:
    fault_file_c(fault_files_c &files, std::unique_ptr<util::io::file_c> real, node_ptr node)
        : m_files(files), m_real(std::move(real)), m_node(std::move(node)), m_generation(files.m_generation) {}

    std::error_code pread(void *buffer, size_t size, uint64_t offset, size_t *got) override {
      std::lock_guard lock(m_files.m_mutex);
      *got = 0;
      if (dead()) return error_of(EIO);
      if (const std::error_code error = m_files.read_step()) return error;
      return m_real->pread(buffer, size, offset, got);
    }
    std::error_code pwrite(const void *bytes, size_t size, uint64_t offset) override {
      std::lock_guard lock(m_files.m_mutex);
      return write(bytes, size, offset);
    }
    std::error_code append(const void *bytes, size_t size) override {
      std::lock_guard lock(m_files.m_mutex);
      uint64_t end = 0;
      if (const std::error_code error = m_real->size(&end)) return error;
      return write(bytes, size, end);
    }
    std::error_code truncate(uint64_t size) override {
      std::lock_guard lock(m_files.m_mutex);
      bool after_cut = false;
      if (dead()) return error_of(EIO);
      if (const std::error_code error = m_files.step(&after_cut)) return error;
      if (const std::error_code error = m_real->truncate(size)) return error;
      m_node->unsynced.push_back({true, size, ""});
      return after_cut ? error_of(EIO) : std::error_code();
    }
    std::error_code fsync() override {
      std::lock_guard lock(m_files.m_mutex);
      bool after_cut = false;
      if (dead()) return error_of(EIO);
      if (const std::error_code error = m_files.step(&after_cut)) {
        if (!m_files.m_cut)
          for (change_t &change : m_node->unsynced) change.in_doubt = true;
        return error;
      }
      m_files.settle(*m_node, {});
      return after_cut ? error_of(EIO) : std::error_code();
    }
    std::error_code fdatasync() override { return fsync(); }
    std::error_code size(uint64_t *out) override {
      std::lock_guard lock(m_files.m_mutex);
      return dead() ? error_of(EIO) : m_real->size(out);
    }
    std::error_code close() override {
      std::lock_guard lock(m_files.m_mutex);
      const bool was_dead = dead();
      const std::error_code error = m_real->close();
      return was_dead ? error_of(EIO) : error;
    }

   private:
    bool dead() const { return m_files.m_cut || m_generation != m_files.m_generation; }

    std::error_code write(const void *bytes, size_t size, uint64_t offset) {
      if (dead()) return error_of(EIO);
      bool after_cut = false;
      std::error_code error = m_files.step(&after_cut);
      if (m_files.m_cut && error) return error;
      uint64_t end = 0, length = size;
      if (const std::error_code unread = m_real->size(&end)) return unread;
      if (error) length = m_files.below(size + 1);
      const uint64_t growth = offset + length > end ? offset + length - end : 0;
      if (growth > m_files.m_free_space) {
        const uint64_t cut = growth - m_files.m_free_space;
        length = length > cut ? length - cut : 0;
        error = error_of(ENOSPC);
      }
      if (m_files.m_free_space != UINT64_MAX) m_files.m_free_space -= std::min(growth, m_files.m_free_space);
      if (const std::error_code real_error = m_real->pwrite(bytes, length, offset)) return real_error;
      m_node->unsynced.push_back({false, offset, std::string(static_cast<const char *>(bytes), length)});
      return after_cut ? error_of(EIO) : error;
    }

    fault_files_c &m_files;
    const std::unique_ptr<util::io::file_c> m_real;
    const node_ptr m_node;
    const uint64_t m_generation;
  };

  static std::error_code error_of(int error) { return {error, std::generic_category()}; }
  uint64_t below(uint64_t bound) { return std::uniform_int_distribution<uint64_t>(0, bound - 1)(m_random); }

  // Counts a step and says whether it fails. *after_cut: it happens, and the power goes right after it.
  std::error_code step(bool *after_cut) {
    if (m_cut) return error_of(EIO);
    ++m_steps;
    if (m_steps == m_cut_at) {
      m_cut = true;
      *after_cut = below(2) == 0;
      if (!*after_cut) return error_of(EIO);
    }
    return m_steps == m_fail_at ? error_of(m_fail_error) : std::error_code();
  }
  std::error_code read_step() {
    if (m_cut) return error_of(EIO);
    return ++m_reads == m_fail_read_at ? error_of(m_fail_read_error) : std::error_code();
  }

  template <typename F, typename G>
  std::error_code name_step(F &&real, G &&record, const std::string &existing) {
    std::lock_guard lock(m_mutex);
    bool after_cut = false;
    if (const std::error_code error = step(&after_cut)) return error;
    if (!existing.empty() && !find(existing)) return error_of(ENOENT);
    if (const std::error_code error = real()) return error;
    record();
    return after_cut ? error_of(EIO) : std::error_code();
  }

  std::vector<std::string> parts(const std::string &path) const {
    krel_assert(path.starts_with(m_root));
    std::vector<std::string> out;
    for (const auto &part : std::filesystem::path(path.substr(m_root.size())).relative_path())
      if (!part.empty() && part != ".") out.push_back(part);
    return out;
  }
  // The node of a path, taking in what others put there; null when there is none.
  node_ptr find(const std::string &path) {
    node_ptr node = m_tree;
    std::string at = m_root;
    for (const std::string &part : parts(path)) {
      if (!node->directory) return nullptr;
      at += "/" + part;
      auto found = node->visible.find(part);
      if (found == node->visible.end()) {
        const node_ptr taken = adopt(at);
        if (!taken) return nullptr;
        node->durable[part] = taken;
        found = node->visible.emplace(part, taken).first;
      }
      node = found->second;
    }
    return node;
  }
  std::pair<node_ptr, std::string> place(const std::string &path) {
    const std::vector<std::string> all = parts(path);
    krel_assert(!all.empty());
    const node_ptr dir = find(util::io::parent_directory(path));
    krel_assert(dir && dir->directory);
    return {dir, all.back()};
  }
  void name_changed(const std::string &path, const node_ptr &node) {
    auto [dir, name] = place(path);
    if (node)
      dir->visible[name] = node;
    else
      dir->visible.erase(name);
    name_change_t change;
    change.sets = {{dir, name, node}};
    m_unsynced_names.push_back(std::move(change));
  }

  static std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  static void write_file(const std::string &path, const std::string &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    krel_assert(out.flush().good());
  }
  static node_ptr adopt(const std::string &path) {
    if (!std::filesystem::exists(path)) return nullptr;
    auto node = std::make_shared<node_t>();
    node->directory = std::filesystem::is_directory(path);
    if (!node->directory) {
      node->synced = read_file(path);
      return node;
    }
    for (const auto &entry : std::filesystem::directory_iterator(path))
      node->visible[entry.path().filename()] = adopt(entry.path());
    node->durable = node->visible;
    return node;
  }

  // Moves a file's unsynced changes into its durable bytes. Without a loss: those that are not in doubt
  // (the others stay to be decided by a power cut). With one: what that loss keeps.
  void settle(node_t &node, std::optional<crash_loss_e> loss) {
    std::vector<change_t> left;
    for (change_t &change : node.unsynced) {
      if (!loss) {
        if (change.in_doubt)
          left.push_back(std::move(change));
        else
          change.apply(&node.synced, change.bytes.size());
      } else if (*loss == crash_loss_e::random) {
        const uint64_t luck = below(4);
        if (luck >= 2) change.apply(&node.synced, change.bytes.size());
        if (luck == 1 && !change.truncate) change.apply(&node.synced, below(change.bytes.size() + 1));
      }
    }
    node.unsynced = std::move(left);
  }

  void restore(node_t &node, const std::string &path, crash_loss_e loss) {
    if (!node.directory) {
      settle(node, loss);
      write_file(path, node.synced);
      return;
    }
    node.visible = node.durable;
    for (const auto &[name, child] : node.durable) {
      if (child->directory) std::filesystem::create_directory(path + "/" + name);
      restore(*child, path + "/" + name, loss);
    }
  }

  const std::string m_root;
  util::io::files_c &m_real = util::io::system_files();
  mutable std::mutex m_mutex;  // guards all below
  std::mt19937_64 m_random;
  node_ptr m_tree;
  std::vector<name_change_t> m_unsynced_names;  // in the order they were made
  uint64_t m_steps = 0, m_fail_at = 0, m_cut_at = 0;
  uint64_t m_reads = 0, m_fail_read_at = 0;
  int m_fail_error = 0, m_fail_read_error = 0;
  uint64_t m_free_space = UINT64_MAX;
  bool m_cut = false;
  uint64_t m_generation = 0;
};
