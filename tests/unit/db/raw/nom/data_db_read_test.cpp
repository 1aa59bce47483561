// Reading, deleting and scanning through the asynchronous interface.

#include <semaphore>
#include <set>
#include <thread>

#include "db/raw/nom/data_db.h"
#include "db/raw/nom/raw_iter.h"
#include "nom_support.h"
#include "support/log_capture.h"

namespace {

using namespace nom_support;
using db::raw::nom_sample_t;
using db::raw::raw_iter_manager_asynch_c;
using db::raw::raw_iter_reader_asynch_c;
using db::raw::SEEK_EXACT;
using db::raw::SEEK_NEXT_ON_MISS;
using db::raw::SEEK_PREV_ON_MISS;

// Follows a plan of moves from within the callbacks; closes at its end or when there is no more data.
struct walk_t {
  std::string plan;  // 'n' next, 'p' previous; the last one is repeated
  bool deletes = false;
  uint64_t end_s = 0;
  std::vector<met_t> met = {};
  int closes = 0, depth = 0, deepest = 0;

  static void found(raw_iter_manager_asynch_c *manager, raw_iter_reader_asynch_c *reader, void *closure) {
    auto *const walk = static_cast<walk_t *>(closure);
    walk->deepest = std::max(walk->deepest, ++walk->depth);
    walk->take(manager, reader);
    --walk->depth;
  }
  void take(raw_iter_manager_asynch_c *manager, raw_iter_reader_asynch_c *reader) {
    if (!reader->is_valid()) {
      ++closes;
      return manager->close_asynch(reader);
    }
    met.push_back({static_cast<uint64_t>(reader->get_key().get_orig_key().get_timestamp().count()),
                   number_of(reader->get_value().get_data())});
    db::raw::raw_value_c mine = reader->take_value();
    if (deletes) {
      reader->set_deleter(true);
      reader->set_end_timestamp_s(end_s);
    }
    const char move = plan[std::min(met.size(), plan.size()) - 1];
    move == 'n' ? manager->next_asynch(reader) : manager->prev_asynch(reader);
  }
};

class data_db_read : public shard_test_c {
 protected:
  // Four samples in each of three hours, the second of which is missing: times 0, 1000, 1800000, 3599999.
  data_db_c &filled(uint64_t id = 5) {
    data_db_c &db = open();
    std::vector<nom_sample_t> samples;
    for (const uint64_t hour : {0, 2, 3}) {
      for (const uint64_t offset : {0, 1000, 1800000, 3599999}) {
        const uint64_t ts = HOUR_MS + hour * RECORD_SIZE_MS + offset;
        for (const uint64_t metric : {id - 8, id, id + 8}) {
          samples.push_back(nom_sample_t::of_uint64(metric, ts, ts % 1000000007));
        }
        m_expected.push_back({ts, static_cast<double>(ts % 1000000007)});
      }
    }
    write(db, samples);
    db.flush();
    return db;
  }
  std::vector<met_t> read(data_db_c &db, uint64_t id, uint64_t ts = 0) {
    walk_t walk{"n"};
    db.find_asynch(key_of(id, ts), SEEK_NEXT_ON_MISS, walk_t::found, &walk);
    EXPECT_EQ(walk.closes, 1);
    return walk.met;
  }
  std::vector<met_t> m_expected;
};

TEST_F(data_db_read, a_walk_over_the_hours_in_both_directions_stays_flat) {
  data_db_c &db = filled(13);
  walk_t forward{"n"};
  db.find_asynch(key_of(13, 0), SEEK_NEXT_ON_MISS, walk_t::found, &forward);
  EXPECT_EQ(forward.met, m_expected);
  EXPECT_EQ(forward.closes, 1);
  EXPECT_EQ(forward.deepest, 1);

  walk_t backward{"p"};
  db.find_asynch(key_of(13, TIME_LIMIT_MS), SEEK_PREV_ON_MISS, walk_t::found, &backward);
  EXPECT_EQ(backward.met, std::vector<met_t>(m_expected.rbegin(), m_expected.rend()));

  walk_t turning{"nnppn"};
  db.find_asynch(key_of(13, HOUR_MS + 3599999), SEEK_EXACT, walk_t::found, &turning);
  const auto &e = m_expected;
  EXPECT_EQ(std::vector<met_t>(turning.met.begin(), turning.met.begin() + 6),
            (std::vector<met_t>{e[3], e[4], e[5], e[4], e[3], e[4]}));

  for (const uint64_t missing : {uint64_t{12}, uint64_t{1} << 60}) {
    EXPECT_EQ(read(db, missing).size(), 0u);
  }
}

// The callback hands the position to another thread, which moves and closes it.
TEST_F(data_db_read, positions_may_be_moved_from_another_thread) {
  data_db_c &db = filled(13);
  struct closure_t {
    raw_iter_manager_asynch_c *manager = nullptr;
    raw_iter_reader_asynch_c *reader = nullptr;
    std::counting_semaphore<> handed_over{0};
  } closure;
  size_t met = 0;
  std::thread mover([&] {
    for (;;) {
      closure.handed_over.acquire();
      if (!closure.reader->is_valid()) break;
      ++met;
      closure.manager->next_asynch(closure.reader);
    }
    closure.manager->close_asynch(closure.reader);
  });
  db.find_asynch(
      key_of(13, 0), SEEK_NEXT_ON_MISS,
      [](raw_iter_manager_asynch_c *manager, raw_iter_reader_asynch_c *reader, void *c) {
        auto *const to = static_cast<closure_t *>(c);
        to->manager = manager;
        to->reader = reader;
        to->handed_over.release();
      },
      &closure);
  mover.join();
  EXPECT_EQ(met, m_expected.size());
}

TEST_F(data_db_read, a_reader_sees_the_moment_of_its_find) {
  data_db_c &db = filled(13);
  const auto iter = db.find_now(13, HOUR_MS, SEEK_EXACT);
  write(db, {nom_sample_t::of_uint64(13, HOUR_MS + 500, 1)});
  EXPECT_TRUE(iter->do_next());
  nom_position_value_t value;
  std::string error;
  ASSERT_TRUE(iter->get_current_value(&value, &error));
  EXPECT_EQ(value.ts_ms, HOUR_MS + 1000);
  EXPECT_EQ(read(db, 13).size(), m_expected.size() + 1);
}

TEST_F(data_db_read, compressed_histograms_end_in_an_error) {
  m_params.datatype = histogram;
  data_db_c &db = open();
  ASSERT_TRUE(db.write_record(1, HOUR_S, hist_record(7, {{1, "x"}}), db::raw::HISTOGRAM));
  std::string error;
  db.find_asynch(
      key_of(1, 0), SEEK_NEXT_ON_MISS,
      [](raw_iter_manager_asynch_c *manager, raw_iter_reader_asynch_c *reader, void *closure) {
        EXPECT_FALSE(reader->is_valid());
        *static_cast<std::string *>(closure) = reader->get_error().get_text();
        manager->close_asynch(reader);
      },
      &error);
  EXPECT_EQ(error, "Compressed hist shard values not yet supported");
}

// ---- deleting

struct delete_case_t {
  uint64_t from_ms, end_s;   // from the first hour
  std::vector<size_t> left;  // of the twelve samples
};

TEST_F(data_db_read, deleting_up_to_a_time) {
  const uint64_t all_s = 4 * 3600;
  const delete_case_t cases[] = {
      {0, 0, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}},
      {0, 1, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}},        // crops the first record's first sample
      {0, 2, {2, 3, 4, 5, 6, 7, 8, 9, 10, 11}},           //
      {0, 3599, {3, 4, 5, 6, 7, 8, 9, 10, 11}},           //
      {0, 3600, {4, 5, 6, 7, 8, 9, 10, 11}},              // a whole record
      {0, 2 * 3600, {4, 5, 6, 7, 8, 9, 10, 11}},          // up to the start of the next
      {0, 2 * 3600 + 1800, {6, 7, 8, 9, 10, 11}},         // a record and a part of the next
      {0, all_s, {}},                                     //
      {1000, 3600, {0, 4, 5, 6, 7, 8, 9, 10, 11}},        // from the middle of a record to its end
      {1000, 1800, {0, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}},  // out of its middle
      {2 * RECORD_SIZE_MS + 1000, all_s, {0, 1, 2, 3, 4}},
  };
  for (const delete_case_t &c : cases) {
    const temp_dir_c dir;
    const auto shard = factory_c(m_params).open_priv(dir.path());
    data_db_c &db = shard->get_data_db();
    std::vector<nom_sample_t> samples;
    std::vector<met_t> expected;
    for (const uint64_t hour : {0, 2, 3}) {
      for (const uint64_t offset : {0, 1000, 1800000, 3599999}) {
        samples.push_back(nom_sample_t::of_int64(8, HOUR_MS + hour * RECORD_SIZE_MS + offset, 1));
        samples.push_back(nom_sample_t::of_int64(16, HOUR_MS + hour * RECORD_SIZE_MS + offset, 1));
      }
    }
    write(db, samples);
    for (const size_t i : c.left) expected.push_back({samples[2 * i].ts_ms, 1});
    walk_t walk{"n", true, HOUR_S + c.end_s};
    db.find_asynch(key_of(8, HOUR_MS + c.from_ms), SEEK_NEXT_ON_MISS, walk_t::found, &walk);
    EXPECT_EQ(walk.closes, 1);
    EXPECT_EQ(read(db, 8), expected) << c.from_ms << " to " << c.end_s;
    EXPECT_EQ(read(db, 16).size(), 12u);
  }
}

