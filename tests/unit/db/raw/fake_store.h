#pragma once
// Databases of shards that live in memory and remember what they were asked to do.

#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "db/raw/nom/nom_sample.h"
#include "db/raw/nom/raw_interfaces.h"
#include "db/raw/record/raw_entry.h"
#include "db/raw/record/raw_write_error.h"

namespace db::raw {

// What one directory holds; outlives the databases opened on it.
struct fake_content_t {
  std::mutex mutex;
  std::vector<nom_sample_t> samples;
  size_t writes = 0, entries = 0;
  bool fails_to_open = false;
};

class fake_db_c : public raw_rollable_c, public raw_writer_asynch_c, public raw_reader_asynch_c {
 public:
  explicit fake_db_c(fake_content_t *content) : m_content(content) {}
  raw_reader_asynch_c *get_reader_asynch() override { return this; }
  raw_writer_asynch_c *get_writer_asynch() override { return this; }
  bool write_record(uint64_t, uint32_t, std::string_view, nomdb_type_e) override { return false; }
  void flush() override {}
  size_t get_num_families() const override { return 0; }
  std::unique_ptr<raw_record_cursor_c> create_record_cursor(size_t, cursor_use_e) override { return nullptr; }
  void find_asynch(const raw_key_c &, raw_reader_seek_e, raw_iter_found_f found, void *closure) override {
    raw_error_reader_c none("nothing is read here");
    found(nullptr, &none, closure);
  }
  void accumulate_all_primary_keys(const std::function<void(uint64_t)> &) override {}
  bool stream_for_reconstitute(uint64_t, uint64_t, void *, send_metric_f, send_block_f) override {
    return true;
  }
  void write_set_asynch(raw_entry_c *, size_t count, is_raw_write_closure_t *closure) override {
    {
      const std::lock_guard lock(m_content->mutex);
      m_content->writes++;
      m_content->entries += count;
    }
    closure->on_success();
    closure->on_complete();
  }
  void write_prev_set_asynch(raw_entry_c *entries, size_t count, is_raw_write_closure_t *closure) override {
    write_set_asynch(entries, count, closure);
  }
  void write_numeric_asynch(std::span<const nom_sample_t> samples, is_raw_write_closure_t *closure) override {
    {
      const std::lock_guard lock(m_content->mutex);
      m_content->writes++;
      m_content->samples.insert(m_content->samples.end(), samples.begin(), samples.end());
    }
    closure->on_success();
    closure->on_complete();
  }

 private:
  fake_content_t *const m_content;
};

class fake_db_factory_c : public raw_rollable_factory_c {
 public:
  std::shared_ptr<raw_rollable_c> open(const std::string &shard_path, uint64_t) override {
    fake_content_t &c = content(shard_path);
    return c.fails_to_open ? nullptr : std::make_shared<fake_db_c>(&c);
  }
  fake_content_t &content(const std::string &shard_path) {
    const std::lock_guard lock(m_mutex);
    auto &slot = m_contents[shard_path];
    if (!slot) slot = std::make_unique<fake_content_t>();
    return *slot;
  }

 private:
  std::mutex m_mutex;
  std::map<std::string, std::unique_ptr<fake_content_t>> m_contents;
};

// Counts what a write reports.
struct counting_closure_t : is_raw_write_closure_t {
  void on_success() override { successes++; }
  void on_error(const raw_write_error_c &error) override {
    error_rows += error.get_row_count();
    last_code = error.get_code();
  }
  void on_complete() override { completes++; }
  int successes = 0, completes = 0, last_code = 0;
  uint64_t error_rows = 0;
};

}  // namespace db::raw
