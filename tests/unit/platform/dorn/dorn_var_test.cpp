#include "platform/dorn/dorn_var.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/dorn/dorn_search.h"
#include "unit/platform/dorn/b64_model.h"

namespace {

struct value_var_t {
  dorn_metric_tag_search_ptr node;
  const dorn_var_t *var = nullptr;
  explicit value_var_t(const std::string &text) : node(dorn_metric_tag_search_alloc_match("c", text)) {
    EXPECT_TRUE(node) << text;
    if (node) var = dorn_metric_tag_search_get_name(node.get());
  }
  bool match(const std::string &bytes) const { return dorn_var_match(var, bytes.data(), bytes.size()); }
};

TEST(dorn_var, forms) {
  const std::vector<std::vector<std::string>> table = {{"abc", "exact", "abc"},
                                                       {"a:b", "exact", "a:b"},
                                                       {model_encoded("a*b"), "exact", "a*b"},
                                                       {"a*b", "glob", "a*b"},
                                                       {"?", "glob", "?"},
                                                       {"/a\\/b/", "pcre", "a\\/b"},
                                                       {"b/" + model_b64("a/b") + "/", "pcre", "a/b"},
                                                       {"b/a", "exact", "b/a"}};
  for (const auto &row : table) {
    const value_var_t var(row[0]);
    EXPECT_EQ(dorn_var_impl_name(var.var), row[1]) << row[0];
    EXPECT_EQ(dorn_var_val(var.var), row[2]) << row[0];
  }
}

TEST(dorn_var, globs) {
  const auto glob = [](const std::string &pattern, const std::string &text) {
    return value_var_t(pattern).match(text);
  };
  EXPECT_TRUE(glob("*", "") && glob("**", "x") && glob("a*", "a") && glob("*a", "bba") &&
              glob("a*b*c", "a-b-b-c"));
  EXPECT_TRUE(glob("*ab?", "aababc") && glob("a?c*", "abc") && glob("*\xc3\xa9*", "x\xc3\xa9y"));
  EXPECT_FALSE(glob("?", "") || glob("a*b", "abc") || glob("*a", "ab") || glob("a?c", "ac") ||
               glob("a*a", "a"));
  // one character is one code point, also behind a star; a byte that is none counts for itself
  EXPECT_TRUE(glob("?", "\xe2\x82\xac") && glob("*?", "\xe2\x82\xac") && glob("??", "\xff\xfe"));
  EXPECT_FALSE(glob("??", "\xe2\x82\xac") || glob("*??", "\xe2\x82\xac"));
}

TEST(dorn_var, hostile_patterns_end) {
  std::string stars = "*";
  for (int i = 0; i < 500; i++) stars += "a*";
  EXPECT_FALSE(value_var_t(stars + "b").match(std::string(4000, 'a')));
  const std::string text = std::string(1000, 'a') + "!";
  for (const char *pattern : {"/^(a+)+$/", "/^(a|aa)+$/", "/(a?){40}a{40}b/", "/^(([a-z])+.)+[A-Z]([a-z])+$/",
                              "/^(a(?1)?a?)+b/", "/(.*)*x\\1/"}) {
    EXPECT_FALSE(value_var_t(pattern).match(text)) << pattern;
  }
  // too large to be translated, so it is interpreted
  EXPECT_FALSE(value_var_t("/^(?:(?:a+)+(?:b|c)?){400}$/").match(text));
}

TEST(dorn_var, patterns_see_utf8) {
  EXPECT_TRUE(value_var_t("/^.$/").match("\xe2\x82\xac"));
  EXPECT_FALSE(value_var_t("/^./").match("\xff"));
  EXPECT_TRUE(value_var_t("b/" + model_b64("^[\xff]$") + "/").match("\xff"));
  EXPECT_TRUE(value_var_t("/.*/").match("\xff"));
  EXPECT_TRUE(value_var_t("/^.*$/").match("a\nb"));
  EXPECT_TRUE(value_var_t("/^$/").match(""));
  EXPECT_FALSE(dorn_metric_tag_search_alloc_match("c", "b/" + model_b64(std::string("a\0b", 3)) + "/"));
}

TEST(dorn_var, fixed_prefixes) {
  struct row_t {
    std::string var, prefix;
    bool complete;
  };
  const std::vector<row_t> table = {{"abc", "abc", true},       {model_encoded("a*"), "a*", true},
                                    {"ab*c", "ab", false},      {"*", "", false},
                                    {"a?", "a", false},         {"/abc/", "", false},
                                    {"/^abc/", "abc", false},   {"/^abc$/", "abc", false},
                                    {"/^abc*/", "ab", false},   {"/^abc?/", "ab", false},
                                    {"/^abc{0}/", "ab", false}, {"/^abc+/", "abc", false},
                                    {"/^ab.c/", "ab", false},   {"/^ab|cd/", "", false},
                                    {"/^(ab)/", "", false},     {"/^ab\\d/", "ab", false}};
  for (const row_t &row : table) {
    char out[64] = "x\x1f";
    bool complete = !row.complete;
    const size_t used = dorn_var_strlcat_fixed_prefix(value_var_t(row.var).var, out, 2, sizeof out, &complete);
    EXPECT_EQ(std::string(out, used), "x\x1f" + row.prefix) << row.var;
    EXPECT_EQ(strlen(out), used) << row.var;
    EXPECT_EQ(complete, row.complete) << row.var;
  }
  char out[4] = "xy";
  bool complete = true;
  EXPECT_EQ(dorn_var_strlcat_fixed_prefix(value_var_t("abc").var, out, 2, sizeof out, &complete), 3u);
  EXPECT_STREQ(out, "xya");
  EXPECT_FALSE(complete);
}

}  // namespace
