#include "platform/krel/http/http_rules.h"

#include <gmock/gmock.h>

namespace {

int handler(krel_http_rest_closure_t *, int, char **) {
  return 0;
}

class http_rules : public testing::Test {
 protected:
  void SetUp() override { http_rules_clear(); }
  void TearDown() override { http_rules_clear(); }
};

// Base and expression of the rule that is found, or what is wrong.
std::string found(const char *method, const char *path) {
  http_match_t match;
  switch (http_rules_match(method, path, &match)) {
    case http_match_e::no_path:
      return "404";
    case http_match_e::no_method:
      return "405";
    case http_match_e::found:
      return match.rule->base + " " + match.rule->expression;
  }
  return "";
}

}  // namespace

TEST_F(http_rules, the_longest_base_wins_then_the_order_of_registration) {
  for (const char *base : {"/", "/raw", "/raw/", "/raw/roll", "/rawhide/", "/z"})
    ASSERT_EQ(krel_http_rest_register("GET", base, "^(\\w+)$", handler), 0);
  krel_http_rest_register("GET", "/raw/", "^(.*)$", handler);
  krel_http_rest_register("GET", "/raw", "^/([^/]+)/([^/]+)$", handler);
  EXPECT_EQ(found("GET", "/raw/abc"), "/raw/ ^(\\w+)$");
  EXPECT_EQ(found("GET", "/raw/a-b"), "/raw/ ^(.*)$");
  EXPECT_EQ(found("GET", "/raw/rollup"), "/raw/roll ^(\\w+)$");
  EXPECT_EQ(found("GET", "/raw/roll"), "/raw/ ^(\\w+)$");  // nothing is left for the longer base
  EXPECT_EQ(found("GET", "/rawhide"), "/raw ^(\\w+)$");
  EXPECT_EQ(found("GET", "/rawhide/x"), "/rawhide/ ^(\\w+)$");
  EXPECT_EQ(found("GET", "/other"), "/ ^(\\w+)$");
  EXPECT_EQ(found("GET", "/zz"), "/z ^(\\w+)$");
  EXPECT_EQ(found("GET", "/"), "404");
  EXPECT_EQ(found("GET", ""), "404");
}

TEST_F(http_rules, unknown_paths_other_methods_and_the_catch_all) {
  krel_http_rest_register("PUT", "/data/", "^(\\d+)$", handler);
  krel_http_rest_register("DELETE", "/data/", "^(\\d+)$", handler);
  krel_http_rest_register("GET", "/info", "^$", handler);
  EXPECT_EQ(found("GET", "/data/1"), "405");
  EXPECT_EQ(http_rules_allowed("/data/1"), "DELETE, PUT");
  EXPECT_EQ(http_rules_allowed("/info"), "GET, HEAD");
  EXPECT_EQ(found("GET", "/data/x"), "404");
  EXPECT_EQ(found("HEAD", "/info"), "/info ^$");

  krel_rest_mountpoint_set_catch_all(krel_http_rest_new_rule("GET", "/", "^(.*)$", handler), true);
  EXPECT_EQ(found("GET", "/anything"), "/ ^(.*)$");
  EXPECT_EQ(found("GET", "/info"), "/info ^$");
  EXPECT_EQ(found("PUT", "/anything"), "404");  // it makes no path known
  EXPECT_EQ(found("GET", "/data/1"), "405");    // and hides no wrong method
  EXPECT_EQ(http_rules_allowed("/data/1"), "DELETE, PUT");
}

TEST_F(http_rules, groups_are_what_the_expression_captured) {
  krel_http_rest_register("GET", "/g/", "^(a+)(?:-(b+))?(?:-(c+))?$", handler);
  http_match_t match;
  ASSERT_EQ(http_rules_match("GET", "/g/aa--c", &match), http_match_e::no_path);
  ASSERT_EQ(http_rules_match("GET", "/g/aa-c", &match), http_match_e::found);
  ASSERT_EQ(match.groups, 3);
  EXPECT_EQ(match.group[0], "aa");
  EXPECT_EQ(match.group[1], "");
  EXPECT_EQ(match.group[2], "c");
  ASSERT_EQ(http_rules_match("GET", "/g/a", &match), http_match_e::found);
  EXPECT_EQ(match.groups, 1);
}

TEST_F(http_rules, what_cannot_serve_is_not_registered) {
  EXPECT_NE(krel_http_rest_register("GET", "/a", "^(unclosed$", handler), 0);
  EXPECT_NE(krel_http_rest_register("GET", "no-slash", "^$", handler), 0);
  EXPECT_NE(krel_http_rest_register("GET", "/a", "^()()()()()()()()()()()()()()()()$", handler), 0);
  EXPECT_EQ(krel_http_rest_register("GET", "/a", "^$", handler), 0);
  EXPECT_NE(krel_http_rest_register("GET", "/a", "^$", handler), 0);
  EXPECT_EQ(krel_http_rest_register("PUT", "/a", "^$", handler), 0);
}

TEST_F(http_rules, a_path_that_makes_an_expression_backtrack_is_given_up) {
  krel_http_rest_register("GET", "/e/", "^(a+)+$", handler);
  const std::string evil = "/e/" + std::string(60000, 'a') + "!";
  EXPECT_EQ(found("GET", evil.c_str()), "404");  // ends at all: unbounded it would take for ever
}
