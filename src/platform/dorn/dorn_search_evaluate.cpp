#include <array>

#include "platform/dorn/dorn_search_tree.h"

using ast_t = dorn_metric_tag_search_ast_t;

namespace {

// A stack or list whose first entries need no allocation.
template <typename T, size_t N>
class small_vector_c {
 public:
  size_t size() const { return m_size; }
  T &operator[](size_t i) { return i < N ? m_near[i] : m_far[i - N]; }
  const T &operator[](size_t i) const { return i < N ? m_near[i] : m_far[i - N]; }
  void push_back(const T &item) {
    if (m_size < N) {
      m_near[m_size] = item;
    } else {
      m_far.push_back(item);
    }
    m_size++;
  }
  void pop_back() {
    if (m_size > N) m_far.pop_back();
    m_size--;
  }

 private:
  size_t m_size = 0;
  std::array<T, N> m_near;
  std::vector<T> m_far;
};

// What a match is tried on: tags in encoded text, and pairs of plain bytes.
struct subject_t {
  struct plain_tag_t {
    std::string_view category;
    std::string_view value;
  };
  small_vector_c<dorn_metric_tag_t, 32> tags;
  std::array<plain_tag_t, 2> plain_tags;
  size_t plain_count = 0;

  void add(const dorn_metric_tagset_t &set) {
    for (const dorn_metric_tag_t &tag : set) tags.push_back(tag);
  }
};

bool matches(const dorn_match_terms_t &terms, const subject_t &subject) {
  for (size_t i = 0; i < subject.tags.size(); i++) {
    const dorn_metric_tag_t &tag = subject.tags[i];
    if (terms.cat.match_encoded(tag.category()) && terms.name.match_encoded(tag.value())) return true;
  }
  for (size_t i = 0; i < subject.plain_count; i++) {
    const subject_t::plain_tag_t &tag = subject.plain_tags[i];
    if (terms.cat.match(tag.category) && terms.name.match(tag.value)) return true;
  }
  return false;
}

bool evaluate(const ast_t *tree, const subject_t &subject) {
  struct open_t {
    const ast_t *node;
    size_t next_arg;
  };
  small_vector_c<open_t, 32> open;
  const ast_t *node = tree;
  for (;;) {
    // Down to a node with a value of its own; an operator without arguments matches nothing.
    while (!node->m_args.empty()) {
      open.push_back({node, 1});
      node = node->m_args[0];
    }
    bool value = node->m_match && matches(*node->m_match, subject);

    // Up, through all operators that this value settles.
    node = nullptr;
    while (!node) {
      if (open.size() == 0) return value;
      open_t &top = open[open.size() - 1];
      const dorn_metric_tag_search_op_e op = top.node->m_op;
      const bool settled = op == OP_AND_ARGS ? !value : op == OP_OR_ARGS ? value : true;
      if (!settled && top.next_arg < top.node->m_args.size()) {
        node = top.node->m_args[top.next_arg++];
      } else {
        if (op == OP_NOT_ARGS) value = !value;
        open.pop_back();
      }
    }
  }
}

}  // namespace

bool dorn_metric_tag_search_evaluate_against_tags(const ast_t *tree, const dorn_metric_tagset_t *tags) {
  subject_t subject;
  subject.add(*tags);
  return evaluate(tree, subject);
}

bool dorn_metric_tag_search_evaluate_against_tags_multi(const ast_t *tree,
                                                        const dorn_metric_tagset_t *const *sets, size_t count) {
  subject_t subject;
  for (size_t i = 0; i < count; i++) subject.add(*sets[i]);
  return evaluate(tree, subject);
}

bool dorn_metric_tag_search_evaluate_against_metric_id(const ast_t *tree, const dorn_metric_id_t *id) {
  subject_t subject;
  subject.add(id->stream_tags);
  subject.plain_tags[subject.plain_count++] = {"__name", id->name};
  if (!id->check_uuid.empty()) subject.plain_tags[subject.plain_count++] = {"__check_uuid", id->check_uuid};
  return evaluate(tree, subject);
}
