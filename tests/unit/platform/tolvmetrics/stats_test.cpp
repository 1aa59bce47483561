#include "platform/tolvmetrics/stats.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/krel/base/krel_json.h"

namespace {

struct recorder_deleter_t {
  void operator()(stats_recorder_t *recorder) const { stats_recorder_free(recorder); }
};

class stats : public testing::Test {
 protected:
  stats_recorder_t *recorder() const { return m_recorder.get(); }
  stats_ns_t *global() const { return stats_recorder_global_ns(recorder()); }
  stats_handle_t *handle(const char *name, int kind) const { return stats_register(global(), name, kind); }
  std::string json(bool simple = true, bool reset = false) const {
    const std::string text = stats_recorder_output_json(recorder(), simple, reset);
    EXPECT_NE(krel_json_ptr(krel_json_tokener_parse(text)), nullptr) << text;
    return text;
  }
  std::string tagged(bool reset = false) const {
    const std::string text = stats_recorder_output_json_tagged(recorder(), reset);
    EXPECT_NE(krel_json_ptr(krel_json_tokener_parse(text)), nullptr) << text;
    return text;
  }
  std::unique_ptr<stats_recorder_t, recorder_deleter_t> m_recorder{stats_recorder_alloc()};
};

TEST_F(stats, every_kind_in_the_nested_form) {
  const int32_t i = -3;
  const uint32_t u = 4000000000u;
  const int64_t l = -5000000000;
  const double n = 0.1;
  stats_set(handle("i", STATS_TYPE_INT32), STATS_TYPE_INT32, &i);
  stats_set(handle("I", STATS_TYPE_UINT32), STATS_TYPE_UINT32, &u);
  stats_set(handle("l", STATS_TYPE_INT64), STATS_TYPE_INT64, &l);
  stats_set(handle("n", STATS_TYPE_DOUBLE), STATS_TYPE_DOUBLE, &n);
  stats_set(handle("s", STATS_TYPE_STRING), STATS_TYPE_STRING, "a\"b\\c\n\xff é");
  stats_add64(handle("c", STATS_TYPE_COUNTER), 41);
  stats_add64(handle("c", STATS_TYPE_COUNTER), 1);
  stats_handle_t *hist = handle("h", STATS_TYPE_HISTOGRAM);
  stats_set_hist_intscale(hist, 1234, -6, 2);
  stats_set_hist_intscale(hist, 0, 0, 1);
  stats_set(hist, STATS_TYPE_DOUBLE, &n);
  stats_ns_t *inner = stats_register_ns(recorder(), stats_register_ns(recorder(), nullptr, "z"), "y");
  stats_set(stats_register(inner, "g", STATS_TYPE_GAUGE_U64), STATS_TYPE_UINT32, &u);
  EXPECT_EQ(json(false),
            "{\"I\":{\"_type\":\"I\",\"_value\":4000000000},"
            "\"c\":{\"_type\":\"L\",\"_value\":42},"
            "\"h\":{\"_type\":\"h\",\"_value\":{\"0\":1,\"+12e-004\":2,\"+10e-002\":1}},"
            "\"i\":{\"_type\":\"i\",\"_value\":-3},"
            "\"l\":{\"_type\":\"l\",\"_value\":-5000000000},"
            "\"n\":{\"_type\":\"n\",\"_value\":0.1},"
            "\"s\":{\"_type\":\"s\",\"_value\":\"a\\\"b\\\\c\\u000a\xef\xbf\xbd é\"},"
            "\"z\":{\"y\":{\"g\":{\"_type\":\"L\",\"_value\":4000000000}}}}");
  EXPECT_TRUE(json(true).starts_with("{\"I\":4000000000,\"c\":42,\"h\":{\"0\":1,\"+12e-004\":2,"))
      << json(true);
}

TEST_F(stats, names_are_shared_but_not_between_kinds) {
  EXPECT_EQ(handle("a", STATS_TYPE_COUNTER), handle("a", STATS_TYPE_COUNTER));
  EXPECT_EQ(handle("a", STATS_TYPE_GAUGE_U64), nullptr);
  stats_add64(nullptr, 1);  // what a refused registration gave is safe to use
  stats_set_hist_intscale(nullptr, 1, 0, 1);
  EXPECT_EQ(stats_register_ns(recorder(), nullptr, "n"), stats_register_ns(recorder(), global(), "n"));
  // A namespace and a statistic may have one name.
  stats_register(stats_register_ns(recorder(), nullptr, "a"), "b", STATS_TYPE_COUNTER);
  stats_register_ns(recorder(), nullptr, "c");
  handle("c", STATS_TYPE_COUNTER);
  EXPECT_EQ(json(), "{\"a\":{\"_value\":0,\"b\":0},\"c\":{\"_value\":0},\"n\":{}}");
  EXPECT_EQ(json(false).substr(0, 62),
            "{\"a\":{\"_type\":\"L\",\"_value\":0,\"b\":{\"_type\":\"L\",\"_value\":0}},\"c\"");
}

TEST_F(stats, gauges_go_up_and_down_and_never_show_below_zero) {
  stats_handle_t *gauge = handle("g", STATS_TYPE_GAUGE_U64), *real = handle("n", STATS_TYPE_DOUBLE);
  stats_add64(gauge, 5);
  stats_add64(gauge, -7);
  stats_add64(real, -2);
  EXPECT_EQ(json(), "{\"g\":0,\"n\":-2}");
  stats_add64(gauge, 3);
  EXPECT_EQ(json(), "{\"g\":1,\"n\":-2}");
}

TEST_F(stats, a_reset_begins_counters_and_histograms_anew_and_leaves_gauges) {
  stats_handle_t *counter = handle("c", STATS_TYPE_COUNTER), *gauge = handle("g", STATS_TYPE_GAUGE_U64);
  stats_handle_t *hist = handle("h", STATS_TYPE_HISTOGRAM);
  const auto update = [&](int times) {
    stats_add64(counter, times);
    stats_add64(gauge, times);
    stats_set_hist_intscale(hist, 5, 0, static_cast<uint64_t>(times));
  };
  update(3);
  EXPECT_EQ(json(true, true), "{\"c\":3,\"g\":3,\"h\":{\"+50e-001\":3}}")
      << "the reading that resets still shows it";
  EXPECT_EQ(json(), "{\"c\":0,\"g\":3,\"h\":{}}");
  update(2);
  EXPECT_EQ(json(), "{\"c\":2,\"g\":5,\"h\":{\"+50e-001\":2}}");
  tagged(true);
  update(1);
  EXPECT_EQ(json(), "{\"c\":1,\"g\":6,\"h\":{\"+50e-001\":1}}");
  const std::string text = stats_recorder_output_prometheus(recorder());
  EXPECT_NE(text.find("\nc_total 6\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\nh_count 6\n"), std::string::npos) << text;
}

TEST_F(stats, observed_memory_and_functions_are_read_each_time) {
  int64_t observed = 7;
  const char text[] = "seen";
  double level = 1.5;
  int refreshed = 0;
  stats_ns_t *ns = stats_register_ns(recorder(), nullptr, "ns");
  stats_observe(stats_register(ns, "l", STATS_TYPE_INT64), STATS_TYPE_INT64, &observed);
  stats_observe(stats_register(ns, "n", STATS_TYPE_DOUBLE), STATS_TYPE_INT64, &observed);
  stats_observe(stats_register(ns, "s", STATS_TYPE_STRING), STATS_TYPE_STRING, text);
  stats_invoke(stats_register(ns, "f", STATS_TYPE_DOUBLE), [&] { return level; });
  stats_invoke(stats_register(ns, "g", STATS_TYPE_GAUGE_U64), [&] { return level; });
  stats_handle_t *count = stats_register(ns, "r", STATS_TYPE_STRING);
  stats_ns_invoke(ns, [&] {
    observed = ++refreshed;
    stats_set(count, STATS_TYPE_STRING, std::to_string(refreshed).c_str());
  });
  EXPECT_EQ(json(), "{\"ns\":{\"f\":1.5,\"g\":1,\"l\":1,\"n\":1,\"r\":\"1\",\"s\":\"seen\"}}");
  level = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(json(), "{\"ns\":{\"f\":null,\"g\":0,\"l\":2,\"n\":2,\"r\":\"2\",\"s\":\"seen\"}}");
}

TEST_F(stats, tagged_keys_are_canonical) {
  stats_ns_add_tag(global(), "zone", "b");
  stats_ns_t *ns = stats_register_ns(recorder(), nullptr, "db");
  stats_ns_add_tag(ns, "db-type", "raw:x");
  stats_handle_t *put = stats_register(ns, "put", STATS_TYPE_COUNTER);
  stats_handle_add_tag(put, "units", "a b");
  stats_handle_add_tag(put, "zone", "b");
  stats_handle_t *named = stats_register(ns, "get", STATS_TYPE_COUNTER);
  stats_handle_tagged_name(named, "get`calls");
  stats_handle_tagged_suppress(stats_register(ns, "hidden", STATS_TYPE_COUNTER), true);
  handle("get2", STATS_TYPE_COUNTER);
  EXPECT_EQ(tagged(),
            "{\"get2|ST[zone:b]\":{\"_type\":\"L\",\"_value\":0},"
            "\"get`calls|ST[db-type:raw:x,zone:b]\":{\"_type\":\"L\",\"_value\":0},"
            "\"db`put|ST[db-type:raw:x,units:b\\\"YSBi\\\",zone:b]\":{\"_type\":\"L\",\"_value\":0}}");

  stats_handle_t *twin = stats_register(ns, "twin", STATS_TYPE_COUNTER);
  stats_handle_tagged_name(twin, "get`calls");
  stats_add64(twin, 9);
  EXPECT_NE(tagged().find("\"get`calls|ST[db-type:raw:x,path:db`twin,zone:b]\":{\"_type\":\"L\",\"_value\":9}"),
            std::string::npos)
      << "a second statistic of one tagged name is not lost";
}

TEST_F(stats, prometheus_text) {
  stats_ns_add_tag(global(), "node-id", "x\"y\\z\n");
  stats_ns_t *ns = stats_register_ns(recorder(), nullptr, "2db");
  stats_add64(stats_register(ns, "put`calls", STATS_TYPE_COUNTER), 3);
  stats_handle_t *level = stats_register(ns, "level", STATS_TYPE_DOUBLE);
  stats_add64(level, -2);
  stats_handle_add_tag(level, "le", "1");
  stats_handle_add_tag(level, "pool", "a");
  stats_handle_add_tag(level, "pool", "b");
  stats_set(stats_register(ns, "version", STATS_TYPE_STRING), STATS_TYPE_STRING, "1\n");
  stats_handle_t *hist = stats_register(ns, "lat", STATS_TYPE_HISTOGRAM);
  stats_handle_tagged_name(hist, "latency");
  for (int64_t ms : {-1, 0, 1, 19, 20, 49, 50, 99}) stats_set_hist_intscale(hist, ms, -3, 1);
  const std::string id = "node_id=\"x\\\"y\\\\z\\n\"";
  std::string text = stats_recorder_output_prometheus(recorder());
  const size_t sum = text.find("} ", text.find("latency_sum{")) + 2;
  const std::string sum_text = text.substr(sum, text.find('\n', sum) - sum);
  EXPECT_NEAR(strtod(sum_text.c_str(), nullptr), 0.2395, 1e-12);  // of the bins' middles
  text.replace(sum, sum_text.size(), "SUM");
  EXPECT_EQ(text, "# HELP _2db_level 2db`level\n# TYPE _2db_level gauge\n_2db_level{le_=\"1\"," + id +
                      ",pool=\"a,b\"} -2\n"
                      "# HELP _2db_put_calls_total 2db`put`calls\n# TYPE _2db_put_calls_total counter\n"
                      "_2db_put_calls_total{" +
                      id +
                      "} 3\n"
                      "# HELP _2db_version_info 2db`version\n# TYPE _2db_version_info gauge\n"
                      "_2db_version_info{" +
                      id +
                      ",value=\"1\\n\"} 1\n"
                      "# HELP latency 2db`lat\n# TYPE latency histogram\n"
                      "latency_bucket{" +
                      id +
                      ",le=\"0\"} 2\n"
                      "latency_bucket{" +
                      id +
                      ",le=\"0.002\"} 3\n"
                      "latency_bucket{" +
                      id +
                      ",le=\"0.005\"} 3\n"
                      "latency_bucket{" +
                      id +
                      ",le=\"0.01\"} 3\n"
                      "latency_bucket{" +
                      id +
                      ",le=\"0.02\"} 4\n"
                      "latency_bucket{" +
                      id +
                      ",le=\"0.05\"} 6\n"
                      "latency_bucket{" +
                      id +
                      ",le=\"0.1\"} 8\n"
                      "latency_bucket{" +
                      id +
                      ",le=\"+Inf\"} 8\n"
                      "latency_sum{" +
                      id +
                      "} SUM\n"
                      "latency_count{" +
                      id + "} 8\n");
}

TEST_F(stats, prometheus_families_hold_together) {
  // Two namespaces give the same name with other labels, a third the same labels again.
  for (const char *name : {"a", "b", "c"}) {
    stats_ns_t *ns = stats_register_ns(recorder(), nullptr, name);
    if (name[0] != 'c') stats_ns_add_tag(ns, "ns", name);
    stats_handle_tagged_name(stats_register(ns, "calls", STATS_TYPE_COUNTER), "calls");
  }
  handle("calls", STATS_TYPE_COUNTER);
  handle("calls_total", STATS_TYPE_DOUBLE);
  EXPECT_EQ(stats_recorder_output_prometheus(recorder()),
            "# HELP c_calls_total c`calls\n# TYPE c_calls_total counter\nc_calls_total 0\n"
            "# HELP calls_total calls\n# TYPE calls_total counter\n"
            "calls_total 0\ncalls_total{ns=\"a\"} 0\ncalls_total{ns=\"b\"} 0\n");
}

TEST_F(stats, nothing_is_lost_by_threads_that_end_or_readings_in_between) {
  stats_handle_t *counter = handle("c", STATS_TYPE_COUNTER), *gauge = handle("g", STATS_TYPE_GAUGE_U64);
  stats_handle_t *hist = handle("h", STATS_TYPE_HISTOGRAM);
  constexpr int THREADS = 8, UPDATES = 5000;
  const auto figure = [&](krel_json_object *object, const char *name) {
    krel_json_object *value = krel_json_object_object_get(object, name);
    if (!krel_json_object_is_type(value, krel_json_type_object)) return krel_json_object_get_uint64(value);
    uint64_t total = 0;
    for (auto *e = krel_json_object_get_object_head(value); e != nullptr; e = krel_json_entry_next(e))
      total += krel_json_object_get_uint64(krel_json_entry_value(e));
    return total;
  };
  uint64_t counted = 0, binned = 0;
  const auto take = [&] {
    const krel_json_ptr object(krel_json_tokener_parse(stats_recorder_output_json(recorder(), true, true)));
    counted += figure(object.get(), "c");
    binned += figure(object.get(), "h");
  };
  std::atomic<int> running{THREADS};
  std::vector<std::thread> threads;
  for (int t = 0; t < THREADS; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < UPDATES; ++i) {
        stats_add64(counter, 1);
        stats_add64(gauge, 1);
        stats_set_hist_intscale(hist, (t + 1) * (i + 1), i % 40 - 20, 1);
      }
      --running;
    });
  }
  while (running > 0) take();
  for (std::thread &thread : threads) thread.join();
  take();
  EXPECT_EQ(counted, static_cast<uint64_t>(THREADS * UPDATES));
  EXPECT_EQ(binned, static_cast<uint64_t>(THREADS * UPDATES));
  EXPECT_EQ(json(), "{\"c\":0,\"g\":" + std::to_string(THREADS * UPDATES) + ",\"h\":{}}");
}

