#include "platform/krel/base/krel_skiplist.h"

#include <array>
#include <bit>
#include <cstdint>
#include <memory>
#include <vector>

namespace {

constexpr unsigned MAX_HEIGHT = 16;  // one node in four goes a level up: enough for 4^16 items

struct record_t;
struct index_t;

}  // namespace

struct krel_skiplist_node_t {
  record_t *record = nullptr;  // null in a head
  krel_skiplist_node_t *before = nullptr;
  unsigned index = 0;
  unsigned height = 0;
  std::unique_ptr<krel_skiplist_node_t *[]> next;

  krel_skiplist_node_t(record_t *of, unsigned in_index, unsigned levels)
      : record(of), index(in_index), height(levels), next(std::make_unique<krel_skiplist_node_t *[]>(levels)) {}
};

namespace {

using node_t = krel_skiplist_node_t;
using path_t = std::array<node_t *, MAX_HEIGHT>;

// An item and its node in each index.
struct record_t {
  void *item;
  std::vector<std::unique_ptr<node_t>> nodes;
};

struct index_t {
  krel_skiplist_compare_t compare;
  krel_skiplist_compare_t compare_key;
  node_t head;

  index_t(krel_skiplist_compare_t with_item, krel_skiplist_compare_t with_key, unsigned number)
      : compare(with_item), compare_key(with_key), head(nullptr, number, MAX_HEIGHT) {}

  // The last nodes before `sought` on each level; the result is the first node not below it.
  node_t *descend(const void *sought, krel_skiplist_compare_t with, path_t *path) const {
    node_t *at = const_cast<node_t *>(&head);
    for (unsigned level = MAX_HEIGHT; level-- > 0;) {
      while (at->next[level] != nullptr && with(sought, at->next[level]->record->item) > 0)
        at = at->next[level];
      (*path)[level] = at;
    }
    return at->next[0];
  }

  node_t *find(const void *sought, krel_skiplist_compare_t with, path_t *path) const {
    node_t *at = descend(sought, with, path);
    return at != nullptr && with(sought, at->record->item) == 0 ? at : nullptr;
  }

  void link(node_t *node) {
    path_t path;
    node_t *after = descend(node->record->item, compare, &path);
    for (unsigned level = 0; level < node->height; ++level) {
      node->next[level] = path[level]->next[level];
      path[level]->next[level] = node;
    }
    node->before = path[0];
    if (after != nullptr) after->before = node;
  }

  void unlink(node_t *node) {
    path_t path;
    descend(node->record->item, compare, &path);
    for (unsigned level = 0; level < node->height; ++level) path[level]->next[level] = node->next[level];
    if (node->next[0] != nullptr) node->next[0]->before = node->before;
  }
};

}  // namespace

struct krel_skiplist_t {
  std::vector<std::unique_ptr<index_t>> m_indexes;
  size_t m_size = 0;
  uint64_t m_random = 0x9e3779b97f4a7c15;

  unsigned random_height() {
    m_random ^= m_random << 13;
    m_random ^= m_random >> 7;
    m_random ^= m_random << 17;
    const auto levels = static_cast<unsigned>(std::countr_zero(m_random | uint64_t{1} << 62)) / 2 + 1;
    return levels < MAX_HEIGHT ? levels : MAX_HEIGHT;
  }

  index_t &primary() const { return *m_indexes.front(); }

  void add_node(record_t *record, unsigned index) {
    record->nodes.push_back(std::make_unique<node_t>(record, index, random_height()));
    m_indexes[index]->link(record->nodes.back().get());
  }

  void *remove(record_t *record) {
    const std::unique_ptr<record_t> owned(record);
    for (const auto &node : record->nodes) m_indexes[node->index]->unlink(node.get());
    --m_size;
    return record->item;
  }
};

krel_skiplist_t *krel_skiplist_alloc() {
  return std::make_unique<krel_skiplist_t>().release();
}

void krel_skiplist_set_compare(krel_skiplist_t *list, krel_skiplist_compare_t compare,
                               krel_skiplist_compare_t compare_key) {
  list->m_indexes.clear();
  list->m_indexes.push_back(std::make_unique<index_t>(compare, compare_key, 0));
}

bool krel_skiplist_add_index(krel_skiplist_t *list, krel_skiplist_compare_t compare,
                             krel_skiplist_compare_t compare_key) {
  const auto number = static_cast<unsigned>(list->m_indexes.size());
  list->m_indexes.push_back(std::make_unique<index_t>(compare, compare_key, number));
  const index_t &index = *list->m_indexes.back();
  bool good = true;
  path_t path;
  for (node_t *node = krel_skiplist_getlist(list); node != nullptr && good; node = node->next[0]) {
    good = index.find(node->record->item, compare, &path) == nullptr;
    if (good) list->add_node(node->record, number);
  }
  if (good) return true;
  for (node_t *node = krel_skiplist_getlist(list); node != nullptr; node = node->next[0])
    node->record->nodes.resize(number);
  list->m_indexes.pop_back();
  return false;
}

