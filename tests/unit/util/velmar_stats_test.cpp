#include "util/velmar_stats.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/krel/base/krel_json.h"

namespace {

krel_json_ptr read_all() {
  return krel_json_ptr(
      krel_json_tokener_parse(stats_recorder_output_json(velmar_stats_get_recorder(), true, false)));
}

TEST(velmar_stats, dotted_names_split_at_their_dots) {
  stats_add64(velmar_stats_get_handle("be.raw.gates.put", STATS_TYPE_COUNTER), 1);
  stats_add64(velmar_stats_get_handle("be.raw.gates.put", STATS_TYPE_COUNTER), 1);
  stats_add64(velmar_stats_get_handle("plain", STATS_TYPE_COUNTER), 5);
  stats_add64(stats_register(velmar_stats_get_ns("be.raw"), "x", STATS_TYPE_COUNTER), 7);
  const krel_json_ptr all = read_all();
  EXPECT_EQ(krel_json_object_get_int(krel_json_object_object_get(all.get(), "plain")), 5);
  EXPECT_STREQ(krel_json_object_to_json_string(krel_json_object_object_get(all.get(), "be")),
               "{\"raw\":{\"x\":7,\"gates\":{\"put\":2}}}");
  EXPECT_EQ(velmar_stats_get_handle("be.raw.gates.put", STATS_TYPE_HISTOGRAM), nullptr);
  EXPECT_NE(stats_recorder_output_json_tagged(velmar_stats_get_recorder(), false)
                .find("\"plain|ST[application:velmar]\""),
            std::string::npos);
}

TEST(velmar_stats, process_figures_are_fresh_at_each_reading) {
  velmar_stats_register_process();
  const krel_json_ptr first = read_all();
  krel_json_object *process = krel_json_object_object_get(first.get(), "process");
  EXPECT_GT(krel_json_object_get_int64(krel_json_object_object_get(process, "maxrss")), 0);
  const double before = krel_json_object_get_double(krel_json_object_object_get(process, "utime"));
  const double up = krel_json_object_get_double(krel_json_object_object_get(first.get(), "uptime"));
  double used = before;
  volatile uint64_t work = 0;
  while (used <= before) {  // until the clock of the process has moved on
    for (int i = 0; i < 1000000; ++i) work = work + 1;
    const krel_json_ptr next = read_all();
    used = krel_json_object_get_double(
        krel_json_object_object_get(krel_json_object_object_get(next.get(), "process"), "utime"));
    EXPECT_GT(krel_json_object_get_double(krel_json_object_object_get(next.get(), "uptime")), up);
  }
}

}  // namespace
