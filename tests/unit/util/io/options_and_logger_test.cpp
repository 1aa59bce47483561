#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/krel/base/krel_conf.h"
#include "platform/krel/base/krel_json.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "util/io/files.h"
#include "util/io/request_logger.h"
#include "util/io/tolv_json_opt.h"

namespace {

struct env_t {
  int threads = 0;
};
struct options_t {
  int number = 0;
  unsigned char small = 0;
  uint64_t big = 0;
  double ratio = 0;
  std::vector<int> list;
  env_t env;
};
void set_number(options_t *o, int v) {
  o->number = v;
}
void set_small(options_t *o, unsigned char v) {
  o->small = v;
}
void set_big(options_t *o, uint64_t v) {
  o->big = v;
}
void set_ratio(options_t *o, double v) {
  o->ratio = v;
}
void set_list(options_t *o, int *values, size_t count) {
  o->list.assign(values, values + count);
}
void set_threads(env_t *env, int v) {
  env->threads = v;
}

class json_opt_test : public testing::Test {
 protected:
  json_opt_test() {
    env_set.insert("threads", set_threads);
    set.insert("number", set_number);
    set.insert("small", set_small);
    set.insert("big", set_big);
    set.insert("ratio", set_ratio);
    set.insert("list", set_list);
    set.insert<env_t>("env", env_set, [](options_t *o) { return &o->env; });
  }
  // "" or the error.
  std::string apply(const char *json) {
    const krel_json_ptr object(krel_json_tokener_parse(json));
    std::string error;
    return set.apply(&options, object.get(), &error) ? "" : error;
  }
  tolv_json_opt::option_set_c<env_t> env_set;
  tolv_json_opt::option_set_c<options_t> set;
  options_t options;
};

TEST_F(json_opt_test, each_kind_reaches_its_setter_and_unknown_keys_are_passed_over) {
  EXPECT_EQ(apply(R"({"number":-5,"small":255,"big":18446744073709551615,"ratio":10,"list":[1,-2],
                      "unknown":{"x":[1]},"env":{"threads":8,"other":null}})"),
            "");
  EXPECT_EQ(options.number, -5);
  EXPECT_EQ(options.small, 255);
  EXPECT_EQ(options.big, UINT64_MAX);
  EXPECT_EQ(options.ratio, 10.0);
  EXPECT_EQ(options.list, (std::vector<int>{1, -2}));
  EXPECT_EQ(options.env.threads, 8);
}

TEST_F(json_opt_test, values_of_another_kind_or_range_are_errors_with_their_name) {
  EXPECT_EQ(apply(R"({"small":256})"), "option small: an integer from 0 to 255 expected");
  EXPECT_EQ(apply(R"({"big":-1})"), "option big: an integer from 0 to 18446744073709551615 expected");
  EXPECT_EQ(apply(R"({"number":2147483648})"), "option number: a 32-bit integer expected");
  EXPECT_EQ(apply(R"({"ratio":"1"})"), "option ratio: a number expected");
  EXPECT_EQ(apply(R"({"list":[1,"2"]})"), "option list: an array of 32-bit integers expected");
  EXPECT_EQ(apply(R"({"env":{"threads":1.5}})"), "option threads: a 32-bit integer expected");
  EXPECT_EQ(apply(R"([])"), "options: an object expected");
  EXPECT_DEATH(set.insert("big", set_big), "krel_hash_store\\(&m_table, name, strlen\\(name\\), impl\\)");
}

void configure(const std::string &attributes) {
  const std::string text = "<velmar><request_logger " + attributes + "/></velmar>";
  ASSERT_TRUE(krel_conf_load_text(text, "test.conf"));
  request_logger_init();
}
std::string read(const std::string &path) {
  std::string out;
  return util::io::system_files().read_whole(path, &out) ? "(none)" : out;
}

TEST(request_logger, writes_what_its_settings_say_and_removes_at_the_end) {
  temp_dir_c dir;
  configure("");
  EXPECT_FALSE(request_logger_enabled());
  EXPECT_EQ(request_logger_start_request("/x", ""), "");

  configure(fmt::format("directory=\"{}/new/logs\"", dir.path()));
  EXPECT_TRUE(request_logger_enabled());
  const std::string first = request_logger_start_request("/find?q=1", "body");
  const std::string second = request_logger_start_request("/find?q=1", "body");
  EXPECT_NE(first, second);
  const std::string text = read(first);
  EXPECT_EQ(text.substr(0, 6), "TIME: ");
  EXPECT_EQ(text.substr(text.find('\n') + 1), "REQUEST:\n/find?q=1\n");
  request_logger_end_request(first);
  EXPECT_NE(read(first), "(none)");

  configure(fmt::format("directory=\"{}\" save_post_bodies=\"on\" remove_after_finish=\"on\"", dir.path()));
  const std::string third = request_logger_start_request("/fetch", "body");
  EXPECT_EQ(read(third).substr(read(third).find("REQUEST")), "REQUEST:\n/fetch\nPOST DATA:\nbody\n");
  request_logger_end_request(third);
  EXPECT_EQ(read(third), "(none)");

  log_capture_c log("error");
  EXPECT_EQ(request_logger_start_request(nullptr, "body"), "");
  std::filesystem::remove_all(dir.path());
  EXPECT_EQ(request_logger_start_request("/fetch", "body"), "");
  EXPECT_TRUE(log.contains("no url provided to request_logger utility"));
  EXPECT_TRUE(log.contains("to log request body"));
  configure("");
}

TEST(request_logger, a_directory_that_is_a_file_stops_the_node) {
  temp_dir_c dir;
  ASSERT_FALSE(util::io::atomic_replace(dir / "f", ""));
  EXPECT_DEATH(configure(fmt::format("directory=\"{}\"", dir / "f")), "exists, but is not a directory");
}

}  // namespace
