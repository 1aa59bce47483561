#include "libvelmar/util/tolv_proxy_buffer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "platform/krel/base/krel_util.h"
#include "support/scripted_peer.h"

namespace {

class tolv_proxy_buffer : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    directory() = std::filesystem::temp_directory_path() / ("velmar-proxy-" + std::to_string(getpid()));
    std::filesystem::create_directories(directory());
    tolv_proxy_buffer_init_proxy_dir(directory().c_str());
  }
  static void TearDownTestSuite() { std::filesystem::remove_all(directory()); }
  static std::filesystem::path &directory() {
    static std::filesystem::path path;
    return path;
  }
  bool perform(scripted_peer_c::answer_t answer) {
    peer.answer("http://peer/", std::move(answer));
    return buffer.perform("test", {.url = "http://peer/x"});
  }

  scripted_peer_c peer;
  tolv_proxy_buffer_t buffer;
};

TEST_F(tolv_proxy_buffer, keeps_an_answer_that_came_in_pieces_outside_the_directory) {
  std::string body;
  for (int i = 0; i < 100000; i++) body += std::to_string(i);
  ASSERT_TRUE(perform({200, body, {}, 0, 777}));
  EXPECT_EQ(buffer.get_len(), body.size());
  EXPECT_EQ(buffer.mmap(), body);
  EXPECT_TRUE(std::filesystem::is_empty(directory() / "proxy_tmp_files"));
  buffer.reset_fd_position();
  char start[6] = {};
  EXPECT_EQ(buffer.read_fd(start, 5), 5);
  EXPECT_STREQ(start, "01234");
}

TEST_F(tolv_proxy_buffer, an_answer_other_than_200_leaves_its_code_and_nothing_else) {
  EXPECT_FALSE(perform({404, "not here"}));
  EXPECT_EQ(buffer.get_httpcode(), 404);
  EXPECT_EQ(buffer.get_len(), 0U);
  EXPECT_FALSE(buffer.has_valid_fd());
  EXPECT_EQ(buffer.get_error_body(), "");
  buffer.keep_error_body(6);
  EXPECT_FALSE(perform({404, "not here"}));
  EXPECT_EQ(buffer.get_error_body(), "not he");
  EXPECT_FALSE(buffer.has_valid_fd());
  EXPECT_TRUE(perform({200, "here"}));
  EXPECT_EQ(buffer.get_error_body(), "");
}

TEST_F(tolv_proxy_buffer, a_transfer_that_breaks_is_an_error_of_500) {
  EXPECT_FALSE(perform({200, std::string(1000, 'x'), {}, 0, 100, 500}));
  EXPECT_EQ(buffer.get_httpcode(), 500);
  EXPECT_EQ(buffer.get_len(), 0U);
}

TEST_F(tolv_proxy_buffer, no_answer_has_no_code) {
  EXPECT_FALSE(buffer.perform("test", {.url = "http://nobody/"}));
  EXPECT_EQ(buffer.get_httpcode(), 0);
}

TEST_F(tolv_proxy_buffer, can_be_used_again_and_passes_the_task_on) {
  krel_task_set_current_task(77);
  ASSERT_TRUE(perform({200, "first answer"}));
  ASSERT_TRUE(perform({200, "{\"a\": [1]}"}));
  krel_task_set_current_task(0);
  EXPECT_EQ(buffer.get_len(), 10U);
  EXPECT_EQ(krel_json_object_array_length(krel_json_object_object_get(buffer.to_json_object().get(), "a")), 1U);
  EXPECT_EQ(peer.requests()[0].headers, std::vector<std::string>{"X-Velmar-TaskId: 77"});
}

TEST(http_header_parse, cuts_lower_cases_and_skips) {
  std::string name, value;
  EXPECT_TRUE(http_header_parse("  X-Some-Thing:  a: b \r\n", &name, &value));
  EXPECT_EQ(name, "x-some-thing");
  EXPECT_EQ(value, "a: b ");
  EXPECT_FALSE(http_header_parse("HTTP/1.1 200 OK\r\n", &name, &value));
  EXPECT_FALSE(http_header_parse("\r\n", &name, &value));
  EXPECT_FALSE(http_header_parse("a: " + std::string(1024 * 1024, 'x'), &name, &value));
}

}  // namespace
