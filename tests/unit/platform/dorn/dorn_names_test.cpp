#include "platform/dorn/dorn_names.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "unit/platform/dorn/b64_model.h"

namespace {

// The canonical text, "error <code>", or "too long"; checks that nothing is written behind out_size.
std::string canonical(const std::string &name, size_t out_size = DORN_METRIC_NAME_BUFFER,
                      bool with_measurements = true, bool without_tags = false) {
  std::string out(out_size + 16, '\x7e');
  const ssize_t len = dorn_metric_canonicalize_ex(name.data(), name.size(), out.data(), out_size, true,
                                                  with_measurements, without_tags);
  EXPECT_EQ(out.substr(out_size), std::string(16, '\x7e')) << name;
  if (len < 0) return "error " + std::to_string(len);
  if (static_cast<size_t>(len) >= out_size) return "too long";
  EXPECT_EQ(out[static_cast<size_t>(len)], '\0') << name;
  return out.substr(0, static_cast<size_t>(len));
}

std::string error_text(dorn_name_error_e error) {
  return "error " + std::to_string(error);
}

TEST(dorn_names, canonical_forms) {
  const std::vector<std::pair<std::string, std::string>> table = {
      {"", ""},
      {"cpu", "cpu"},
      {" spaced name ", " spaced name "},
      {"gr\xc3\xb6\xc3\x9f"
       "e",
       "gr\xc3\xb6\xc3\x9f"
       "e"},
      {"a|ST[b:c]", "a|ST[b:c]"},
      {"a|ST[b:c,a:x]", "a|ST[a:x,b:c]"},
      {"a|ST[b:c,b:c,b:a]", "a|ST[b:a,b:c]"},
      {"a|ST[ b:c ,  a:x ]", "a|ST[a:x,b:c]"},
      {"a|ST[]", "a"},
      {"a|ST[  ]|MT{z:1}", "a|MT{z:1}"},
      {"|ST[b:c]", "|ST[b:c]"},
      // order is that of the whole tag's bytes: "-" and "+" come before ":", "_" behind
      {"a|ST[ab:1,a_b:1,a-b:1,a+b:1,a:2]", "a|ST[a+b:1,a-b:1,a:2,a_b:1,ab:1]"},
      {"a|ST[b:c:d]", "a|ST[b:c:d]"},
      {"a|ST[b:]", "a|ST[b:]"},
      // encoding where needed, and only there
      {"a|ST[b:c d]", "a|ST[b:b\"YyBk\"]"},
      {"a|ST[b:b\"YyBk\"]", "a|ST[b:b\"YyBk\"]"},
      {"a|ST[b:b\"Yzpk\"]", "a|ST[b:c:d]"},
      {"a|ST[b\"Yzpk\":x]", "a|ST[b\"Yzpk\":x]"},
      {"a|ST[b\"Yg==\":b\"\"]", "a|ST[b:]"},
      {"a|ST[b:c,b\"Yg==\":b\"Yw==\"]", "a|ST[b:c]"},
      {"a|ST[b:(*)]", "a|ST[b:b\"KCop\"]"},
      {"a|ST[b:x]y]", "a|ST[b:b\"eF15\"]"},
      {"a|ST[b:\xc3\xa9]", "a|ST[b:b\"w6k=\"]"},
      {"a|ST[b:b\"AA==\"]", "a|ST[b:b\"AA==\"]"},
      {"a|ST[`+!@#$%^&'/?._-;=~<>\\:`+!@#$%^&'/?._-;=~<>\\]",
       "a|ST[`+!@#$%^&'/?._-;=~<>\\:`+!@#$%^&'/?._-;=~<>\\]"},
      // measurement blocks stay as they are, behind the stream tags
      {"a|MT{z:1}|ST[y:2]|MT{x:3}", "a|ST[y:2]|MT{z:1}|MT{x:3}"},
      {"a|MT{z:1,a:1,z:1}", "a|MT{z:1,a:1,z:1}"},
      // what is no block belongs to the name
      {"a|b|c", "a|b|c"},
      {"a|ST", "a|ST"},
      {"a|MT{x", "a|MT{x"},
      {"a|MT{x|ST[c:d]", "a|MT{x|ST[c:d]"},
      {"ST[a:b]", "ST[a:b]"},
  };
  for (const auto &[name, expected] : table) {
    EXPECT_EQ(canonical(name), expected) << name;
    EXPECT_EQ(canonical(expected), expected) << name;
  }
}

TEST(dorn_names, refusals) {
  const std::vector<std::pair<std::string, dorn_name_error_e>> table = {
      {"a\nb", DORN_NAME_UNCLEAN},
      {std::string("a\0b", 3), DORN_NAME_UNCLEAN},
      {"a\x7f", DORN_NAME_UNCLEAN},
      {"a\xff", DORN_NAME_UNCLEAN},
      {"a|ST[b:c\t]", DORN_NAME_UNCLEAN},
      {"a|ST[x:y]|ST[u:v]", DORN_NAME_BAD_BLOCK},
      {"a|ST[x:y]|MT{q}|ST[u:v]", DORN_NAME_BAD_BLOCK},
      {"a|ST[x:y", DORN_NAME_BAD_BLOCK},
      {"a|ST[x:y]z", DORN_NAME_BAD_BLOCK},
      {"a|ST[x:y]|b", DORN_NAME_BAD_BLOCK},
      {"a|ST[x|y]", DORN_NAME_BAD_BLOCK},
      {"a|ST[MT{x:y]}", DORN_NAME_BAD_BLOCK},
      {"a|ST[xy]", DORN_NAME_BAD_TAG},
      {"a|ST[:y]", DORN_NAME_BAD_TAG},
      {"a|ST[b\"\":y]", DORN_NAME_BAD_TAG},
      {"a|ST[x:y,]", DORN_NAME_BAD_TAG},
      {"a|ST[,x:y]", DORN_NAME_BAD_TAG},
      {"a|ST[x:y, ,u:v]", DORN_NAME_BAD_TAG},
      {"a|ST[x:b\"]", DORN_NAME_BAD_TAG},
      {"a|ST[x:b\"YQ=\"]", DORN_NAME_BAD_TAG},
      {"a|ST[x:b\"YR==\"]", DORN_NAME_BAD_TAG},  // stray bits: a second text for the same bytes
      {"a|ST[x:b\"Y===\"]", DORN_NAME_BAD_TAG},
      {"a|ST[x:b\"Y*==\"]", DORN_NAME_BAD_TAG},
      {"a|ST[x:b\"YQ==\"z]", DORN_NAME_BAD_TAG},
      {"a|ST[x:b\"YQ==YQ==\"]", DORN_NAME_BAD_TAG},
  };
  for (const auto &[name, error] : table) EXPECT_EQ(canonical(name), error_text(error)) << name;
}

TEST(dorn_names, sizes_of_tags_count_in_canonical_form) {
  const auto tagged = [](const std::string &category, const std::string &value) {
    return "m|ST[" + category + ":" + value + "]";
  };
  const std::string longest = tagged(std::string(126, 'c'), std::string(897, 'v'));
  EXPECT_EQ(canonical(longest), longest);
  EXPECT_EQ(canonical(tagged(std::string(127, 'c'), "v")), error_text(DORN_NAME_TAG_TOO_LONG));
  EXPECT_EQ(canonical(tagged("c", std::string(1022, 'v'))), tagged("c", std::string(1022, 'v')));
  EXPECT_EQ(canonical(tagged("c", std::string(1023, 'v'))), error_text(DORN_NAME_TAG_TOO_LONG));
  // 90 bytes need 120 + 3 digits as a category, 91 need 127
  const std::string fits = std::string(89, 'c') + " x";
  EXPECT_EQ(canonical(tagged(fits.substr(1), "v")), tagged(model_encoded(fits.substr(1)), "v"));
  EXPECT_EQ(canonical(tagged(fits, "v")), error_text(DORN_NAME_TAG_TOO_LONG));
  // an encoded form may be longer than what it stands for is allowed to be
  EXPECT_EQ(canonical(tagged("c", model_encoded(std::string(1022, 'v')))), tagged("c", std::string(1022, 'v')));
  EXPECT_EQ(canonical(tagged("c", model_encoded(std::string(1023, 'v')))), error_text(DORN_NAME_TAG_TOO_LONG));
  EXPECT_EQ(canonical(tagged("c", model_encoded(std::string(763, ' ')))), error_text(DORN_NAME_TAG_TOO_LONG));
  EXPECT_EQ(canonical(tagged("c", model_encoded(std::string(762, ' ')))),
            tagged("c", model_encoded(std::string(762, ' '))));
}

TEST(dorn_names, sizes_of_names) {
  const std::string full(DORN_METRIC_NAME_MAX, 'n');
  EXPECT_EQ(canonical(full), full);
  EXPECT_EQ(canonical(full + "n"), "too long");
  EXPECT_EQ(canonical(std::string(8191, 'n')), "too long");
  EXPECT_EQ(canonical(std::string(100000, 'n'), 200000), "too long");
  EXPECT_EQ(canonical("a|ST[c:d,a:b]", 14), "a|ST[a:b,c:d]");
  EXPECT_EQ(canonical("a|ST[c:d,a:b]", 13), "too long");
  EXPECT_EQ(canonical("a|ST[c:d,a:b]", 1), "too long");

  // all the smallest tags that a name can hold, last first, and each of them twice
  std::vector<std::string> tags;
  const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdef";
  for (size_t i = 0; i < 1000; i++) tags.push_back({letters[i % 32], letters[i / 32], ':'});
  std::string name = "m|ST[", expected;
  for (const std::string &tag : tags) name += tag + ",";
  for (auto tag = tags.rbegin(); tag != tags.rend(); ++tag)
    name += *tag + (std::next(tag) == tags.rend() ? "]" : ",");
  for (const std::string &tag : std::set<std::string>(tags.begin(), tags.end()))
    expected += (expected.empty() ? "" : ",") + tag;
  ASSERT_LT(name.size(), 8192u);
  EXPECT_EQ(canonical(name), "m|ST[" + expected + "]");
}

TEST(dorn_names, parts_can_be_left_out) {
  const std::string name = "a|MT{m}|ST[c:d,a:b]|MT{n}";
  EXPECT_EQ(canonical(name, 4096, false, false), "a|ST[a:b,c:d]");
  EXPECT_EQ(canonical(name, 4096, true, true), "a|MT{m}|MT{n}");
  EXPECT_EQ(canonical(name, 4096, false, true), "a");
  EXPECT_EQ(canonical("a|ST[x]", 4096, true, true), error_text(DORN_NAME_BAD_TAG));

  char out[8] = "1234567";
  EXPECT_EQ(dorn_metric_canonicalize_ex("abc", 3, out, sizeof out, false, true, false), 3);
  EXPECT_STREQ(out, "abc4567");
}

TEST(dorn_names, tags_alone) {
  char out[64];
  const auto tags = [&](const std::string &text) {
    const ssize_t len = dorn_metric_tags_canonical(text.data(), text.size(), out, sizeof out, true);
    return len < 0 ? "error " + std::to_string(len) : std::string(out);
  };
  EXPECT_EQ(tags("b:c, a:x"), "a:x,b:c");
  EXPECT_EQ(tags(""), "");
  EXPECT_EQ(tags("a:b\"YQ==\""), "a:a");
  EXPECT_EQ(tags("a"), error_text(DORN_NAME_BAD_TAG));
  EXPECT_EQ(tags("a:\x01"), error_text(DORN_NAME_UNCLEAN));
}

// Random tags in random spelling, against a set of independently encoded texts.
TEST(dorn_names, random_names_follow_the_model) {
  std::mt19937 random(20260131);
  const auto pick = [&](size_t n) { return static_cast<size_t>(random() % n); };
  const std::string plain = "abcXYZ019_-./";
  const auto bytes = [&](bool any) {
    std::string text(1 + pick(12), ' ');
    for (char &c : text) c = any ? static_cast<char>(random()) : plain[pick(plain.size())];
    return text;
  };
  const auto is_plain = [&](const std::string &text, bool is_value) {
    return text.find_first_not_of(plain + (is_value ? ":" : "") +
                                  "`+!@#$%^&'?;=~<>\\ABCDEFGHIJKLMNOPQRSTUVW"
                                  "defghijklmnopqrstuvwxyz2345678") == std::string::npos;
  };
  for (int round = 0; round < 3000; round++) {
    std::set<std::string> expected;
    std::vector<std::string> spelled;
    for (size_t left = pick(12); left > 0; left--) {
      const std::string category = bytes(pick(4) == 0), value = bytes(pick(4) == 0);
      const bool plain_category = is_plain(category, false), plain_value = is_plain(value, true);
      expected.insert((plain_category ? category : model_encoded(category)) + ":" +
                      (plain_value ? value : model_encoded(value)));
      for (size_t copies = 1 + pick(2); copies > 0; copies--) {
        spelled.push_back(std::string(pick(3), ' ') +
                          (plain_category && pick(3) ? category : model_encoded(category)) + ":" +
                          (plain_value && pick(3) ? value : model_encoded(value)) + std::string(pick(2), ' '));
      }
    }
    std::shuffle(spelled.begin(), spelled.end(), random);
    std::string name = "base.name|ST[", wanted = "base.name";
    for (const std::string &tag : spelled) name += (name.back() == '[' ? "" : ",") + tag;
    for (const std::string &tag : expected) wanted += (wanted.size() == 9 ? "|ST[" : ",") + tag;
    if (!expected.empty()) wanted += "]";
    ASSERT_EQ(canonical(name + "]"), wanted);
    ASSERT_EQ(canonical(wanted), wanted);
    ASSERT_EQ(canonical(name + "]", pick(wanted.size() + 1)), "too long");
  }
}

TEST(dorn_names, clean_means_utf8_without_controls) {
  const auto clean = [](const std::string &text) {
    return dorn_metric_name_is_clean(text.data(), text.size());
  };
  EXPECT_TRUE(clean(""));
  EXPECT_TRUE(clean(std::string(4095, 'x')));
  EXPECT_FALSE(clean(std::string(4096, 'x')));
  const std::vector<std::string> good = {" ",
                                         "~",
                                         "\xc2\xa0",
                                         "\xdf\xbf",
                                         "\xe0\xa0\x80",
                                         "\xed\x9f\xbf",
                                         "\xef\xbf\xbf",
                                         "\xf0\x90\x80\x80",
                                         "\xf4\x8f\xbf\xbf"};
  const std::vector<std::string> bad = {"\x1f",
                                        "\x7f",
                                        "\x80",
                                        "\xbf",
                                        "\xc0\x80",
                                        "\xc1\xbf",
                                        "\xc2\x80",
                                        "\xc2\x9f",
                                        "\xc3",
                                        "\xe0\x9f\xbf",
                                        "\xed\xa0\x80",
                                        "\xef\xbf",
                                        "\xf0\x8f\xbf\xbf",
                                        "\xf4\x90\x80\x80",
                                        "\xf5\x80\x80\x80",
                                        "\xff",
                                        std::string(1, '\0')};
  for (size_t before = 0; before < 18; before++) {  // at every place of a word
    const std::string head(before, 'x');
    for (const std::string &text : good) {
      EXPECT_TRUE(clean(head + text) && clean(head + text + "123456789")) << before << text;
    }
    for (const std::string &text : bad) {
      EXPECT_FALSE(clean(head + text) || clean(head + text + "123456789")) << before << text;
    }
  }
}

}  // namespace
