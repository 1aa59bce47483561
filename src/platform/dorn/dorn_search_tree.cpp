#include "platform/dorn/dorn_search_tree.h"

using ast_t = dorn_metric_tag_search_ast_t;

dorn_metric_tag_search_op_e dorn_metric_tag_search_get_op(const ast_t *tree) {
  return tree->m_op;
}

size_t dorn_metric_tag_search_get_nargs(const ast_t *tree) {
  return tree->m_args.size();
}

ast_t *dorn_metric_tag_search_get_arg(const ast_t *tree, size_t index) {
  return index < tree->m_args.size() ? tree->m_args[index] : nullptr;
}

const dorn_var_t *dorn_metric_tag_search_get_cat(const ast_t *tree) {
  return tree->m_match ? &tree->m_match->cat : nullptr;
}

const dorn_var_t *dorn_metric_tag_search_get_name(const ast_t *tree) {
  return tree->m_match ? &tree->m_match->name : nullptr;
}

bool dorn_metric_tag_search_has_hint(const ast_t *tree, std::string_view name, std::string_view *value) {
  for (auto hint = tree->m_hints.rbegin(); hint != tree->m_hints.rend(); ++hint) {
    if (hint->first != name) continue;
    if (value) *value = hint->second;
    return true;
  }
  return false;
}

dorn_metric_tag_search_ptr dorn_metric_tag_search_alloc(dorn_metric_tag_search_op_e op) {
  if (op == OP_MATCH) return nullptr;
  return dorn_metric_tag_search_ptr(std::make_unique<ast_t>(op).release());
}

dorn_metric_tag_search_ptr dorn_metric_tag_search_alloc_match(std::string_view category,
                                                              std::string_view name) {
  auto node = dorn_metric_tag_search_ptr(std::make_unique<ast_t>(OP_MATCH).release());
  node->m_match = std::make_unique<dorn_match_terms_t>();
  const auto init = [](dorn_var_t &var, std::string_view text, dorn_tag_part_e part) {
    dorn_var_kind_e kind;
    std::string val;
    size_t size = 0;
    if (!dorn_var_scan(text, part == dorn_tag_part_e::category, &kind, &val, &size) || size != text.size())
      return false;
    var.init(kind, val, part);
    return var.compile();
  };
  if (!init(node->m_match->cat, category, dorn_tag_part_e::category)) return nullptr;
  if (!init(node->m_match->name, name, dorn_tag_part_e::value)) return nullptr;
  return node;
}

bool dorn_metric_tag_search_add_arg(ast_t *tree, dorn_metric_tag_search_ptr arg) {
  if (!arg || !tree->has_room()) return false;
  tree->m_args.push_back(arg.get());
  arg.release();
  return true;
}

bool dorn_metric_tag_search_add_hint(ast_t *tree, std::string_view name, std::string_view value) {
  if (tree->m_op != OP_HINT_ARGS) return false;
  tree->m_hints.emplace_back(name, value);
  return true;
}

bool dorn_metric_tag_search_set_op(ast_t *tree, dorn_metric_tag_search_op_e op) {
  if (op == tree->m_op) return true;
  if (op == OP_MATCH || tree->m_op == OP_MATCH) return false;
  if ((op == OP_NOT_ARGS || op == OP_HINT_ARGS) && tree->m_args.size() > 1) return false;
  tree->m_op = op;
  tree->m_hints.clear();
  return true;
}

dorn_metric_tag_search_ptr dorn_metric_tag_search_ref(ast_t *tree) {
  tree->m_refs.fetch_add(1, std::memory_order_relaxed);
  return dorn_metric_tag_search_ptr(tree);
}

void dorn_metric_tag_search_free(ast_t *tree) {
  std::vector<ast_t *> dropped;
  for (ast_t *node = tree; node;) {
    if (node->m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      const std::unique_ptr<ast_t> owned(node);
      dropped.insert(dropped.end(), node->m_args.begin(), node->m_args.end());
    }
    if (dropped.empty()) return;
    node = dropped.back();
    dropped.pop_back();
  }
}

// A node of its own, yet without arguments.
static dorn_metric_tag_search_ptr clone_node(const ast_t *source) {
  auto node = dorn_metric_tag_search_ptr(std::make_unique<ast_t>(source->m_op).release());
  node->m_hints = source->m_hints;
  node->m_args.reserve(source->m_args.size());
  if (source->m_match) {
    node->m_match = std::make_unique<dorn_match_terms_t>();
    node->m_match->cat.init_copy(source->m_match->cat);
    node->m_match->name.init_copy(source->m_match->name);
  }
  return node;
}

dorn_metric_tag_search_ptr dorn_metric_tag_search_clone_lazy(const ast_t *tree) {
  dorn_metric_tag_search_ptr root = clone_node(tree);
  std::vector<std::pair<const ast_t *, ast_t *>> open{{tree, root.get()}};
  while (!open.empty()) {
    const auto [source, copy] = open.back();
    open.pop_back();
    for (const ast_t *arg : source->m_args) {
      ast_t *arg_copy = clone_node(arg).release();
      copy->m_args.push_back(arg_copy);
      if (!arg->m_args.empty()) open.emplace_back(arg, arg_copy);
    }
  }
  return root;
}

void dorn_metric_tag_search_set_udata(ast_t *tree, void *data, void (*release)(void *)) {
  tree->release_udata();
  tree->m_udata = data;
  tree->m_udata_release = release;
}

void *dorn_metric_tag_search_get_udata(const ast_t *tree) {
  return tree->m_udata;
}
