#include "db/surrogate3/coordinator_factory.h"

#include <gtest/gtest.h>

#include <bit>
#include <thread>

#include <fmt/format.h>

#include "database_fixture.h"
#include "platform/krel/base/krel_conf.h"
#include "support/log_capture.h"

namespace db::surrogate3 {

namespace {

void configure(const std::string &attributes) {
  const std::string text = fmt::format("<velmar><surrogate_database {}/></velmar>", attributes);
  ASSERT_TRUE(krel_conf_load_text(text, "test.conf"));
}

}  // namespace

TEST(CoordinatorFactory, TakesWhatTheConfigurationSays) {
  const temp_dir_c dir;
  configure(fmt::format(R"(location="{}/{{node}}/s" runtime_concurrency="3" max_page_size="2")", dir.path()));
  const log_capture_c log("notice");
  const auto database = coordinator_factory_c::create("node-7");
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"Updated \"runtime_concurrency\" to 4",
                                                   "s3 configuration\\x0a\tmax_page_size_for_batching: 2\\x0a"
                                                   "\tcapacity_per_reader_shard: 24000000\\x0a\tnum_thread : 4",
                                                   "Initializing surrogate cache...",
                                                   "Initializing surrogate cache... Done."}));
  EXPECT_TRUE(std::filesystem::is_directory(dir / "node-7/s/flatbuffers/metadata"));
  write_metrics(*database, {{make_metric("a")}, {make_metric("b")}, {make_metric("c")}});
  const std::vector<uint64_t> ids = {1, 2, 3};
  const auto pages = database->batch_find(ids);
  ASSERT_TRUE(pages->fill_next_page());
  EXPECT_EQ(pages->get_page_locators().size(), 2u);
}

TEST(CoordinatorFactoryDeathTest, NeedsALocationAndAPowerOfTwo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  configure("");
  EXPECT_DEATH(coordinator_factory_c::create("n"), "No surrogate database path specified in config\n");
  EXPECT_DEATH(open_database("/nowhere", 3), "num_threads must be a power of two\n");
}

}  // namespace db::surrogate3
