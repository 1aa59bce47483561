#include "platform/dorn/dorn_search.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "unit/platform/dorn/b64_model.h"

namespace {

dorn_metric_tag_search_ptr parse(const std::string &text) {
  int offset = -1;
  auto tree = dorn_metric_tag_search_parse(text, &offset);
  EXPECT_TRUE(tree) << text << " fails at " << offset;
  return tree;
}

int error_offset(const std::string &text) {
  int offset = -1;
  return dorn_metric_tag_search_parse(text, &offset) ? -1 : offset;
}

bool matches(const std::string &query, const std::string &tags) {
  dorn_metric_tagset_t set;
  EXPECT_TRUE(
      dorn_metric_tagset_init_with_context(&set, nullptr, tags.data(), tags.size(), dorn_tagset_text_e::copy));
  const auto tree = parse(query);
  const bool result = tree && dorn_metric_tag_search_evaluate_against_tags(tree.get(), &set);
  dorn_metric_tagset_cleanup(&set);
  return result;
}

TEST(dorn_search, evaluation) {
  const std::string tags =
      "host:web-1,dc:fra:2,empty:,b\"a2V5IDE=\":b\"dmFsdWUgMQ==\",bin:b\"/w==\",path:/var/log";
  const std::vector<std::string> matching = {"host:web-1",
                                             "host",
                                             "h*:web-?",
                                             "*:*",
                                             "*",
                                             "dc:fra:2",
                                             "dc:*:2",
                                             "empty:*",
                                             "empty:b\"\"",
                                             "empty",
                                             "/os/:/^web/",
                                             "/^host$/:/-\\d$/",
                                             "b/" + model_b64("^ho") + "/:b/" + model_b64("b-\\d") + "/",
                                             model_encoded("key 1") + ":value*",
                                             "/key 1/:/value \\d/",
                                             model_encoded("key 1") + ":" + model_encoded("value 1"),
                                             "key?1",
                                             "bin:" + model_encoded("\xff"),
                                             "bin:?",
                                             "b/" + model_b64("^b") + "/:b/" + model_b64("^\xff$") + "/",
                                             "path:/\\/var/",
                                             "path:b\"L3Zhci9sb2c=\"",
                                             "path:*/var/*",
                                             "and(host:web-1,dc:fra*)",
                                             "and(host:web-1)",
                                             "or(host:x,dc:fra*)",
                                             "not(host:x)",
                                             "not(and())",
                                             "not(or())",
                                             " and ( host : web-1 , not( or( x:y ) ) ) ",
                                             "hint(host:web-1,index:none)",
                                             "and(not(and(host:*,not(dc:*))))",
                                             "//"};
  const std::vector<std::string> failing = {"host:web",
                                            "host:eb-1",
                                            "Host:web-1",
                                            "hos:web-1",
                                            "host:WEB-1",
                                            "host:web-??",
                                            "host:?eb",
                                            "dc:fra",
                                            "empty:?",
                                            "and()",
                                            "or()",
                                            "and(host:web-1,dc:ams)",
                                            "and(dc:ams,host:web-1)",
                                            "or(host:x,dc:y)",
                                            "not(host)",
                                            "not(not(host:x))",
                                            "hint(host:x,index:none)",
                                            "/^os/:/web/",
                                            "host:/^eb/",
                                            "bin:/^.$/",
                                            model_encoded("key") + ":*",
                                            "key+1",
                                            "host:" + model_encoded("web-*"),
                                            "and(or(),host)",
                                            "and(host:fra:2)",
                                            "and(host:web-1,not(dc))"};
  for (const std::string &query : matching) EXPECT_TRUE(matches(query, tags)) << query;
  for (const std::string &query : failing) EXPECT_FALSE(matches(query, tags)) << query;
  EXPECT_FALSE(matches("*:*", ""));
  EXPECT_TRUE(matches("not(*:*)", ""));
  EXPECT_TRUE(matches("c:\xc3\xa9", "c:\xc3\xa9"));
  EXPECT_TRUE(matches("c:x?z", "c:x\xc3\xa9z"));
  EXPECT_TRUE(matches("c:/^x.z$/", "c:x\xc3\xa9z"));
  // category and value must be of one tag; the same category may stand twice
  EXPECT_FALSE(matches("a:y", "a:x,b:y"));
  EXPECT_TRUE(matches("and(a:x,a:y)", "a:x,a:y"));
}

TEST(dorn_search, several_sets_count_as_one) {
  dorn_metric_tagset_t a, b;
  ASSERT_TRUE(dorn_metric_tagset_init_with_context(&a, nullptr, "x:1", 3, dorn_tagset_text_e::view));
  ASSERT_TRUE(dorn_metric_tagset_init_with_context(&b, nullptr, "y:2", 3, dorn_tagset_text_e::view));
  const dorn_metric_tagset_t *const sets[] = {&a, &b};
  const auto multi = [&](const std::string &query, size_t count) {
    return dorn_metric_tag_search_evaluate_against_tags_multi(parse(query).get(), sets, count);
  };
  EXPECT_TRUE(multi("and(x:1,y:2)", 2));
  EXPECT_FALSE(multi("and(x:1,y:2)", 1));
  EXPECT_FALSE(multi("not(y:2)", 2));
  EXPECT_FALSE(multi("*", 0));
}

TEST(dorn_search, metric_id_has_name_and_check) {
  const std::string name = "disk free|ST[unit:b]";
  dorn_metric_id_t id;
  ASSERT_TRUE(dorn_metric_id_process_tags(&id, name.data(), name.size(), "0a1b"));
  const auto on_id = [&](const std::string &query) {
    return dorn_metric_tag_search_evaluate_against_metric_id(parse(query).get(), &id);
  };
  EXPECT_TRUE(on_id("and(__name:disk*,unit:b,__check_uuid:0a1b)"));
  EXPECT_TRUE(on_id("__name:" + model_encoded("disk free")));
  EXPECT_FALSE(on_id("__name:*ST*"));
  EXPECT_FALSE(on_id("__check_uuid:0A1B"));
  dorn_metric_id_clear(&id);

  const std::string long_name = std::string(4000, 'n') + "x";  // longer than a tag can be
  ASSERT_TRUE(dorn_metric_id_process_tags(&id, long_name.data(), long_name.size(), ""));
  EXPECT_TRUE(on_id("and(__name:n*x,__name:/x$/,not(__check_uuid))"));
  dorn_metric_id_clear(&id);
}

TEST(dorn_search, many_tags) {
  std::string tags;
  for (int i = 0; i < 300; i++) tags += (i ? ",t" : "t") + std::to_string(i) + ":" + std::to_string(i * 7);
  EXPECT_TRUE(matches("and(t0:0,t31:217,t32:224,t299:2093)", tags));
  EXPECT_FALSE(matches("or(t0:1,t31:216,t299:2094)", tags));
}

TEST(dorn_search, error_offsets) {
  const std::vector<std::pair<std::string, int>> table = {{"", 0},
                                                          {"   ", 3},
                                                          {",", 0},
                                                          {":x", 0},
                                                          {"(a:b)", 0},
                                                          {"a:", 2},
                                                          {"a: ", 3},
                                                          {"a:,", 2},
                                                          {"a:b)", 3},
                                                          {"a:b c:d", 4},
                                                          {"a:b,c:d", 3},
                                                          {"and(a:b", 7},
                                                          {"and(", 4},
                                                          {"and(a:b,)", 8},
                                                          {"and(,a:b)", 4},
                                                          {"and(a:b,,c:d)", 8},
                                                          {"and(a:b))", 8},
                                                          {"and(a:b c:d)", 8},
                                                          {"AND(a:b)", 3},
                                                          {"nand(a:b)", 4},
                                                          {"not()", 4},
                                                          {"not(a:b,c:d)", 7},
                                                          {"hint()", 5},
                                                          {"hint(a:b,x)", 10},
                                                          {"hint(a:b,x:)", 11},
                                                          {"hint(a:b,)", 9},
                                                          {"hint(a:b,x:y,)", 13},
                                                          {"hint(a:b,x:y z)", 13},
                                                          {"a:/x", 2},
                                                          {"a:/x\\/", 2},
                                                          {"a:/x/y", 5},
                                                          {"a:/(/", 2},
                                                          {"a:/x\\C/", 2},
                                                          {"a:b\"YQ=\"", 2},
                                                          {"a:b\"YQ==", 2},
                                                          {"b\"YQ==\"x:y", 7},
                                                          {"a:b/YQ=/", 2},
                                                          {"a:b/KA==/", 2},
                                                          {"a:x\"y\"", 3},
                                                          {"a\tb", 1},
                                                          {"a:\x7f", 2},
                                                          {std::string("a:\0", 3), 2},
                                                          {"and(or(a:b,not(c)),d:e", 22}};
  for (const auto &[text, offset] : table) EXPECT_EQ(error_offset(text), offset) << text;
}

TEST(dorn_search, words_of_operators_can_be_categories) {
  EXPECT_TRUE(matches("and(and:x,or:y,hint,not:*,andy:z)", "and:x,or:y,hint:1,not:2,andy:z"));
  EXPECT_TRUE(matches("and", "and:x"));
}

TEST(dorn_search, unparse_is_stable_text) {
  const std::vector<std::pair<std::string, std::string>> table = {
      {" and ( a : b , or() ) ", "and(a:b,or())"},
      {"a", "a:*"},
      {"not(not(a:b*))", "not(not(a:b*))"},
      {"hint(a:b, index : none,x:b\"LHk=\")", "hint(a:b,index:none,x:b\"LHk=\")"},
      {"a:b\"Yw==\"", "a:c"},
      {"a:b\"Kg==\"", "a:b\"Kg==\""},
      {"a:b\"L3gv\"", "a:b\"L3gv\""},
      {"a:b\"YjovLw==\"", "a:b://"},
      {"a:b/Yw==/", "a:/c/"},
      {"a:b/L3gv/", "a:b/L3gv/"},
      {"a:/x\\/y/", "a:/x\\/y/"},
      {"a:b\"Yi94Lw==\"", "a:b\"Yi94Lw==\""},
      {"b\"eDp5\":x:y", "b\"eDp5\":x:y"},
      {"a:b\"\"", "a:b\"\""},
      {"a:b\"/w==\"", "a:b\"/w==\""},
      {"a:b\"w6k=\"", "a:\xc3\xa9"},
      {"a:b/x", "a:b/x"}};
  for (const auto &[text, expected] : table) {
    EXPECT_EQ(dorn_metric_tag_search_unparse(parse(text).get()), expected);
    EXPECT_EQ(dorn_metric_tag_search_unparse(parse(expected).get()), expected);
  }
  const auto tree = parse("and(a:b,c:d)");
  std::string text;
  EXPECT_TRUE(dorn_metric_tag_search_unparse_limit_size(tree.get(), 12, &text));
  EXPECT_EQ(text, "and(a:b,c:d)");
  EXPECT_FALSE(dorn_metric_tag_search_unparse_limit_size(tree.get(), 11, &text));
  EXPECT_EQ(text, "");
}

TEST(dorn_search, depth_and_size_are_bounded) {
  const auto nested = [](size_t depth) {
    std::string text;
    for (size_t i = 1; i < depth; i++) text += "not(";
    return text + "a:b" + std::string(depth - 1, ')');
  };
  const size_t deepest = DORN_TAG_SEARCH_MAX_DEPTH;
  EXPECT_TRUE(matches(nested(deepest - 1), "a:b"));
  EXPECT_FALSE(matches(nested(deepest), "a:b"));  // one "not" more
  const auto copy = dorn_metric_tag_search_clone_lazy(parse(nested(deepest)).get());
  EXPECT_EQ(dorn_metric_tag_search_unparse(copy.get()), nested(deepest));
  EXPECT_EQ(error_offset(nested(deepest + 1)), static_cast<int>(4 * deepest));

  std::string wide = "or(a";
  for (size_t i = 2; i < DORN_TAG_SEARCH_MAX_NODES; i++) wide += ",a";
  EXPECT_EQ(error_offset(wide + ")"), -1);
  EXPECT_EQ(error_offset(wide + ",a)"), static_cast<int>(wide.size() + 1));
  EXPECT_EQ(error_offset(std::string(DORN_TAG_SEARCH_MAX_TEXT + 1, ' ')),
            static_cast<int>(DORN_TAG_SEARCH_MAX_TEXT));
  EXPECT_EQ(error_offset("a:" + std::string(4096, 'x')), -1);
  EXPECT_EQ(error_offset("a:" + std::string(4097, 'x')), 2);

  std::string patterns = "or(/a/";
  for (size_t i = 1; i < DORN_TAG_SEARCH_MAX_PCRES; i++) patterns += ",/a/";
  EXPECT_EQ(error_offset(patterns + ")"), -1);
  EXPECT_EQ(error_offset(patterns + ",/a/)"), static_cast<int>(patterns.size() + 1));
}

TEST(dorn_search, lazy_patterns) {
  EXPECT_EQ(dorn_metric_tag_search_parse("a:/(/", nullptr), nullptr);
  int offset = -1;
  const auto tree = dorn_metric_tag_search_parse_lazy("or(a:/(/,a:/^b+$/)", &offset);
  ASSERT_TRUE(tree);
  const auto copy = dorn_metric_tag_search_clone_lazy(tree.get());
  dorn_metric_tagset_t set;
  ASSERT_TRUE(dorn_metric_tagset_init_with_context(&set, nullptr, "a:bb", 4, dorn_tagset_text_e::view));
  std::vector<std::thread> threads;
  std::atomic<int> hits{0};
  for (int i = 0; i < 4; i++) {
    threads.emplace_back([&] { hits += dorn_metric_tag_search_evaluate_against_tags(tree.get(), &set); });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(hits, 4);
  EXPECT_TRUE(dorn_metric_tag_search_evaluate_against_tags(copy.get(), &set));
  EXPECT_TRUE(
      dorn_metric_tag_search_evaluate_against_tags(dorn_metric_tag_search_clone_lazy(tree.get()).get(), &set));
}

TEST(dorn_search, trees_are_built_and_read) {
  auto root = dorn_metric_tag_search_alloc(OP_AND_ARGS);
  EXPECT_FALSE(dorn_metric_tag_search_alloc(OP_MATCH));
  EXPECT_TRUE(dorn_metric_tag_search_add_arg(root.get(), dorn_metric_tag_search_alloc_match("a", "/b/")));
  for (const char *bad : {"", "x y", "/(/", "b\"Y\"", "x,"})
    EXPECT_FALSE(dorn_metric_tag_search_alloc_match("a", bad)) << bad;
  EXPECT_FALSE(dorn_metric_tag_search_alloc_match("a:b", "c"));

  auto hint = dorn_metric_tag_search_alloc(OP_HINT_ARGS);
  EXPECT_FALSE(dorn_metric_tag_search_add_hint(root.get(), "index", "none"));
  EXPECT_TRUE(dorn_metric_tag_search_add_hint(hint.get(), "index", "none"));
  EXPECT_TRUE(dorn_metric_tag_search_add_hint(hint.get(), "index", "full"));
  EXPECT_TRUE(dorn_metric_tag_search_add_arg(hint.get(), dorn_metric_tag_search_ref(root.get())));
  EXPECT_FALSE(dorn_metric_tag_search_add_arg(hint.get(), dorn_metric_tag_search_alloc(OP_OR_ARGS)));
  std::string_view value;
  EXPECT_TRUE(dorn_metric_tag_search_has_hint(hint.get(), "index", &value));
  EXPECT_EQ(value, "full");
  EXPECT_FALSE(dorn_metric_tag_search_has_hint(hint.get(), "optimize", nullptr));
  EXPECT_EQ(dorn_metric_tag_search_unparse(hint.get()), "hint(and(a:/b/),index:none,index:full)");

  ASSERT_EQ(dorn_metric_tag_search_get_nargs(root.get()), 1u);
  auto *match = dorn_metric_tag_search_get_arg(root.get(), 0);
  EXPECT_EQ(dorn_metric_tag_search_get_arg(root.get(), 1), nullptr);
  EXPECT_EQ(dorn_metric_tag_search_get_op(match), OP_MATCH);
  EXPECT_EQ(dorn_var_val(dorn_metric_tag_search_get_cat(match)), "a");
  EXPECT_STREQ(dorn_var_impl_name(dorn_metric_tag_search_get_name(match)), "pcre");
  EXPECT_EQ(dorn_metric_tag_search_get_cat(root.get()), nullptr);
  EXPECT_FALSE(dorn_metric_tag_search_add_arg(match, dorn_metric_tag_search_alloc(OP_OR_ARGS)));

  EXPECT_TRUE(dorn_metric_tag_search_set_op(root.get(), OP_NOT_ARGS));
  EXPECT_EQ(dorn_metric_tag_search_unparse(hint.get()), "hint(not(a:/b/),index:none,index:full)");
  EXPECT_TRUE(dorn_metric_tag_search_set_op(root.get(), OP_OR_ARGS));
  EXPECT_TRUE(dorn_metric_tag_search_add_arg(root.get(), dorn_metric_tag_search_alloc_match("c", "*")));
  EXPECT_FALSE(dorn_metric_tag_search_set_op(root.get(), OP_NOT_ARGS));
  EXPECT_FALSE(dorn_metric_tag_search_set_op(root.get(), OP_MATCH));
  EXPECT_FALSE(dorn_metric_tag_search_set_op(match, OP_OR_ARGS));
}

TEST(dorn_search, operators_without_arguments_match_nothing) {
  dorn_metric_tagset_t set;
  ASSERT_TRUE(dorn_metric_tagset_init_with_context(&set, nullptr, "a:b", 3, dorn_tagset_text_e::view));
  for (const auto op : {OP_AND_ARGS, OP_OR_ARGS, OP_NOT_ARGS, OP_HINT_ARGS}) {
    const auto node = dorn_metric_tag_search_alloc(op);
    EXPECT_FALSE(dorn_metric_tag_search_evaluate_against_tags(node.get(), &set)) << op;
    EXPECT_FALSE(matches(dorn_metric_tag_search_unparse(node.get()), "a:b")) << op;
  }
}

TEST(dorn_search, user_data_lives_with_its_node) {
  int released = 0;
  const auto release = [](void *data) { ++*static_cast<int *>(data); };
  {
    auto tree = parse("and(a:b)");
    auto second = dorn_metric_tag_search_ref(tree.get());
    auto *arg = dorn_metric_tag_search_get_arg(tree.get(), 0);
    dorn_metric_tag_search_set_udata(arg, &released, release);
    dorn_metric_tag_search_set_udata(arg, &released, release);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(dorn_metric_tag_search_get_udata(arg), &released);
    EXPECT_EQ(dorn_metric_tag_search_get_udata(tree.get()), nullptr);
    auto copy = dorn_metric_tag_search_clone_lazy(tree.get());
    EXPECT_EQ(dorn_metric_tag_search_get_udata(dorn_metric_tag_search_get_arg(copy.get(), 0)), nullptr);
    tree.reset();
    EXPECT_EQ(released, 1);
  }
  EXPECT_EQ(released, 2);
}

}  // namespace
