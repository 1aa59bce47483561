#pragma once
// Readers of data files. Safe from any number of threads; what they give out lives as long as they do.
//
// A file is checked when it is opened: root, identifier, every vector's bounds, the invariants between
// vectors. An entry is checked when it is read: one that lies outside the file or does not hold what its
// identity hash says is logged and counts as absent.

#include <memory>
#include <string_view>
#include <vector>

#include "db/surrogate3/codec/data_file.h"
#include "db/surrogate3/codec/id_set.h"
#include "util/metric_locator.h"
#include "util/oil.h"

namespace db::surrogate3 {

// The bytes that a metric is looked up by, with their hash.
class metric_key_c {
 public:
  explicit metric_key_c(const velmar_metric_locator_t *ml);
  std::string_view bytes() const { return {_bytes, _size}; }
  uint64_t hash() const { return _hash; }

  static constexpr size_t EXTRA = 38;  // uuid, "-" and the zero byte around the name

 private:
  char _bytes[DORN_METRIC_NAME_MAX + EXTRA];
  size_t _size;
  uint64_t _hash;
};

// One metric as it is stored: views into a file or a locator.
struct surrogate_entry_t {
  uint64_t surrogate_id = 0;
  std::string_view key;   // name with tags, a zero byte behind it
  std::string_view tags;  // canonical text of the stream tags, part of the key
  uint16_t tag_count = 0;
  const uint8_t *check_uuid = nullptr;
  const uint8_t *hash = nullptr;
  uint32_t untagged_metric_name_len = 0;
  int32_t account_id = 0;
  velmar_metric_locator_metric_type_e metric_type = METRIC_TYPE_UNKNOWN;
  metrics_db_egress_function_e egress_function = EGRESS_FUNCTION_UNSET;
};

class decoder_c {
 public:
  virtual ~decoder_c() = default;
  virtual bool is_right_type(spec_e spec) const = 0;
  virtual uint64_t get_file_id() const = 0;  // that of its name
  virtual const encoded_data_file_c &get_data_file() const = 0;
  virtual size_t get_num_entries() const = 0;
  virtual void load_tombstones(id_set_c *out) const = 0;  // adds to the set
  virtual uint64_t get_max_surrogate_id() const = 0;      // of entries and tombstones
  virtual bool needs_migration() const = 0;
};

class surrogate_decoder_c : public decoder_c {
 public:
  virtual uint64_t get_surrogate_id_from_key(const metric_key_c &key) const = 0;  // 0: not in this file
  // A locator that owns its memory, with type, account, egress function and id. Null: not in this file.
  virtual metric_locator_sp build_metric_locator(uint64_t id) const = 0;
  virtual metric_locator_sp build_metric_locator_at(size_t index) const = 0;  // in the order of ids
  virtual bool get_entry(size_t index, surrogate_entry_t *out) const = 0;     // in the order of ids
  virtual bool has_tombstone(uint64_t id) const = 0;
};

class oil_decoder_c : public decoder_c {
 public:
  virtual oil_ptr find(uint64_t id) const = 0;  // null: not in this file
  // Pairs of first and last unit, ascending. False when the entry cannot be read.
  virtual bool get_oil_at(size_t index, uint64_t *id, std::vector<oil_interval_t> *pairs) const = 0;
};

using surrogate_decoder_sp = std::shared_ptr<const surrogate_decoder_c>;
using oil_decoder_sp = std::shared_ptr<const oil_decoder_c>;

struct decoder_greater_t {
  template <typename A, typename B>
  bool operator()(const A &a, const B &b) const {
    return a->get_file_id() > b->get_file_id();
  }
};

// A list from pairs in any order.
oil_ptr oil_from_pairs(const std::vector<oil_interval_t> &pairs);

}  // namespace db::surrogate3
