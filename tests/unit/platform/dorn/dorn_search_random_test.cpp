// Random trees, evaluated and printed, against a recursive model of the grammar.

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/dorn/dorn_search.h"
#include "unit/platform/dorn/b64_model.h"

namespace {

struct model_t {
  dorn_metric_tag_search_op_e op;
  std::string category, value;  // globs over ASCII letters
  std::vector<model_t> args;
};

using model_tags_t = std::vector<std::pair<std::string, std::string>>;

bool model_glob(const char *glob, const char *text) {
  if (!*glob) return !*text;
  if (*glob == '*') return model_glob(glob + 1, text) || (*text && model_glob(glob, text + 1));
  return *text && (*glob == '?' || *glob == *text) && model_glob(glob + 1, text + 1);
}

bool model_matches(const model_t &node, const model_tags_t &tags) {
  const auto arg_matches = [&](const model_t &arg) { return model_matches(arg, tags); };
  switch (node.op) {
    case OP_AND_ARGS:
      return !node.args.empty() && std::all_of(node.args.begin(), node.args.end(), arg_matches);
    case OP_OR_ARGS:
      return std::any_of(node.args.begin(), node.args.end(), arg_matches);
    case OP_NOT_ARGS:
      return !arg_matches(node.args[0]);
    case OP_HINT_ARGS:
      return arg_matches(node.args[0]);
    case OP_MATCH:
      break;
  }
  return std::any_of(tags.begin(), tags.end(), [&](const auto &tag) {
    return model_glob(node.category.c_str(), tag.first.c_str()) &&
           model_glob(node.value.c_str(), tag.second.c_str());
  });
}

class random_trees_c {
 public:
  size_t pick(size_t n) { return static_cast<size_t>(m_random() % n); }
  std::string word(const char *letters, size_t min, size_t max) {
    std::string text(min + pick(max - min + 1), ' ');
    for (char &c : text) c = letters[pick(strlen(letters))];
    return text;
  }
  model_t tree(size_t depth) {
    const auto op = depth == 0 ? OP_MATCH : static_cast<dorn_metric_tag_search_op_e>(pick(5));
    model_t node{op, "", "", {}};
    if (op == OP_MATCH) {
      node.category = word("ab*?", 1, 3);
      node.value = word("ab*?", 1, 6);
    } else {
      const size_t count = op == OP_AND_ARGS || op == OP_OR_ARGS ? pick(4) : 1;
      for (size_t i = 0; i < count; i++) node.args.push_back(tree(depth - 1));
    }
    return node;
  }
  // One of the spellings of a variable that has the model's glob.
  std::string var(const std::string &glob) {
    if (pick(3) > 0) return glob;
    if (glob.find_first_of("*?") == std::string::npos) return model_encoded(glob);
    std::string pattern = "^";
    for (const char c : glob)
      pattern += c == '*' ? std::string(".*") : c == '?' ? std::string(".") : std::string(1, c);
    pattern += "$";
    return pick(2) ? "/" + pattern + "/" : "b/" + model_b64(pattern) + "/";
  }
  std::string blanks() { return std::string(pick(6) == 0 ? 1 + pick(2) : 0, ' '); }
  std::string text(const model_t &node) {
    static const char *const words[] = {"and", "or", "not", "", "hint"};
    if (node.op == OP_MATCH)
      return blanks() + var(node.category) + blanks() + ":" + blanks() + var(node.value) + blanks();
    std::string out = blanks() + words[node.op] + blanks() + "(";
    for (size_t i = 0; i < node.args.size(); i++) out += (i ? "," : "") + text(node.args[i]);
    if (node.op == OP_HINT_ARGS) out += "," + blanks() + "index" + blanks() + ":" + blanks() + "none";
    return out + blanks() + ")" + blanks();
  }

 private:
  std::mt19937 m_random{4711};
};

bool same_tree(const dorn_metric_tag_search_ast_t *a, const dorn_metric_tag_search_ast_t *b) {
  if (dorn_metric_tag_search_get_op(a) != dorn_metric_tag_search_get_op(b)) return false;
  if (dorn_metric_tag_search_get_op(a) == OP_MATCH) {
    const auto same = [](const dorn_var_t *x, const dorn_var_t *y) {
      return dorn_var_val(x) == dorn_var_val(y) && std::string(dorn_var_impl_name(x)) == dorn_var_impl_name(y);
    };
    return same(dorn_metric_tag_search_get_cat(a), dorn_metric_tag_search_get_cat(b)) &&
           same(dorn_metric_tag_search_get_name(a), dorn_metric_tag_search_get_name(b));
  }
  if (dorn_metric_tag_search_has_hint(a, "index", nullptr) !=
      dorn_metric_tag_search_has_hint(b, "index", nullptr)) {
    return false;
  }
  const size_t count = dorn_metric_tag_search_get_nargs(a);
  if (count != dorn_metric_tag_search_get_nargs(b)) return false;
  for (size_t i = 0; i < count; i++) {
    if (!same_tree(dorn_metric_tag_search_get_arg(a, i), dorn_metric_tag_search_get_arg(b, i))) return false;
  }
  return true;
}

TEST(dorn_search, random_trees_follow_the_model) {
  random_trees_c random;
  size_t hits = 0, evaluations = 0;
  for (int round = 0; round < 1500; round++) {
    const model_t model = random.tree(random.pick(6));
    const std::string text = random.text(model);
    int offset = 0;
    const auto tree = dorn_metric_tag_search_parse_lazy(text, &offset);
    ASSERT_TRUE(tree) << text << " at " << offset;
    const auto again = dorn_metric_tag_search_parse_lazy(dorn_metric_tag_search_unparse(tree.get()), &offset);
    ASSERT_TRUE(again) << dorn_metric_tag_search_unparse(tree.get()) << " at " << offset;
    ASSERT_TRUE(same_tree(tree.get(), again.get())) << text;
    ASSERT_TRUE(same_tree(tree.get(), dorn_metric_tag_search_clone_lazy(tree.get()).get())) << text;
    for (int sample = 0; sample < 5; sample++) {
      model_tags_t tags;
      std::string tags_text;
      for (size_t left = random.pick(5); left > 0; left--) {
        tags.emplace_back(random.word("ab", 1, 2), random.word("ab", 0, 5));
        tags_text += (tags_text.empty() ? "" : ",") + tags.back().first + ":" + tags.back().second;
      }
      dorn_metric_tagset_t set;
      ASSERT_TRUE(dorn_metric_tagset_init_with_context(&set, nullptr, tags_text.data(), tags_text.size(),
                                                       dorn_tagset_text_e::copy));
      const bool expected = model_matches(model, tags);
      ASSERT_EQ(dorn_metric_tag_search_evaluate_against_tags(tree.get(), &set), expected)
          << text << " on " << tags_text;
      dorn_metric_tagset_cleanup(&set);
      hits += expected;
      evaluations++;
    }
  }
  EXPECT_GT(hits, evaluations / 10);  // the trees are neither all true nor all false
  EXPECT_LT(hits, evaluations * 9 / 10);
}

}  // namespace
