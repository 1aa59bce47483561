#include "db/raw/nom/data_db.h"

#include <rocksdb/c.h>

#include <filesystem>
#include <fstream>

#include "nom_support.h"
#include "platform/krel/base/krel_conf.h"
#include "support/log_capture.h"
#include "util/histogram_entries.h"

namespace {

namespace fs = std::filesystem;
using namespace nom_support;
using db::raw::nom_sample_t;

class data_db : public shard_test_c {
 protected:
  std::string location() const { return m_dir / "data"; }
  std::string temporary() const { return location() + "_INITIALIZING_TEMPORARY_ROCKSDB_DIRECTORY_"; }
};

TEST_F(data_db, samples_outlive_a_reopen_and_later_ones_merge) {
  write(open(), {nom_sample_t::of_int32(1, HOUR_MS + 1, 5), nom_sample_t::of_int32(2, HOUR_MS + 1, 6)});
  data_db_c &db = reopen();
  EXPECT_EQ(db.get_num_column_families(), 8u);
  write(db, {nom_sample_t::of_int32(1, HOUR_MS, 7), nom_sample_t::of_int32(1, HOUR_MS + 1, -4)});
  db.flush();
  EXPECT_EQ(record(reopen(), 1, HOUR_S),
            std::string(record_builder_c(1).add<int32_t>(0, 7).add<int32_t>(1, 5)));
}

TEST_F(data_db, the_configured_resolver_is_the_one_that_merges) {
  m_params.conflict_resolver = conflict_resolver_e::min;
  data_db_c &db = open();
  write(db, {nom_sample_t::of_int32(1, HOUR_MS, 7)});
  write(db, {nom_sample_t::of_int32(1, HOUR_MS, -9), nom_sample_t::of_int32(1, HOUR_MS, 8)});
  EXPECT_EQ(record(db, 1, HOUR_S), std::string(record_builder_c(1).add<int32_t>(0, -9)));
}

TEST_F(data_db, a_creation_that_was_cut_off_begins_again) {
  // A whole database that never got its name, and rubbish.
  open();
  m_shard.reset();
  fs::rename(location(), temporary());
  std::ofstream(temporary() + "/CURRENT") << "nonsense";
  const log_capture_c log("notice");
  write(open(), {nom_sample_t::of_int32(1, HOUR_MS, 7)});
  EXPECT_FALSE(fs::exists(temporary()));
  EXPECT_TRUE(log.contains("cleaning up temporary directory at " + temporary()));
  // One left beside a database that is there is none of its business.
  m_shard.reset();
  fs::create_directory(temporary());
  EXPECT_TRUE(record(open(), 1, HOUR_S).has_value());
}

TEST_F(data_db, what_is_no_database_is_fatal) {
  std::ofstream(location()) << "x";
  EXPECT_DEATH(open(), "check_for_and_create_shard: .*/data exists but is not a directory");
  fs::remove(location());
  fs::create_directory(location());
  std::ofstream(location() + "/strange") << "x";
  EXPECT_DEATH(open(), "check_for_and_create_shard: can't get column family list for .*/data - ");
}

TEST_F(data_db, empty_logs_are_removed_at_open) {
  open();
  m_shard.reset();
  std::ofstream(location() + "/000900.log").close();
  std::ofstream(location() + "/000901.log") << "";
  std::ofstream(location() + "/kept.txt").close();
  open();
  EXPECT_FALSE(fs::exists(location() + "/000900.log"));
  EXPECT_FALSE(fs::exists(location() + "/000901.log"));
  EXPECT_TRUE(fs::exists(location() + "/kept.txt"));
}

TEST_F(data_db, a_shard_of_four_families_opens) {
  // As an older run left it: the records of id 6 lie in family 2.
  rocksdb_options_t *const options = rocksdb_options_create();
  rocksdb_options_set_create_if_missing(options, 1);
  rocksdb_options_set_create_missing_column_families(options, 1);
  const char *names[] = {"default", "shard_1", "shard_2", "shard_3"};
  const rocksdb_options_t *family_options[] = {options, options, options, options};
  rocksdb_column_family_handle_t *families[4];
  char *error = nullptr;
  rocksdb_t *const old =
      rocksdb_open_column_families(options, location().c_str(), 4, names, family_options, families, &error);
  ASSERT_EQ(error, nullptr) << error;
  rocksdb_writeoptions_t *const write_options = rocksdb_writeoptions_create();
  const std::string stored = record_builder_c(1).add<int32_t>(3, 33);
  char key[KEY_LEN];
  make_key(6, HOUR_S, key);
  rocksdb_put_cf(old, write_options, families[2], key, KEY_LEN, stored.data(), stored.size(), &error);
  for (auto *family : families) rocksdb_column_family_handle_destroy(family);
  rocksdb_writeoptions_destroy(write_options);
  rocksdb_close(old);
  rocksdb_options_destroy(options);

  const log_capture_c log("notice");
  data_db_c &db = open();
  EXPECT_TRUE(log.contains("created with 4 column families instead of 8"));
  write(db, {nom_sample_t::of_int32(6, HOUR_MS + 4, 44)});
  EXPECT_EQ(record(db, 6, HOUR_S), std::string(record_builder_c(1).add<int32_t>(3, 33).add<int32_t>(4, 44)));
  EXPECT_NE(db.find_now(6, HOUR_MS + 3, db::raw::SEEK_EXACT), nullptr);
}

TEST_F(data_db, limits_of_times_generations_and_types) {
  data_db_c &db = open();
  const std::vector<nom_sample_t> samples = {
      nom_sample_t::of_int32(1, 4294967295000, 1),
      nom_sample_t::of_int32(1, 4294967295001, 2),
      nom_sample_t::of_int32(2, HOUR_MS, 3, 511),
      nom_sample_t::of_int32(2, HOUR_MS + 1, 4, 512),
      {3, HOUR_MS, 5, 0, 's', false},
      nom_sample_t::of_int32(4, 0, 6),
  };
  for (const bool as_entries : {false, true}) {
    const log_capture_c log("error");
    as_entries ? write_as_entries(db, samples) : write(db, samples);
    EXPECT_TRUE(log.contains("Y2038 overflow, timestamp too large for 32 bits (4294967295001)"));
    EXPECT_TRUE(log.contains("Illegal generation (512) sent for: surrogate 2, skipping"));
    EXPECT_TRUE(log.contains("Illegal metric type 73 sent for: surrogate 3, skipping"));
    EXPECT_EQ(log.lines().size(), 3u);
  }
  EXPECT_EQ(record(db, 1, 4294965600), std::string(record_builder_c(1).add<int32_t>(1695000, 1)));
  EXPECT_EQ(record(db, 2, HOUR_S), std::string(record_builder_c(1).add<int32_t>(0, 3, 511)));
  EXPECT_EQ(record(db, 3, HOUR_S), std::nullopt);
  EXPECT_EQ(record(db, 4, 0), std::string(record_builder_c(1).add<int32_t>(0, 6)));
}

TEST_F(data_db, histograms_in_their_three_forms) {
  m_params.datatype = histogram;
  data_db_c &db = open();
  const hist_ptr hist(hist_alloc());
  hist_insert(hist.get(), 0.12, 3);
  std::string blob(hist_serialize_estimate(hist.get()), '\0');
  hist_serialize(hist.get(), blob.data(), blob.size());
  histogram_entries_t materialized, text, wrong, none;
  materialized.materialized_histogram.reset(hist_clone(hist.get()));
  text.histogram.resize(hist_serialize_b64_estimate(hist.get()));
  hist_serialize_b64(hist.get(), text.histogram.data(), text.histogram.size());
  wrong.histogram = "AA";
  dorn_record_bytes_t bytes{blob.size(), blob.data()};

  std::vector<db::raw::raw_key_c> keys;
  for (uint64_t i = 0; i < 6; ++i) keys.push_back(key_of(i < 5 ? 1 : 2, HOUR_MS + 10 * (5 - i)));
  std::vector<db::raw::raw_entry_c> entries(6);
  const auto set = [&](size_t i, velmar_metric_type_t type, auto fill) {
    dorn_record_m_value_t data{type, false, {}};
    fill(&data.storage);
    db::raw::raw_value_c value;
    value.set_data_non_owner(data, static_cast<uint16_t>(i));
    entries[i].set_data(&keys[i], std::move(value));
  };
  set(0, VELMAR_METRIC_HISTOGRAM_ENTRY, [&](auto *s) { s->v_histogram = &materialized; });
  set(1, VELMAR_METRIC_HISTOGRAM_ENTRY, [&](auto *s) { s->v_histogram = &text; });
  set(2, VELMAR_METRIC_HISTOGRAM, [&](auto *s) { s->v_bytes = &bytes; });
  set(3, VELMAR_METRIC_HISTOGRAM_ENTRY, [&](auto *s) { s->v_histogram = &wrong; });
  set(4, VELMAR_METRIC_HISTOGRAM_ENTRY, [&](auto *s) { s->v_histogram = &none; });
  set(5, VELMAR_METRIC_HISTOGRAM_CUMULATIVE_ENTRY, [&](auto *s) { s->v_histogram = &materialized; });
  counting_closure_t closure;
  const log_capture_c log("error");
  db.write_set_asynch(entries.data(), entries.size(), &closure);
  EXPECT_EQ(closure.successes, 1);
  EXPECT_TRUE(log.contains("Invalid base64 histogram: |AA| sent for: surrogate 1, skipping"));
  EXPECT_TRUE(log.contains("No histogram entry found for surrogate 1 (" + std::to_string(HOUR_MS + 10) +
                           "), skipping"));
  EXPECT_EQ(record(db, 1, HOUR_S), hist_record(6, {{30, blob, 2}, {40, blob, 1}, {50, blob, 0}}));
  EXPECT_EQ(record(db, 2, HOUR_S), hist_record(8, {{0, blob, 5}}));

  auto iter = db.find_now(1, HOUR_MS + 40, db::raw::SEEK_EXACT);
  nom_position_value_t value;
  std::string error;
  ASSERT_TRUE(iter->get_current_value(&value, &error));
  EXPECT_EQ(value.value.type, VELMAR_METRIC_HISTOGRAM);
  EXPECT_EQ(std::string(static_cast<const char *>(value.value.storage.v_bytes->bytes),
                        value.value.storage.v_bytes->length),
            blob);
  ASSERT_TRUE(db.find_now(2, HOUR_MS, db::raw::SEEK_EXACT)->get_current_value(&value, &error));
  EXPECT_EQ(value.value.type, VELMAR_METRIC_HISTOGRAM_CUMULATIVE);
}

TEST_F(data_db, whole_records_from_elsewhere) {
  data_db_c &db = open();
  const std::string good = record_builder_c(5).add(1, 1.5).add(2, 2.5);
  write(db, {nom_sample_t::of_int32(1, HOUR_MS, 7)});
  EXPECT_TRUE(db.write_record(1, HOUR_S, good, db::raw::NUMERIC));
  EXPECT_EQ(record(db, 1, HOUR_S), good);  // in place of what was there

  const log_capture_c log("error");
  std::string flipped = good, cut = good.substr(0, 20);
  flipped[12] ^= 4;
  seal(&cut);
  EXPECT_FALSE(db.write_record(2, HOUR_S, flipped, db::raw::NUMERIC));
  EXPECT_FALSE(db.write_record(2, HOUR_S, hist_record(6, {{1, "x"}}), db::raw::NUMERIC));
  EXPECT_FALSE(db.write_record(2, HOUR_S, good, db::raw::HISTOGRAM));
  EXPECT_FALSE(db.write_record(2, HOUR_S, cut, db::raw::NUMERIC));
  EXPECT_FALSE(db.write_record(2, HOUR_S + 1, good, db::raw::NUMERIC));
  EXPECT_EQ(log.lines()[0], "Bad checksum on incoming numeric reconstitute block");
  EXPECT_EQ(log.lines()[1], "Bad type on incoming numeric reconstitute block (6)");
  EXPECT_EQ(log.lines()[2], "Bad type on incoming histogram reconstitute block (5)");
  EXPECT_EQ(record(db, 2, HOUR_S), std::nullopt);
}

// A database whose disk fails a number of times, and whose pauses take no time.
struct failing_db_c : data_db_c {
  using data_db_c::data_db_c;
  bool try_write(rocksdb_writebatch_t *batch, std::string *error) override {
    if (failures == 0) return data_db_c::try_write(batch, error);
    --failures;
    *error = "no space";
    return false;
  }
  void pause_s(unsigned seconds) override { paused_s += seconds; }
  int failures = 0;
  unsigned paused_s = 0;
};

TEST_F(data_db, failed_writes_are_repeated_ten_times_and_then_stop_the_node) {
  failing_db_c db(location(), m_params);
  db.setup_shard();
  db.check_for_and_create_shard();
  db.failures = 10;
  const log_capture_c log("error");
  write(db, {nom_sample_t::of_int32(1, HOUR_MS, 7)});
  EXPECT_EQ(db.paused_s, 10u);
  EXPECT_EQ(log.lines().size(), 20u);
  EXPECT_EQ(log.lines()[18], "merge_set: Error #10 writing to rocksdb: no space");
  EXPECT_EQ(log.lines()[19], "merge_set: Sleep in writing to rocksdb and retry 10");
  EXPECT_EQ(record(db, 1, HOUR_S), std::string(record_builder_c(1).add<int32_t>(0, 7)));
  db.failures = 11;
  EXPECT_EXIT(write(db, {nom_sample_t::of_int32(1, HOUR_MS, 8)}), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(data_db, without_a_shard_a_write_ends_with_an_error) {
  data_db_c db(m_dir / "missing", m_params);
  db.setup_shard();
  counting_closure_t closure;
  const std::vector<nom_sample_t> samples(3, nom_sample_t::of_int32(1, HOUR_MS, 7));
  db.write_numeric_asynch(samples, &closure);
  EXPECT_EQ(closure.code, db::raw::RAW_WRITE_ERROR_NO_SHARD);
  EXPECT_EQ(closure.rows, 3u);
  EXPECT_EQ(closure.errors + 10 * closure.completions + 100 * closure.successes, 11);
  EXPECT_EQ(db.find_now(1, 0, db::raw::SEEK_NEXT_ON_MISS), nullptr);
}

TEST_F(data_db, repair_brings_back_what_a_lost_manifest_hid) {
  data_db_c &db = open();
  for (uint64_t id = 1; id <= 16; ++id) write(db, {nom_sample_t::of_int32(id, HOUR_MS, 7)});
  db.flush();
  m_shard.reset();
  for (const auto &entry : fs::directory_iterator(location())) {
    const std::string name = entry.path().filename();
    if (name == "CURRENT" || name.starts_with("MANIFEST")) fs::remove(entry.path());
  }
  {
    data_db_c broken(location(), m_params);
    EXPECT_TRUE(broken.repair_shard());
  }
  data_db_c &repaired = open();
  EXPECT_EQ(repaired.get_num_column_families(), 8u);
  for (uint64_t id = 1; id <= 16; ++id) EXPECT_TRUE(record(repaired, id, HOUR_S).has_value()) << id;
}

TEST_F(data_db, the_buffer_size_and_resolver_come_from_the_configuration) {
  EXPECT_EQ(max_db_write_buffer_size_from_conf(), 16777216u);
  EXPECT_EQ(conflict_resolver_from_conf(numeric), conflict_resolver_e::last_abs_max);
  ASSERT_TRUE(
      krel_conf_load_text("<velmar><raw_database max_db_write_buffer_size='4M' conflict_resolver='smallest'/>"
                          "<histogram_ingest conflict_resolver='biggest'/></velmar>",
                          "test.conf"));
  EXPECT_EQ(max_db_write_buffer_size_from_conf(), 4194304u);
  const log_capture_c log("notice");
  EXPECT_EQ(conflict_resolver_from_conf(numeric), conflict_resolver_e::min);
  EXPECT_EQ(conflict_resolver_from_conf(histogram), conflict_resolver_e::max);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"Numeric conflict resolver chosen: 3",
                                                   "Histogram conflict resolver chosen: 1"}));
  ASSERT_TRUE(krel_conf_load_text("<velmar/>", "test.conf"));
}

}  // namespace
