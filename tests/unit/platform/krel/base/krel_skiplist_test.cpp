#include "platform/krel/base/krel_skiplist.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <string>

namespace {

struct item_t {
  int number;
  std::string name;
};

template <typename T>
int three_way(const T &a, const T &b) {
  return a < b ? -1 : b < a;
}
int by_number(const void *a, const void *b) {
  return three_way(static_cast<const item_t *>(a)->number, static_cast<const item_t *>(b)->number);
}
int number_with_item(const void *key, const void *b) {
  return three_way(*static_cast<const int *>(key), static_cast<const item_t *>(b)->number);
}
int by_name(const void *a, const void *b) {
  return three_way(static_cast<const item_t *>(a)->name, static_cast<const item_t *>(b)->name);
}
int name_with_item(const void *key, const void *b) {
  return three_way(*static_cast<const std::string *>(key), static_cast<const item_t *>(b)->name);
}
void free_item(void *item) {
  delete static_cast<item_t *>(item);
}

class krel_skiplist : public testing::Test {
 protected:
  krel_skiplist() { krel_skiplist_set_compare(m_list, by_number, number_with_item); }
  ~krel_skiplist() override {
    krel_skiplist_destroy(m_list, free_item);
    krel_skiplist_free(m_list);
  }
  bool insert(int number, const std::string &name) {
    auto item = std::make_unique<item_t>(item_t{number, name});
    if (krel_skiplist_insert(m_list, item.get()) == nullptr) return false;
    item.release();
    return true;
  }
  krel_skiplist_t *m_list = krel_skiplist_alloc();
};

// The name is the number in another order, so that the two indexes differ.
std::string name_of(int number) {
  return std::to_string(number * 7919 % 1000);
}

TEST_F(krel_skiplist, two_orders_agree_with_maps_over_random_operations) {
  std::mt19937_64 random(8);
  std::map<int, std::string> model;
  std::map<std::string, int> names;
  ASSERT_TRUE(krel_skiplist_add_index(m_list, by_name, name_with_item));
  for (int i = 0; i < 20000; ++i) {
    const int number = static_cast<int>(random() % 1000);
    const std::string name = name_of(static_cast<int>(random() % 1000));
    switch (random() % 4) {
      case 0:
      case 1: {
        const bool fits = !model.count(number) && !names.count(name);
        ASSERT_EQ(insert(number, name), fits);
        if (fits) model[number] = name, names[name] = number;
        break;
      }
      case 2: {  // out by either order
        krel_skiplist_node_t *node;
        void *item = i % 2 ? krel_skiplist_find(m_list, &number, &node)
                           : krel_skiplist_find_compare(m_list, &name, &node, name_with_item);
        ASSERT_EQ(item != nullptr, i % 2 ? model.count(number) == 1 : names.count(name) == 1);
        ASSERT_EQ(item != nullptr, node != nullptr);
        if (node == nullptr) break;
        const item_t copy = *static_cast<item_t *>(item);
        krel_skiplist_remove_node(m_list, node, free_item);
        ASSERT_EQ(model.erase(copy.number), 1u);
        ASSERT_EQ(names.erase(copy.name), 1u);
        break;
      }
      default: {
        krel_skiplist_node_t *node, *before, *after;
        krel_skiplist_find_neighbors(m_list, &number, &node, &before, &after);
        const auto up = model.upper_bound(number);
        const auto at = model.lower_bound(number);
        ASSERT_EQ(node != nullptr, at != up);
        ASSERT_EQ(before != nullptr, at != model.begin());
        if (before != nullptr) {
          ASSERT_EQ(static_cast<item_t *>(krel_skiplist_data(before))->number, std::prev(at)->first);
        }
        ASSERT_EQ(after != nullptr, up != model.end());
        if (after != nullptr) {
          ASSERT_EQ(static_cast<item_t *>(krel_skiplist_data(after))->number, up->first);
        }
      }
    }
    ASSERT_EQ(krel_skiplist_size(m_list), model.size());
    if (i % 500 == 0) {
      ASSERT_EQ(krel_skiplist_validate(m_list), nullptr);
    }
  }
  ASSERT_EQ(krel_skiplist_validate(m_list), nullptr);

  krel_skiplist_node_t *node = krel_skiplist_getlist(m_list);
  for (const auto &[number, name] : model) {
    ASSERT_EQ(static_cast<item_t *>(krel_skiplist_data(node))->number, number);
    krel_skiplist_next(m_list, &node);
  }
  EXPECT_EQ(node, nullptr);
  krel_skiplist_find_compare(m_list, &names.begin()->first, &node, name_with_item);
  for (const auto &[name, number] : names) {
    ASSERT_EQ(static_cast<item_t *>(krel_skiplist_data(node))->name, name)
        << "next goes on in the node's order";
    krel_skiplist_next(m_list, &node);
  }
  EXPECT_EQ(node, nullptr);
}

TEST_F(krel_skiplist, an_index_comes_later_or_not_at_all) {
  for (int number = 0; number < 100; ++number) ASSERT_TRUE(insert(number, name_of(number)));
  ASSERT_TRUE(krel_skiplist_add_index(m_list, by_name, name_with_item));
  EXPECT_EQ(krel_skiplist_validate(m_list), nullptr);
  krel_skiplist_node_t *node;
  const std::string name = name_of(42);
  EXPECT_EQ(static_cast<item_t *>(krel_skiplist_find_compare(m_list, &name, &node, name_with_item))->number,
            42);

  const auto by_parity = [](const void *a, const void *b) {
    return three_way(static_cast<const item_t *>(a)->number % 2, static_cast<const item_t *>(b)->number % 2);
  };
  EXPECT_FALSE(krel_skiplist_add_index(m_list, by_parity, by_parity));
  EXPECT_EQ(krel_skiplist_validate(m_list), nullptr);
  EXPECT_TRUE(insert(1000, "fresh"));
  EXPECT_EQ(krel_skiplist_validate(m_list), nullptr);
}

TEST_F(krel_skiplist, pops_in_order) {
  EXPECT_EQ(krel_skiplist_pop(m_list), nullptr);
  for (int number : {5, 3, 9, 1, 7}) ASSERT_TRUE(insert(number, ""));
  for (int number : {1, 3, 5, 7, 9}) {
    EXPECT_EQ(static_cast<item_t *>(krel_skiplist_peek(m_list))->number, number);
    const std::unique_ptr<item_t> item(static_cast<item_t *>(krel_skiplist_pop(m_list)));
    EXPECT_EQ(item->number, number);
    EXPECT_EQ(krel_skiplist_validate(m_list), nullptr);
  }
  EXPECT_EQ(krel_skiplist_peek(m_list), nullptr);
}

TEST_F(krel_skiplist, validate_finds_items_changed_in_place) {
  for (int number = 0; number < 10; ++number) ASSERT_TRUE(insert(number, ""));
  static_cast<item_t *>(krel_skiplist_peek(m_list))->number = 50;
  EXPECT_STREQ(krel_skiplist_validate(m_list), "items out of order");
}

}  // namespace
