#include "platform/krel/base/krel_util.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <thread>

namespace {

std::string encode(const std::string &bytes) {
  std::string out(krel_b64_encode_len(bytes.size()), '#');
  EXPECT_EQ(krel_b64_encode(bytes.data(), bytes.size(), out.data(), out.size()),
            static_cast<int64_t>(out.size()));
  return out;
}

// "!" when refused
std::string decode(const std::string &text) {
  std::string out(krel_b64_max_decode_len(text.size()), '#');
  int64_t n = krel_b64_decode(text.data(), text.size(), out.data(), out.size());
  return n < 0 ? "!" : out.substr(0, static_cast<size_t>(n));
}

TEST(krel_util_test, base64_gives_the_published_vectors_both_ways) {
  const std::pair<const char *, const char *> vectors[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
  };
  for (auto [bytes, text] : vectors) {
    EXPECT_EQ(encode(bytes), text);
    EXPECT_EQ(decode(text), bytes);
  }
  std::string all;
  for (int i = 0; i < 256; i++) all += static_cast<char>(i);
  for (size_t n = 0; n <= all.size(); n++) EXPECT_EQ(decode(encode(all.substr(0, n))), all.substr(0, n));
}

TEST(krel_util_test, base64_refuses_what_is_not_canonical) {
  for (const char *bad : {"Zg", "Zg=", "Zg===", "=", "====", "Z===", "Zh==", "Zm9=", "Zm9v Zg=", "Zm9vZg==\n",
                          " Zm9", "Zm\n9", "Zg==Zg==", "Zm=v", "Zm9-", "Zm9_", "Zm9v\0\0\0\0"})
    EXPECT_EQ(decode(bad), std::string_view(bad).size() == 4 && bad == std::string("Zm9v") ? "foo" : "!")
        << bad;
  EXPECT_EQ(decode(std::string("Zm9v\0\0\0\0", 8)), "!");
}

TEST(krel_util_test, base64_stays_inside_a_buffer_that_just_fits) {
  char text[9] = "########";
  EXPECT_EQ(krel_b64_encode("fooba", 5, text, 7), -1);
  EXPECT_EQ(krel_b64_encode("fooba", 5, text, 8), 8);
  EXPECT_EQ(std::string(text), "Zm9vYmE=");
  char bytes[6] = "#####";
  EXPECT_EQ(krel_b64_decode("Zm9vYmE=", 8, bytes, 4), -1);
  EXPECT_EQ(krel_b64_decode("Zm9vYg==", 8, bytes, 4), 4);
  EXPECT_EQ(std::string(bytes), "foob#");
}

TEST(krel_util_test, uuids_read_any_case_and_write_the_one_asked_for) {
  krel_uuid_t uuid;
  char text[KREL_UUID_STR_LEN + 1];
  ASSERT_EQ(krel_uuid_parse("0F1E2D3c-4b5a-6978-8796-a5b4c3d2e1f0", uuid), 0);
  EXPECT_EQ(uuid[0], 0x0f);
  EXPECT_EQ(uuid[15], 0xf0);
  krel_uuid_unparse_lower(uuid, text);
  EXPECT_STREQ(text, "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0");
  krel_uuid_unparse(uuid, text);
  EXPECT_STREQ(text, "0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0");
  for (const char *bad : {"", "0f1e2d3c", "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1fg",
                          "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f00", "0f1e2d3c4b5a69788796a5b4c3d2e1f0"})
    EXPECT_EQ(krel_uuid_parse(bad, uuid), -1) << bad;
}

TEST(krel_util_test, numbers_are_read_whole_and_in_range) {
  int64_t i = 0;
  uint64_t u = 0;
  double d = 0;
  EXPECT_TRUE(krel_parse_int64("-9223372036854775808", &i));
  EXPECT_EQ(i, std::numeric_limits<int64_t>::min());
  EXPECT_TRUE(krel_parse_uint64("18446744073709551615", &u));
  EXPECT_EQ(u, std::numeric_limits<uint64_t>::max());
  EXPECT_TRUE(krel_parse_double("-1.5e3", &d));
  EXPECT_EQ(d, -1500);
  for (const char *bad : {"", " 1", "1 ", "+1", "12x", "0x10", "9223372036854775808", "1.0", "--1"})
    EXPECT_FALSE(krel_parse_int64(bad, &i)) << bad;
  for (const char *bad : {"", "-1", "18446744073709551616"}) EXPECT_FALSE(krel_parse_uint64(bad, &u)) << bad;
  for (const char *bad : {"", "nan", "inf", "1e999", "1,5", "1.5x"})
    EXPECT_FALSE(krel_parse_double(bad, &d)) << bad;
}

TEST(krel_util_test, strlcpy_ends_the_text_and_tells_its_length) {
  char to[4] = "###";
  EXPECT_EQ(krel_strlcpy(to, "abcdef", sizeof(to)), 6u);
  EXPECT_STREQ(to, "abc");
  EXPECT_EQ(krel_strlcpy(to, "ab", sizeof(to)), 2u);
  EXPECT_STREQ(to, "ab");
  EXPECT_EQ(krel_strlcpy(nullptr, "ab", 0), 2u);
}

TEST(krel_util_test, names_and_tasks_belong_to_their_thread) {
  krel_task_set_current_task(7);
  std::thread([] {
    EXPECT_EQ(krel_task_get_current_task(), 0u);
    EXPECT_EQ(std::string(krel_thread_getname()).rfind("thread-", 0), 0u);
    krel_thread_setname("a name that is longer than thirty-one characters");
    EXPECT_STREQ(krel_thread_getname(), "a name that is longer than thir");
  }).join();
  EXPECT_EQ(krel_task_get_current_task(), 7u);
  EXPECT_STREQ(krel_thread_getname(), "main");
}

}  // namespace
