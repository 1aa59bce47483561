#pragma once
// An ordered list of pointers with one primary order and any number of further ones, each without equals.
// The caller guards it, and keeps the fields that orders compare as they are while the item is in.

#include <cstddef>

struct krel_skiplist_t;
struct krel_skiplist_node_t;
using krel_skiplist_compare_t = int (*)(const void *a, const void *b);  // <0, 0, >0; b is always an item
using krel_skiplist_free_t = void (*)(void *item);                      // may be null

krel_skiplist_t *krel_skiplist_alloc();
// The primary order: item with item, and key with item. Before the first insert.
void krel_skiplist_set_compare(krel_skiplist_t *list, krel_skiplist_compare_t compare,
                               krel_skiplist_compare_t compare_key);
// A further order, over the items that are in as well. False, and no index, when two of them are equal in it.
bool krel_skiplist_add_index(krel_skiplist_t *list, krel_skiplist_compare_t compare,
                             krel_skiplist_compare_t compare_key);
void krel_skiplist_destroy(krel_skiplist_t *list, krel_skiplist_free_t free_item);  // empties the list
void krel_skiplist_free(krel_skiplist_t *list);  // of a list that is empty or whose items are the caller's

// The node in the primary order, or null, with nothing done, when an equal is there in some order.
krel_skiplist_node_t *krel_skiplist_insert(krel_skiplist_t *list, void *item);
size_t krel_skiplist_size(const krel_skiplist_t *list);

// The item equal to the key, or null. *node, when asked for, is its node or null.
void *krel_skiplist_find(const krel_skiplist_t *list, const void *key, krel_skiplist_node_t **node);
// The same in the order whose key comparison is `compare_key`.
void *krel_skiplist_find_compare(const krel_skiplist_t *list, const void *key, krel_skiplist_node_t **node,
                                 krel_skiplist_compare_t compare_key);
// As find; *before and *after are the nearest nodes below and above the key, or null.
void *krel_skiplist_find_neighbors(const krel_skiplist_t *list, const void *key, krel_skiplist_node_t **node,
                                   krel_skiplist_node_t **before, krel_skiplist_node_t **after);

// The first node of the primary order; null in an empty list.
krel_skiplist_node_t *krel_skiplist_getlist(const krel_skiplist_t *list);
// Moves on in the order that the node belongs to; *node becomes null behind the last.
void krel_skiplist_next(const krel_skiplist_t *list, krel_skiplist_node_t **node);
void *krel_skiplist_data(const krel_skiplist_node_t *node);

void *krel_skiplist_peek(const krel_skiplist_t *list);  // the first item or null
void *krel_skiplist_pop(krel_skiplist_t *list);         // the same, taken out
// Takes the node's item out of every order; any of the item's nodes will do.
void krel_skiplist_remove_node(krel_skiplist_t *list, krel_skiplist_node_t *node,
                               krel_skiplist_free_t free_item);

// Checks order, links and agreement of the indexes: null when sound, else what is wrong.
const char *krel_skiplist_validate(const krel_skiplist_t *list);
