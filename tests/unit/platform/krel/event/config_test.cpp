#include "platform/krel/event/krelev_config.h"

#include "platform/krel/base/krel_conf.h"
#include "support.h"

namespace {

bool parses(const char *text) {
  krelev_jobq_settings_t settings;
  std::string error;
  return krelev_parse_jobq(text, &settings, &error);
}

krelev_jobq_settings_t parsed(const char *text) {
  krelev_jobq_settings_t settings;
  std::string error;
  EXPECT_TRUE(krelev_parse_jobq(text, &settings, &error)) << text << ": " << error;
  return settings;
}

}  // namespace

TEST(config, job_queue_values) {
  krelev_jobq_settings_t full = parsed("64,1,256,gc,50000,lifo");
  EXPECT_EQ(full.concurrency, 64u);
  EXPECT_EQ(full.min, 1u);
  EXPECT_EQ(full.max, 256u);
  EXPECT_TRUE(full.memory_safety);
  EXPECT_EQ(full.max_backlog, 50000u);
  EXPECT_TRUE(full.lifo);
  krelev_jobq_settings_t least = parsed("1,1,1");
  EXPECT_FALSE(least.memory_safety);
  EXPECT_EQ(least.max_backlog, 0u);
  EXPECT_FALSE(least.lifo);
  EXPECT_FALSE(parsed("4,0,4,none,7,fifo").memory_safety);
  EXPECT_EQ(parsed("4,1,4,7").max_backlog, 7u);
  EXPECT_TRUE(parsed("4,1,4,lifo").lifo);
  for (const char *bad : {"",
                          "4",
                          "4,1",
                          "4,1,",
                          "4,1,4,",
                          ",1,4",
                          "4,1,4,GC",
                          "4, 1,4",
                          " 4,1,4",
                          "4,1,4 ",
                          "-1,1,4",
                          "+4,1,4",
                          "4.0,1,4",
                          "0,0,0",
                          "0,0,4",
                          "4,5,8",
                          "9,1,8",
                          "4,1,4,gc,gc",
                          "4,1,4,7,gc",
                          "4,1,4,lifo,7",
                          "4,1,4,gc,7,lifo,",
                          "4,1,4,gc,-1",
                          "4,1,4,gc,4294967296",
                          "4,1,65537",
                          "99999999999999999999,1,4",
                          "4,1,4,gc,7,lifo,x",
                          "0x4,1,4"})
    EXPECT_FALSE(parses(bad)) << bad;
}

TEST(config, the_configuration_beats_later_keys_beat_earlier_ones) {
  ASSERT_TRUE(
      krel_conf_load_text("<velmar><krelev><config><concurrency>3</concurrency><loop_side>2</loop_side>"
                          "<jobq_one>5,2,9,gc,11,lifo</jobq_one></config></krelev></velmar>",
                          "velmar.conf"));
  {
    krelev_run_c run(
        {{"concurrency", "1"}, {"jobq_one", "1,1,1"}, {"jobq_two", "4,1,16,gc"}, {"jobq_two", "1,1,1,gc"}});
    EXPECT_EQ(krelev_loop_concurrency(), 3);
    EXPECT_EQ(krelev_loop_concurrency(krelev_pool("side")), 2);
    krelev_jobq_t *one = krelev_jobq_retrieve("one"), *two = krelev_jobq_retrieve("two");
    ASSERT_TRUE(one != nullptr && two != nullptr);
    krelev_jobq_figures_t figures = figures_of(one);
    EXPECT_EQ(figures.concurrency, 5u);
    EXPECT_EQ(figures.min, 2u);
    EXPECT_EQ(figures.max, 9u);
    EXPECT_EQ(figures.max_backlog, 11u);
    EXPECT_EQ(figures.threads, 0u) << "threads start on demand";
    EXPECT_TRUE(krelev_jobq_get_memory_safety(one));
    EXPECT_EQ(figures_of(two).max, 1u);
    EXPECT_TRUE(krelev_jobq_is_configured(two));
    EXPECT_EQ(krelev_jobq_create("two"), nullptr) << "the name is taken";
    krelev_jobq_t *three = krelev_jobq_create("three");
    ASSERT_NE(three, nullptr);
    EXPECT_FALSE(krelev_jobq_is_configured(three));
  }
  ASSERT_TRUE(krel_conf_load_text("<velmar/>", "velmar.conf"));
}

TEST(config_death, nonsense_is_fatal_and_named) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto init_with = [](const char *key, const char *value) {
    krelev_config(key, value);
    krelev_init();
  };
  EXPECT_DEATH(init_with("jobq_raw_ingest", "4,1,4,gx"), "jobq_raw_ingest is \"4,1,4,gx\"");
  EXPECT_DEATH(init_with("concurrency", "0"), "concurrency is \"0\"");
  EXPECT_DEATH(init_with("loop_default", "2"), "loop_default is \"2\"");
  EXPECT_DEATH(init_with("jobs_raw", "1,1,1"), "jobs_raw is \"1,1,1\": there is no such key");
}
