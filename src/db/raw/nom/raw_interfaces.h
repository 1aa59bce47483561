#pragma once
// What the raw stores offer each other: reading positions, readers, writers, and the continuation of a
// write. A raw database, a shard and the reader across shards all speak these.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "db/raw/nom/nom_sample.h"

namespace db::surrogate {
class value_c;
}

namespace db::raw {

using raw_key_c = db::surrogate::value_c;
class raw_value_c;
class raw_entry_c;
class raw_write_error_c;

enum raw_reader_seek_e { SEEK_EXACT = 1, SEEK_NEXT_ON_MISS = 2, SEEK_PREV_ON_MISS = 3 };

// Which kind of sample a store holds.
enum nomdb_type_e { NUMERIC = 0, HISTOGRAM = 1 };

// ---- writing

// The continuation of a write: on_success or on_error (either more than once, one for each part), then
// on_complete once. After on_complete the writer touches neither the closure nor the entries.
class is_raw_write_closure_t {
 public:
  virtual ~is_raw_write_closure_t() = default;
  virtual void on_success() = 0;
  virtual void on_error(const raw_write_error_c &error) = 0;
  virtual void on_complete() = 0;
};

class raw_writer_asynch_c {
 public:
  virtual ~raw_writer_asynch_c() = default;
  // The entries are the caller's and stay until on_complete. Their order counts among samples of one
  // metric and time only as far as the conflict resolver leaves it open.
  virtual void write_set_asynch(raw_entry_c *entries, size_t count, is_raw_write_closure_t *closure) = 0;
  // Entries that a neighbour carries over: the last samples before this writer's span.
  virtual void write_prev_set_asynch(raw_entry_c *entries, size_t count, is_raw_write_closure_t *closure) = 0;
  // The same as write_set_asynch for numeric samples in the compact form.
  virtual void write_numeric_asynch(std::span<const nom_sample_t> samples, is_raw_write_closure_t *closure) = 0;
};

// ---- reading

class raw_iter_read_error_c {
 public:
  raw_iter_read_error_c() = default;
  explicit raw_iter_read_error_c(std::string text) : m_valid(true), m_text(std::move(text)) {}
  bool is_valid() const { return m_valid; }
  const std::string &get_text() const { return m_text; }

 private:
  bool m_valid = false;
  std::string m_text;
};

// A reading position as its receiver sees it: a sample, or (not valid) no data or an error.
class raw_iter_reader_asynch_c {
 public:
  virtual ~raw_iter_reader_asynch_c() = default;
  virtual bool is_valid() const = 0;
  // Valid positions only, until the position is moved or closed. The key's time is the sample's. The value
  // may lie in the position's own memory; taking makes it the caller's.
  virtual const raw_key_c &get_key() const = 0;
  virtual const raw_value_c &get_value() const = 0;
  virtual raw_value_c take_value() = 0;
  virtual const raw_iter_read_error_c &get_error() const = 0;
  // From now on moving forward from a position removes what it passes: the samples from there up to the
  // end of their block or to `end`, whichever comes first; the next position is the first sample left.
  virtual void set_deleter(bool is_deleter) = 0;
  virtual void set_end_timestamp_s(uint64_t end_s) = 0;
};

// A position that holds only an error.
class raw_error_reader_c : public raw_iter_reader_asynch_c {
 public:
  explicit raw_error_reader_c(std::string text) : m_error(std::move(text)) {}
  bool is_valid() const override { return false; }
  const raw_key_c &get_key() const override;
  const raw_value_c &get_value() const override;
  raw_value_c take_value() override;
  const raw_iter_read_error_c &get_error() const override { return m_error; }
  void set_deleter(bool) override {}
  void set_end_timestamp_s(uint64_t) override {}

 private:
  raw_iter_read_error_c m_error;
};

// Moves and ends positions. Each of these may be called within the callback that received the position or
// later from any thread, one at a time; next and prev bring the same callback again (within a callback:
// once that has returned, without recursion). After a position that is not valid only close is left.
class raw_iter_manager_asynch_c {
 public:
  virtual ~raw_iter_manager_asynch_c() = default;
  virtual void next_asynch(raw_iter_reader_asynch_c *reader) = 0;
  virtual void prev_asynch(raw_iter_reader_asynch_c *reader) = 0;
  virtual void close_asynch(raw_iter_reader_asynch_c *reader) = 0;  // exactly once for each find
};

using raw_iter_found_f = void (*)(raw_iter_manager_asynch_c *manager, raw_iter_reader_asynch_c *reader,
                                  void *closure);

// What is to be done with the metric whose blocks come next.
enum class reconstitute_metric_e { send, skip, stop };

class raw_reader_asynch_c {
 public:
  using send_metric_f = reconstitute_metric_e (*)(void *closure, uint64_t surrogate_id);
  // `block` is a whole stored record of that hour, with a right checksum. False stops the stream.
  using send_block_f = bool (*)(void *closure, uint64_t surrogate_id, uint32_t block_ts_s,
                                std::string_view block);