TEST(stats_recorders, a_freed_recorder_leaves_nothing_to_the_next) {
  for (int round = 0; round < 3; ++round) {
    const std::unique_ptr<stats_recorder_t, recorder_deleter_t> recorder(stats_recorder_alloc());
    stats_ns_t *global = stats_recorder_global_ns(recorder.get());
    stats_handle_t *counter = stats_register(global, "c", STATS_TYPE_COUNTER);
    stats_handle_t *hist = stats_register(global, "h", STATS_TYPE_HISTOGRAM);
    EXPECT_EQ(stats_recorder_output_json(recorder.get(), true, false), "{\"c\":0,\"h\":{}}");
    const auto update = [&] {
      stats_add64(counter, 1);
      stats_set_hist_intscale(hist, 1, 0, 1);
    };
    update();
    std::thread(update).join();
    EXPECT_EQ(stats_recorder_output_json(recorder.get(), true, false), "{\"c\":2,\"h\":{\"+10e-001\":2}}");
  }
}

// A thread's other thread_local objects may still count while it ends.
TEST_F(stats, updates_of_an_ending_thread_count) {
  struct late_t {
    stats_handle_t *counter = nullptr, *hist = nullptr;
    ~late_t() {
      stats_add64(counter, 1);
      stats_set_hist_intscale(hist, 1, 0, 1);
    }
  };
  stats_handle_t *counter = handle("c", STATS_TYPE_COUNTER), *hist = handle("h", STATS_TYPE_HISTOGRAM);
  std::thread([&] {
    thread_local late_t late;  // made before the thread's cells, so it goes after them
    late.counter = counter;
    late.hist = hist;
    stats_add64(counter, 1);
    stats_set_hist_intscale(hist, 1, 0, 1);
  }).join();
  EXPECT_EQ(json(), "{\"c\":2,\"h\":{\"+10e-001\":2}}");
}

}  // namespace