void krel_skiplist_destroy(krel_skiplist_t *list, krel_skiplist_free_t free_item) {
  for (node_t *node = krel_skiplist_getlist(list); node != nullptr;) {
    const std::unique_ptr<record_t> record(node->record);
    node = node->next[0];
    if (free_item != nullptr) free_item(record->item);
  }
  for (const auto &index : list->m_indexes)
    for (unsigned level = 0; level < MAX_HEIGHT; ++level) index->head.next[level] = nullptr;
  list->m_size = 0;
}

void krel_skiplist_free(krel_skiplist_t *list) {
  if (list == nullptr) return;
  krel_skiplist_destroy(list, nullptr);
  std::unique_ptr<krel_skiplist_t>{list};
}

krel_skiplist_node_t *krel_skiplist_insert(krel_skiplist_t *list, void *item) {
  path_t path;
  for (const auto &index : list->m_indexes)
    if (index->find(item, index->compare, &path) != nullptr) return nullptr;
  record_t *record = std::make_unique<record_t>(record_t{item, {}}).release();
  for (unsigned number = 0; number < list->m_indexes.size(); ++number) list->add_node(record, number);
  ++list->m_size;
  return record->nodes[0].get();
}

size_t krel_skiplist_size(const krel_skiplist_t *list) {
  return list->m_size;
}

void *krel_skiplist_find(const krel_skiplist_t *list, const void *key, krel_skiplist_node_t **node) {
  return krel_skiplist_find_compare(list, key, node, list->primary().compare_key);
}

void *krel_skiplist_find_compare(const krel_skiplist_t *list, const void *key, krel_skiplist_node_t **node,
                                 krel_skiplist_compare_t compare_key) {
  node_t *found = nullptr;
  path_t path;
  for (const auto &index : list->m_indexes) {
    if (index->compare_key != compare_key) continue;
    found = index->find(key, compare_key, &path);
    break;
  }
  if (node != nullptr) *node = found;
  return found == nullptr ? nullptr : found->record->item;
}

void *krel_skiplist_find_neighbors(const krel_skiplist_t *list, const void *key, krel_skiplist_node_t **node,
                                   krel_skiplist_node_t **before, krel_skiplist_node_t **after) {
  const index_t &index = list->primary();
  path_t path;
  node_t *at = index.descend(key, index.compare_key, &path);
  const bool equal = at != nullptr && index.compare_key(key, at->record->item) == 0;
  *before = path[0] == &index.head ? nullptr : path[0];
  *after = equal ? at->next[0] : at;
  if (node != nullptr) *node = equal ? at : nullptr;
  return equal ? at->record->item : nullptr;
}

krel_skiplist_node_t *krel_skiplist_getlist(const krel_skiplist_t *list) {
  return list->m_indexes.empty() ? nullptr : list->primary().head.next[0];
}

void krel_skiplist_next(const krel_skiplist_t *, krel_skiplist_node_t **node) {
  if (*node != nullptr) *node = (*node)->next[0];
}

void *krel_skiplist_data(const krel_skiplist_node_t *node) {
  return node->record->item;
}

void *krel_skiplist_peek(const krel_skiplist_t *list) {
  const node_t *first = krel_skiplist_getlist(list);
  return first == nullptr ? nullptr : first->record->item;
}

void *krel_skiplist_pop(krel_skiplist_t *list) {
  node_t *first = krel_skiplist_getlist(list);
  return first == nullptr ? nullptr : list->remove(first->record);
}

void krel_skiplist_remove_node(krel_skiplist_t *list, krel_skiplist_node_t *node,
                               krel_skiplist_free_t free_item) {
  void *item = list->remove(node->record);
  if (free_item != nullptr) free_item(item);
}

const char *krel_skiplist_validate(const krel_skiplist_t *list) {
  for (const auto &index : list->m_indexes) {
    size_t count = 0;
    const node_t *before = &index->head;
    for (const node_t *node = before->next[0]; node != nullptr; before = node, node = node->next[0], ++count) {
      if (node->before != before) return "a link back does not lead to the node before";
      if (node->record->nodes.size() != list->m_indexes.size()) return "an item is not in every index";
      if (node->record->nodes[index->head.index].get() != node) return "a node is not its item's";
      if (before != &index->head && index->compare(before->record->item, node->record->item) >= 0)
        return "items out of order";
    }
    if (count != list->m_size) return "an index has more or fewer items than the list";
    for (unsigned level = 1; level < MAX_HEIGHT; ++level) {
      const node_t *below = index->head.next[0];
      for (const node_t *node = index->head.next[level]; node != nullptr; node = node->next[level]) {
        if (node->height <= level) return "a node is linked above its height";
        while (below != nullptr && (below != node && below->height <= level)) below = below->next[0];
        if (below != node) return "a level skips a node that reaches it";
        below = below->next[0];
      }
      while (below != nullptr && below->height <= level) below = below->next[0];
      if (below != nullptr) return "a level ends before a node that reaches it";
    }
  }
  return nullptr;
}
