#include "platform/krel/base/krel_json.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <limits>
#include <string>

namespace {

krel_json_ptr parse(std::string_view text) {
  return krel_json_ptr(krel_json_tokener_parse(text));
}

std::string printed(std::string_view text) {
  const krel_json_ptr object = parse(text);
  return object == nullptr ? "none" : krel_json_object_to_json_string(object.get());
}

std::string nested(int depth) {
  return std::string(static_cast<size_t>(depth), '[') + std::string(static_cast<size_t>(depth), ']');
}

TEST(krel_json, accepts_what_is_json) {
  const std::pair<std::string, std::string> cases[] = {
      {" {\"a\" : [1, -2.50, true, null, \"x\\u00e9/\\n\"] }\n", "{\"a\":[1,-2.50,true,null,\"xé/\\n\"]}"},
      {"{\"k\":1,\"k\":2}", "{\"k\":2}"},
      {"18446744073709551615", "18446744073709551615"},
      {"[\"It's NaN\", 1234567890123456789012.5, 1E400]", "[\"It's NaN\",1234567890123456789012.5,1E400]"},
      {"-9223372036854775808", "-9223372036854775808"},
      {"12", "12"},
      {"\"\\ud83d\\ude00 😀\"", "\"😀 😀\""},
      {"1e3", "1e3"},
      {nested(KREL_JSON_MAX_DEPTH - 1), nested(KREL_JSON_MAX_DEPTH - 1)},
  };
  for (const auto &[text, want] : cases) EXPECT_EQ(printed(text), want) << text;
}

TEST(krel_json, refuses_what_is_not) {
  const std::string cases[] = {"",
                               " ",
                               "{",
                               "{\"a\":1",
                               "[1,]",
                               "{\"a\":1,}",
                               "{'a':1}",
                               "{a:1}",
                               "[1] 2",
                               "[1]x",
                               std::string("[1]\0[2]", 7),
                               std::string("[1,\0 2]", 7),
                               "// c\n1",
                               "[1 /* c */]",
                               "NaN",
                               "[nan]",
                               "[Infinity]",
                               "[-Infinity]",
                               "18446744073709551616",
                               "-9223372036854775809",
                               "[01]",
                               "[1.e]",
                               "\"\xff\"",
                               "\"\xc3\"",
                               "\"\xe2\x82",
                               "\"open",
                               "\"a\tb\"",
                               "TRUE",
                               "[1.]",
                               "[1e]",
                               "[-]",
                               "[1-2]",
                               "[123456789012345678901234567890]",
                               nested(KREL_JSON_MAX_DEPTH + 1),
                               std::string(100000, '[')};
  for (const std::string &text : cases) EXPECT_EQ(printed(text), "none") << text.substr(0, 40);
}

TEST(krel_json, pieces_may_cut_anywhere) {
  const std::string text = " {\"schlüssel\": [\"a€b😀\", 12.5e1, -0.5E-7, 1234567], \"t\": {\"u\": true}} \n";
  const std::string want = printed(text);
  krel_json_tokener *tokener = krel_json_tokener_new();
  for (size_t first = 1; first < text.size(); ++first) {
    for (size_t step : {size_t{1}, size_t{2}, text.size()}) {
      krel_json_tokener_reset(tokener);
      krel_json_object *object = nullptr;
      krel_json_status_e status = krel_json_tokener_parse_ex(tokener, text.data(), first, &object);
      for (size_t at = first; at < text.size() && status == krel_json_continue; at += step)
        status =
            krel_json_tokener_parse_ex(tokener, text.data() + at, std::min(step, text.size() - at), &object);
      const krel_json_ptr owned(object);
      ASSERT_EQ(status, krel_json_done) << first << "/" << step << ": " << krel_json_tokener_error(tokener);
      ASSERT_EQ(krel_json_object_to_json_string(object), want);
    }
  }
  krel_json_object *object;
  krel_json_tokener_reset(tokener);
  EXPECT_EQ(krel_json_tokener_parse_ex(tokener, "12", 2, &object), krel_json_continue);
  EXPECT_EQ(krel_json_tokener_parse_ex(tokener, "3", 1, &object), krel_json_continue);
  EXPECT_EQ(krel_json_tokener_parse_ex(tokener, nullptr, 0, &object), krel_json_done);
  EXPECT_EQ(krel_json_object_get_int(object), 123);
  krel_json_object_put(object);
  krel_json_tokener_reset(tokener);
  EXPECT_EQ(krel_json_tokener_parse_ex(tokener, "9", 1, &object), krel_json_continue);
  EXPECT_EQ(krel_json_tokener_parse_ex(tokener, "-", 1, &object), krel_json_error)
      << "a front alone is no number";
  krel_json_tokener_reset(tokener);
  EXPECT_EQ(krel_json_tokener_parse_ex(tokener, "[1,,", 4, &object), krel_json_error);
  EXPECT_STRNE(krel_json_tokener_error(tokener), "");
  krel_json_tokener_free(tokener);
}

TEST(krel_json, integers_know_their_width) {
  const std::pair<std::string, krel_json_overflow_e> cases[] = {
      {"2147483647", krel_json_overflow_int},
      {"-2147483648", krel_json_overflow_int},
      {"2147483648", krel_json_overflow_int64},
      {"-2147483649", krel_json_overflow_int64},
      {"9223372036854775807", krel_json_overflow_int64},
      {"9223372036854775808", krel_json_overflow_uint64}};
  for (const auto &[text, want] : cases)
    EXPECT_EQ(krel_json_object_get_int_overflow(parse(text).get()), want) << text;
  const krel_json_ptr big = parse("18446744073709551615"), negative = parse("-5");
  EXPECT_EQ(krel_json_object_get_int64(big.get()), INT64_MAX);
  EXPECT_EQ(krel_json_object_get_int(big.get()), INT32_MAX);
  EXPECT_EQ(krel_json_object_get_uint64(big.get()), UINT64_MAX);
  EXPECT_EQ(krel_json_object_get_uint64(negative.get()), 0u);
  krel_json_object_set_uint64(negative.get(), UINT64_MAX - 1);
  EXPECT_STREQ(krel_json_object_to_json_string(negative.get()), "18446744073709551614");
}

TEST(krel_json, doubles_print_as_short_as_they_read_back) {
  const std::pair<double, std::string> cases[] = {{0.1, "0.1"},
                                                  {1, "1.0"},
                                                  {-2.5, "-2.5"},
                                                  {1e300, "1e+300"},
                                                  {1.0 / 3, "0.3333333333333333"},
                                                  {5e-324, "5e-324"},
                                                  {std::nan(""), "null"},
                                                  {-HUGE_VAL, "null"}};
  for (const auto &[value, want] : cases) {
    const krel_json_ptr object(krel_json_object_new_double(value));
    EXPECT_EQ(krel_json_object_to_json_string(object.get()), want);
    if (std::isfinite(value)) {
      EXPECT_EQ(krel_json_object_get_double(parse(want).get()), value);
    }
  }
}

TEST(krel_json, objects_are_counted_and_walked) {
  krel_json_ptr object(krel_json_object_new_object());
  krel_json_object *array = krel_json_object_new_array();
  krel_json_object_object_add(object.get(), "list", krel_json_object_get(array));
  krel_json_object_object_add(object.get(), "nothing", nullptr);
  krel_json_object_object_add(object.get(), "text", krel_json_object_new_string_len("a\0b", 3));
  krel_json_object_array_add(array, krel_json_object_new_uint64(7));
  std::string keys;
  for (auto *e = krel_json_object_get_object_head(object.get()); e != nullptr; e = krel_json_entry_next(e))
    keys += std::string(krel_json_entry_key(e)) + (krel_json_entry_value(e) == nullptr ? "0 " : " ");
  EXPECT_EQ(keys, "list nothing0 text ");
  EXPECT_EQ(krel_json_object_get_string_view(krel_json_object_object_get(object.get(), "text")),
            std::string_view("a\0b", 3));
  krel_json_object *value = array;
  EXPECT_TRUE(krel_json_object_object_get_ex(object.get(), "nothing", &value));
  EXPECT_EQ(value, nullptr);
  EXPECT_FALSE(krel_json_object_object_get_ex(object.get(), "other", &value));
  object.reset();
  EXPECT_EQ(krel_json_object_array_length(array), 1u) << "our own reference keeps it";
  EXPECT_EQ(krel_json_object_array_get_idx(array, 1), nullptr);
  EXPECT_EQ(krel_json_object_object_get(array, "list"), nullptr) << "not an object";
  EXPECT_EQ(krel_json_object_get_object_head(array), nullptr);
  EXPECT_EQ(krel_json_object_array_length(nullptr), 0u);
  krel_json_object_put(array);
}

TEST(krel_json, files) {
  const std::string path = testing::TempDir() + "krel_json_" + std::to_string(getpid());
  krel_json_ptr object = parse("{\"running\":true,\"at\":[1,2]}");
  ASSERT_EQ(krel_json_object_to_file(path.c_str(), object.get()), 0);
  const krel_json_ptr back(krel_json_object_from_file(path.c_str()));
  EXPECT_STREQ(krel_json_object_to_json_string(back.get()), krel_json_object_to_json_string(object.get()));
  object = parse("[]");
  ASSERT_EQ(krel_json_object_to_file(path.c_str(), object.get()), 0) << "a shorter text leaves no rest";
  EXPECT_STREQ(krel_json_object_to_json_string(krel_json_ptr(krel_json_object_from_file(path.c_str())).get()),
               "[]");
  ASSERT_EQ(truncate(path.c_str(), 1), 0);
  EXPECT_EQ(krel_json_object_from_file(path.c_str()), nullptr);
  EXPECT_EQ(errno, EINVAL);
  ASSERT_EQ(unlink(path.c_str()), 0);
  EXPECT_EQ(krel_json_object_from_file(path.c_str()), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(krel_json_object_to_file((path + "/x").c_str(), object.get()), -1);
  const int full = open("/dev/full", O_WRONLY);
  if (full >= 0) {
    close(full);
    EXPECT_EQ(krel_json_object_to_file("/dev/full", object.get()), -1);
    EXPECT_EQ(errno, ENOSPC);
  }
}

}  // namespace