TEST_F(data_db_read, cropping_keeps_what_was_written_since_the_find) {
  data_db_c &db = filled(13);
  struct closure_t {
    data_db_c *db;
    int met = 0;
  } closure{&db};
  db.find_asynch(
      key_of(13, 0), SEEK_NEXT_ON_MISS,
      [](raw_iter_manager_asynch_c *manager, raw_iter_reader_asynch_c *reader, void *c) {
        auto *const to = static_cast<closure_t *>(c);
        if (++to->met == 2) return manager->close_asynch(reader);
        write(*to->db, {nom_sample_t::of_uint64(13, HOUR_MS + 2000000, 77),
                        nom_sample_t::of_uint64(13, HOUR_MS + 2, 78)});
        reader->set_deleter(true);
        reader->set_end_timestamp_s(HOUR_S + 1800);
        manager->next_asynch(reader);
      },
      &closure);
  const auto left = read(db, 13);
  ASSERT_EQ(left.size(), 11u);
  EXPECT_EQ(left[0], m_expected[2]);
  EXPECT_EQ(left[1], (met_t{HOUR_MS + 2000000, 77}));
}

TEST_F(data_db_read, histogram_records_are_cropped_with_their_blobs) {
  m_params.datatype = histogram;
  data_db_c &db = open();
  ASSERT_TRUE(db.write_record(1, HOUR_S, hist_record(6, {{0, "one"}, {5000, "zwei"}, {9000, "three"}}),
                              db::raw::HISTOGRAM));
  struct closure_t {
    int met = 0;
  } closure;
  db.find_asynch(
      key_of(1, 0), SEEK_NEXT_ON_MISS,
      [](raw_iter_manager_asynch_c *manager, raw_iter_reader_asynch_c *reader, void *c) {
        if (++static_cast<closure_t *>(c)->met == 2) return manager->close_asynch(reader);
        reader->set_deleter(true);
        reader->set_end_timestamp_s(HOUR_S + 6);
        manager->next_asynch(reader);
      },
      &closure);
  EXPECT_EQ(record(db, 1, HOUR_S), hist_record(6, {{9000, "three"}}));
}

