#pragma once
// Tag search: and(node, ...), or(node, ...), not(node), hint(node, name:value, ...), category:value, category.
// A tree is reference counted. It may be evaluated and read by any number of threads at once; changing it is
// for one thread that shares it with nobody. No operation recurses, so depth costs no stack.

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "platform/dorn/dorn_metric_id.h"
#include "platform/dorn/dorn_tagset.h"
#include "platform/dorn/dorn_var.h"

enum dorn_metric_tag_search_op_e {
  OP_AND_ARGS = 0,  // all arguments; none: matches nothing
  OP_OR_ARGS = 1,   // any argument
  OP_NOT_ARGS = 2,  // not the one argument
  OP_MATCH = 3,     // some tag has this category and this value
  OP_HINT_ARGS = 4  // the one argument; the hints are for whoever plans the search
};

struct dorn_metric_tag_search_ast_t;

// Bounds of what parse accepts.
constexpr size_t DORN_TAG_SEARCH_MAX_TEXT = 1u << 20;
constexpr size_t DORN_TAG_SEARCH_MAX_NODES = 65536;
constexpr size_t DORN_TAG_SEARCH_MAX_DEPTH = 4096;
constexpr size_t DORN_TAG_SEARCH_MAX_VAR = 4096;   // bytes of one variable
constexpr size_t DORN_TAG_SEARCH_MAX_PCRES = 256;  // and of their patterns together:
constexpr size_t DORN_TAG_SEARCH_MAX_PCRE_BYTES = 16 * 1024;

// Drops one reference; the last frees the tree, its arguments' references and user data. Null is allowed.
void dorn_metric_tag_search_free(dorn_metric_tag_search_ast_t *tree);
struct dorn_metric_tag_search_deleter_t {
  void operator()(dorn_metric_tag_search_ast_t *tree) const { dorn_metric_tag_search_free(tree); }
};
// Holds one reference.
using dorn_metric_tag_search_ptr =
    std::unique_ptr<dorn_metric_tag_search_ast_t, dorn_metric_tag_search_deleter_t>;

// Null on an error, *error_offset (may be null) then being the offset of the first byte of the token that does
// not fit: the length of the text when it ends too early, the variable for a broken b"..." or pattern.
dorn_metric_tag_search_ptr dorn_metric_tag_search_parse(std::string_view text, int *error_offset);
// The same, but patterns are compiled at their first use; one that does not compile then matches nothing.
dorn_metric_tag_search_ptr dorn_metric_tag_search_parse_lazy(std::string_view text, int *error_offset);

bool dorn_metric_tag_search_evaluate_against_tags(const dorn_metric_tag_search_ast_t *tree,
                                                  const dorn_metric_tagset_t *tags);
// Against the union of the sets.
bool dorn_metric_tag_search_evaluate_against_tags_multi(const dorn_metric_tag_search_ast_t *tree,
                                                        const dorn_metric_tagset_t *const *sets, size_t count);
// Against the stream tags and the tags __name (the name without tags) and __check_uuid.
bool dorn_metric_tag_search_evaluate_against_metric_id(const dorn_metric_tag_search_ast_t *tree,
                                                       const dorn_metric_id_t *id);

dorn_metric_tag_search_op_e dorn_metric_tag_search_get_op(const dorn_metric_tag_search_ast_t *tree);
size_t dorn_metric_tag_search_get_nargs(const dorn_metric_tag_search_ast_t *tree);
// Stays the tree's; null when there is no such argument.
dorn_metric_tag_search_ast_t *dorn_metric_tag_search_get_arg(const dorn_metric_tag_search_ast_t *tree,
                                                             size_t index);
// Of an OP_MATCH, else null.
const dorn_var_t *dorn_metric_tag_search_get_cat(const dorn_metric_tag_search_ast_t *tree);
const dorn_var_t *dorn_metric_tag_search_get_name(const dorn_metric_tag_search_ast_t *tree);
// True when this node carries the hint; *value (may be null) then looks into the tree. The last of a name
// counts.
bool dorn_metric_tag_search_has_hint(const dorn_metric_tag_search_ast_t *tree, std::string_view name,
                                     std::string_view *value);

// A node without arguments; op is not OP_MATCH.
dorn_metric_tag_search_ptr dorn_metric_tag_search_alloc(dorn_metric_tag_search_op_e op);
// A match of two variables in their query text ("foo*", "/x/", "b\"...\""); null when one is malformed.
dorn_metric_tag_search_ptr dorn_metric_tag_search_alloc_match(std::string_view category, std::string_view name);
// Takes the argument in. False, and the argument is freed: a match takes none, "not" and "hint" one.
bool dorn_metric_tag_search_add_arg(dorn_metric_tag_search_ast_t *tree, dorn_metric_tag_search_ptr arg);
bool dorn_metric_tag_search_add_hint(dorn_metric_tag_search_ast_t *tree, std::string_view name,
                                     std::string_view value);
// Makes an "and" an "or" and the like. False: to or from OP_MATCH, or more arguments than the new one takes.
bool dorn_metric_tag_search_set_op(dorn_metric_tag_search_ast_t *tree, dorn_metric_tag_search_op_e op);
// One more reference to the same tree.
dorn_metric_tag_search_ptr dorn_metric_tag_search_ref(dorn_metric_tag_search_ast_t *tree);
// A tree of its own, without user data; patterns not compiled yet stay so.
dorn_metric_tag_search_ptr dorn_metric_tag_search_clone_lazy(const dorn_metric_tag_search_ast_t *tree);

// Text that parses to the same tree (a node that lacks its argument prints as "or()").
std::string dorn_metric_tag_search_unparse(const dorn_metric_tag_search_ast_t *tree);
// False, with *text empty, when it would be longer than limit.
bool dorn_metric_tag_search_unparse_limit_size(const dorn_metric_tag_search_ast_t *tree, size_t limit,
                                               std::string *text);

// A pointer of the caller's on this node; release (may be null) is called when it is replaced or the node
// freed.
void dorn_metric_tag_search_set_udata(dorn_metric_tag_search_ast_t *tree, void *data, void (*release)(void *));
void *dorn_metric_tag_search_get_udata(const dorn_metric_tag_search_ast_t *tree);