  virtual ~raw_reader_asynch_c() = default;
  // The sample of the key's metric at the key's time, or the next or previous one. `found` is called for
  // this and every further position, the first time at latest when nothing is found.
  virtual void find_asynch(const raw_key_c &key, raw_reader_seek_e seek, raw_iter_found_f found,
                           void *closure) = 0;
  // The metric's numbers of [start_ms, end_ms) in order of time, in pieces of one record or less, without a
  // step for each sample; a false from the receiver ends it. False with the reason when a read failed.
  // Blocking; of numeric stores only, like the next.
  using numeric_samples_f = std::function<bool(std::span<const nom_sample_t> samples)>;
  virtual bool read_numeric(uint64_t surrogate_id, uint64_t start_ms, uint64_t end_ms,
                            const numeric_samples_f &on_samples, std::string *error);
  // The last sample of [from_ms, before_ms), with or without nulls. *error tells of a read that failed.
  enum class nulls_e { take, pass_over };
  virtual std::optional<nom_sample_t> find_last_numeric(uint64_t surrogate_id, uint64_t from_ms,
                                                        uint64_t before_ms, nulls_e nulls, std::string *error);
  // The id of every metric with data, each once for each database that holds it. Blocking.
  virtual void accumulate_all_primary_keys(const std::function<void(uint64_t surrogate_id)> &accumulator) = 0;
  // Every record whose hour begins in [start_s, end_s), metric by metric. False when it was stopped or a
  // read failed. Blocking.
  virtual bool stream_for_reconstitute(uint64_t start_s, uint64_t end_s, void *closure,
                                       send_metric_f send_metric, send_block_f send_block) = 0;
};

// ---- a shard's database

// What a cursor is for: all records one after the other, read ahead, or one record of each metric.
enum class cursor_use_e { all_records, metrics };

// One family's whole records in key order, as they were when the cursor was made. It leaves the cache of the
// readers alone. One thread; the database outlives it.
class raw_record_cursor_c {
 public:
  virtual ~raw_record_cursor_c() = default;
  virtual void seek_to_first() = 0;
  virtual void seek(uint64_t surrogate_id) = 0;  // to the metric's first record, or to what follows it
  virtual void next() = 0;
  virtual void skip_metric() = 0;     // behind the last record of the metric it stands on
  virtual bool is_valid() const = 0;  // false: at the end, or a read failed
  // Until the next move, of a valid cursor. Nothing is checked.
  virtual std::string_view get_key() const = 0;
  virtual std::string_view get_record() const = 0;
  virtual std::string get_error() const = 0;  // empty: none
};

class raw_rollable_c {
 public:
  virtual ~raw_rollable_c() = default;
  virtual raw_reader_asynch_c *get_reader_asynch() = 0;
  virtual raw_writer_asynch_c *get_writer_asynch() = 0;
  // Stores one whole record as stream_for_reconstitute gives it, in place of what is there for that metric
  // and hour. False, and a line in the log, when it is none of this kind.
  virtual bool write_record(uint64_t surrogate_id, uint32_t block_ts_s, std::string_view record,
                            nomdb_type_e kind) = 0;
  // What was written is in table files when it returns.
  virtual void flush() = 0;
  virtual size_t get_num_families() const = 0;
  virtual std::unique_ptr<raw_record_cursor_c> create_record_cursor(size_t family, cursor_use_e use) = 0;
};

class raw_rollable_factory_c {
 public:
  virtual ~raw_rollable_factory_c() = default;
  // The database in the directory `data` of a shard's directory, made when missing. Null, and a line in
  // the log, when it cannot be opened. It closes with the last reference. Blocking. start_s: the shard's;
  // samples before it were carried over from the shard before and are shown to who asks for them by their time
  // only.
  virtual std::shared_ptr<raw_rollable_c> open(const std::string &shard_path, uint64_t start_s) = 0;
};

}  // namespace db::raw