// ---- scanning

TEST_F(data_db_read, every_metric_is_named_once) {
  data_db_c &db = open();
  std::vector<nom_sample_t> samples;
  std::set<uint64_t> expected;
  for (uint64_t i = 1; i <= 300; ++i) {
    const uint64_t id = i % 3 == 0 ? i << 40 : i;
    expected.insert(id);
    for (uint64_t hour = 0; hour <= i % 4; ++hour) {
      samples.push_back(nom_sample_t::of_int32(id, HOUR_MS + hour * RECORD_SIZE_MS, 1));
    }
  }
  samples.push_back(nom_sample_t::of_int32(299, TIME_LIMIT_MS - 1, 1));
  write(db, samples);
  std::multiset<uint64_t> named;
  db.accumulate_all_primary_keys([&](uint64_t id) { named.insert(id); });
  EXPECT_EQ(std::vector(named.begin(), named.end()), std::vector(expected.begin(), expected.end()));
}

TEST_F(data_db_read, a_stream_takes_the_wanted_metrics_and_hours_and_can_be_stopped) {
  data_db_c &db = filled(13);
  struct closure_t {
    std::vector<std::pair<uint64_t, uint64_t>> blocks;
    std::vector<uint64_t> metrics;
    size_t stop_after = 99;
  };
  const auto stream = [&](closure_t *closure, uint64_t end_s) {
    return db.stream_for_reconstitute(
        HOUR_S, end_s, closure,
        [](void *c, uint64_t id) {
          static_cast<closure_t *>(c)->metrics.push_back(id);
          return id == 13 ? db::raw::reconstitute_metric_e::skip : db::raw::reconstitute_metric_e::send;
        },
        [](void *c, uint64_t id, uint32_t ts_s, std::string_view block) {
          EXPECT_TRUE(has_right_checksum(block));
          auto *const to = static_cast<closure_t *>(c);
          to->blocks.emplace_back(id, (ts_s - HOUR_S) / 3600);
          return to->blocks.size() < to->stop_after;
        });
  };
  closure_t all;
  EXPECT_TRUE(stream(&all, HOUR_S + 3 * 3600));
  std::sort(all.metrics.begin(), all.metrics.end());
  std::sort(all.blocks.begin(), all.blocks.end());
  EXPECT_EQ(all.metrics, (std::vector<uint64_t>{5, 13, 21}));
  EXPECT_EQ(all.blocks, (std::vector<std::pair<uint64_t, uint64_t>>{{5, 0}, {5, 2}, {21, 0}, {21, 2}}));
  closure_t cut;
  cut.stop_after = 3;
  EXPECT_FALSE(stream(&cut, HOUR_S + 9 * 3600));
  EXPECT_EQ(cut.blocks.size(), 3u);
}

}  // namespace
