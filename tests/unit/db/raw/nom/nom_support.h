#pragma once
// Records built byte by byte, and a shard in a directory of its own.

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "db/raw/nom/factory.h"
#include "db/raw/nom/nom_type.h"
#include "db/raw/record/raw_entry.h"
#include "db/raw/record/raw_write_error.h"
#include "support/temp_dir.h"

namespace nom_support {

using namespace velmar_db_raw_nom;

constexpr uint64_t HOUR_S = 1'700'000'000 / 3600 * 3600, HOUR_MS = HOUR_S * 1000;

inline void seal(std::string *record) {
  uint8_t sum = 0;
  for (size_t i = 1; i < record->size(); ++i) sum ^= static_cast<uint8_t>((*record)[i]);
  (*record)[0] = static_cast<char>(sum);
}

template <typename T>
void append(std::string *to, T value) {
  to->append(reinterpret_cast<const char *>(&value), sizeof value);
}

// A numeric record of samples given one after the other.
class record_builder_c {
 public:
  explicit record_builder_c(uint8_t type) : m_bytes(6, '\0') { m_bytes[1] = static_cast<char>(type); }
  template <typename T>
  record_builder_c &add(uint32_t offset, T value, uint32_t generation = 0, bool is_null = false) {
    append(&m_bytes, static_cast<uint32_t>(offset + (generation << 22) + (is_null ? 1u << 31 : 0)));
    append(&m_bytes, value);
    ++m_bytes[2];
    return *this;
  }
  operator std::string() const {
    std::string sealed = m_bytes;
    seal(&sealed);
    return sealed;
  }

 private:
  std::string m_bytes;
};

struct hist_sample_t {
  uint32_t offset;
  std::string blob;
  uint32_t generation = 0;
};
inline std::string hist_record(uint8_t type, const std::vector<hist_sample_t> &samples) {
  std::string bytes(6, '\0'), blobs;
  bytes[1] = static_cast<char>(type);
  bytes[2] = static_cast<char>(samples.size());
  for (const hist_sample_t &s : samples) {
    append(&bytes, s.offset + (s.generation << 22));
    append<uint64_t>(&bytes, blobs.size());
    append<uint64_t>(&blobs, s.blob.size());
    blobs += s.blob;
  }
  bytes += blobs;
  seal(&bytes);
  return bytes;
}

struct operand_list_t {
  explicit operand_list_t(const std::vector<std::string> &operands) {
    for (const std::string &operand : operands) {
      data.push_back(operand.data());
      lengths.push_back(operand.size());
    }
  }
  operator operands_t() const { return {data.data(), lengths.data(), static_cast<int>(data.size())}; }
  std::vector<const char *> data;
  std::vector<size_t> lengths;
};

struct counting_closure_t : db::raw::is_raw_write_closure_t {
  void on_success() override { ++successes; }
  void on_error(const db::raw::raw_write_error_c &error) override {
    ++errors;
    code = error.get_code();
    rows = error.get_row_count();
  }
  void on_complete() override { ++completions; }
  int successes = 0, errors = 0, completions = 0, code = 0;
  uint64_t rows = 0;
};

inline db::raw::raw_key_c key_of(uint64_t id, uint64_t ts_ms) {
  db::raw::raw_key_c key;
  key.set_data(id, {});
  key.get_orig_key().set_timestamp(std::chrono::milliseconds(ts_ms));
  return key;
}

inline dorn_record_m_value_t value_of(const db::raw::nom_sample_t &sample) {
  dorn_record_m_value_t value{static_cast<velmar_metric_type_t>(sample.type), sample.is_null, {}};
  memcpy(&value.storage, &sample.bits, sizeof sample.bits);
  return value;
}

// A database type and manager of the test's own, and the directory of one shard.
class shard_test_c : public ::testing::Test {
 protected:
  shard_test_c() {
    velmar_db_admin_rocksdb_init_types(&m_types);
    m_params.manager = &m_manager;
    m_params.type = velmar_db_raw_nom_create_type(&m_types);
  }
  ~shard_test_c() override {
    m_shard.reset();
    velmar_db_admin_rocksdb_uninit(&m_types);
  }

  data_db_c &open() {
    m_shard = factory_c(m_params).open_priv(m_dir.path());
    EXPECT_NE(m_shard, nullptr);
    return m_shard->get_data_db();
  }
  data_db_c &reopen() {
    m_shard.reset();
    return open();
  }

  static void write(data_db_c &db, const std::vector<db::raw::nom_sample_t> &samples) {
    counting_closure_t closure;
    db.write_numeric_asynch(samples, &closure);
    EXPECT_EQ(closure.successes, 1);
    EXPECT_EQ(closure.completions, 1);
  }
  static void write_as_entries(data_db_c &db, const std::vector<db::raw::nom_sample_t> &samples) {
    std::vector<db::raw::raw_key_c> keys;
    for (const auto &s : samples) keys.push_back(key_of(s.surrogate_id, s.ts_ms));
    std::vector<db::raw::raw_entry_c> entries(samples.size());
    for (size_t i = 0; i < samples.size(); ++i) {
      db::raw::raw_value_c value;
      value.set_data_non_owner(value_of(samples[i]), samples[i].generation);
      entries[i].set_data(&keys[i], std::move(value));
    }
    counting_closure_t closure;
    db.write_set_asynch(entries.data(), entries.size(), &closure);
    EXPECT_EQ(closure.successes, 1);
    EXPECT_EQ(closure.completions, 1);
  }

  // The stored record, without a value when there is none.
  static std::optional<std::string> record(data_db_c &db, uint64_t id, uint64_t floor_s) {
    std::optional<std::string> found;
    struct closure_t {
      uint64_t id, floor_s;
      std::optional<std::string> *found;
    } closure{id, floor_s, &found};
    EXPECT_TRUE(db.stream_for_reconstitute(
        floor_s, floor_s + 1, &closure,
        [](void *c, uint64_t metric) {
          return metric == static_cast<closure_t *>(c)->id ? db::raw::reconstitute_metric_e::send
                                                           : db::raw::reconstitute_metric_e::skip;
        },
        [](void *c, uint64_t, uint32_t, std::string_view block) {
          *static_cast<closure_t *>(c)->found = block;
          return true;
        }));
    return found;
  }

  velmar_db_admin_rocksdb_types_t m_types;
  velmar_db_admin_rocksdb_manager_t m_manager;
  data_db_params_t m_params;
  temp_dir_c m_dir;
  std::shared_ptr<handle_c> m_shard;
};

// What a walk met: a position's time and number.
struct met_t {
  uint64_t ts_ms;
  double number;
  bool operator==(const met_t &) const = default;
};
inline void PrintTo(const met_t &m, std::ostream *out) {
  *out << "{" << m.ts_ms << ", " << m.number << "}";
}

inline double number_of(const dorn_record_m_value_t &value) {
  switch (value.type) {
    case VELMAR_METRIC_INT32:
      return value.storage.v_int32;
    case VELMAR_METRIC_UINT32:
      return value.storage.v_uint32;
    case VELMAR_METRIC_INT64:
      return static_cast<double>(value.storage.v_int64);
    case VELMAR_METRIC_UINT64:
      return static_cast<double>(value.storage.v_uint64);
    default:
      return value.storage.v_double;
  }
}

}  // namespace nom_support
