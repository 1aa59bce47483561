#include "platform/krel/base/krel_hash.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/krel/base/krel_memory.h"

namespace {

void *boxed(int value) {
  return new int(value);
}
void unbox(void *value) {
  delete static_cast<int *>(value);
}

using pair_t = std::pair<uint64_t, uint64_t>;
void end_pair(void *pair) {
  static_cast<pair_t *>(pair)->first = UINT64_MAX;
  delete static_cast<pair_t *>(pair);
}

enum class kind_e { PLAIN, LOCKS, MEMORY };

class krel_hash : public testing::TestWithParam<kind_e> {
 protected:
  krel_hash() {
    switch (GetParam()) {
      case kind_e::PLAIN:
        krel_hash_init(&m_table);
        break;
      case kind_e::LOCKS:
        krel_hash_init_locks(&m_table, 10, KREL_HASH_LOCK_RW);
        break;
      case kind_e::MEMORY:
        krel_hash_init_krel_memory(&m_table, 10);
        break;
    }
  }
  ~krel_hash() override { krel_hash_destroy(&m_table, nullptr, unbox); }
  krel_hash_table m_table;
};

TEST_P(krel_hash, agrees_with_a_map_over_random_operations) {
  std::map<std::string, int> model;
  std::mt19937_64 random(4);
  for (int i = 0; i < 20000; ++i) {
    std::string key(random() % 3, '\0');
    for (char &c : key) c = static_cast<char>(random() % 20);
    switch (random() % 5) {
      case 0:
      case 1: {
        void *value = boxed(i);
        const bool stored = krel_hash_store(&m_table, key.data(), key.size(), value);
        ASSERT_EQ(stored, model.emplace(key, i).second);
        if (!stored) unbox(value);
        break;
      }
      case 2:
        ASSERT_EQ(krel_hash_replace(&m_table, key.data(), key.size(), boxed(i), nullptr, unbox),
                  model.count(key) == 1);
        model[key] = i;
        break;
      case 3:
        ASSERT_EQ(krel_hash_delete(&m_table, key.data(), key.size(), nullptr, unbox), model.erase(key) == 1);
        break;
      default: {
        const krel_memory_section_c section;
        void *value = nullptr;
        const bool found = krel_hash_retrieve(&m_table, key.data(), key.size(), &value);
        ASSERT_EQ(found, model.count(key) == 1);
        if (found) {
          ASSERT_EQ(*static_cast<int *>(value), model[key]);
        }
      }
    }
    ASSERT_EQ(krel_hash_size(&m_table), model.size());
    if (i % 5000 == 4999) {
      krel_hash_delete_all(&m_table, nullptr, unbox);
      model.clear();
    }
    if (i % 1000 != 0) continue;
    const krel_memory_section_c section;
    std::map<std::string, int> seen;
    for (krel_hash_iter_t it = {}; krel_hash_adv(&m_table, &it);)
      EXPECT_TRUE(seen.emplace(std::string(static_cast<const char *>(it.key), it.key_length),
                               *static_cast<int *>(it.value))
                      .second);
    ASSERT_EQ(seen, model);
  }
}

TEST_P(krel_hash, frees_the_key_and_value_that_go) {
  static std::vector<std::string> freed;
  freed.clear();
  const auto note = [](void *text) {
    freed.push_back(static_cast<const char *>(text));
    free(text);
  };
  char *first = strdup("first"), *key = strdup("key"), *second = strdup("second"), *key2 = strdup("key");
  ASSERT_TRUE(krel_hash_store(&m_table, key, 3, first));
  ASSERT_FALSE(krel_hash_store(&m_table, "key", 3, nullptr));
  ASSERT_TRUE(krel_hash_replace(&m_table, key2, 3, second, note, note));
  const char *value;
  ASSERT_TRUE(krel_hash_retr_str(&m_table, "key", 3, &value));
  EXPECT_STREQ(value, "second");
  ASSERT_TRUE(krel_hash_delete(&m_table, "key", 3, note, note));
  for (int i = 0; i < 100 && freed.size() < 4; ++i) krel_memory_maintenance_ex(2);
  EXPECT_EQ(freed, (std::vector<std::string>{"key", "first", "key", "second"}));
}

std::string name_of_kind(const testing::TestParamInfo<kind_e> &kind) {
  switch (kind.param) {
    case kind_e::PLAIN:
      return "plain";
    case kind_e::LOCKS:
      return "locks";
    case kind_e::MEMORY:
      break;
  }
  return "memory";
}
INSTANTIATE_TEST_SUITE_P(kinds, krel_hash, testing::Values(kind_e::PLAIN, kind_e::LOCKS, kind_e::MEMORY),
                         name_of_kind);

// Entry 0..9 are there all the time and only replaced; others come and go. Readers check that a walk meets
// each of the ten once and that values are whole.
TEST(krel_hash_threads, readers_without_locks_beside_a_writer) {
  krel_hash_table table;
  krel_hash_init_krel_memory(&table, 4);
  const auto store = [&](uint64_t key, uint64_t value) {
    krel_hash_replace(&table, &key, sizeof key, new pair_t(key, value), nullptr, end_pair);
  };
  for (uint64_t key = 0; key < 10; ++key) store(key, 0);
  std::atomic<bool> ended{false};
  std::atomic<int> walks{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 2; ++r) {
    readers.emplace_back([&] {
      krel_memory_init_thread();
      for (bool last = false; !last;) {
        last = ended;
        const krel_memory_section_c section;
        std::multiset<uint64_t> seen;
        for (krel_hash_iter_t it = {}; krel_hash_adv(&table, &it);) {
          const auto *pair = static_cast<const pair_t *>(it.value);
          uint64_t key;
          memcpy(&key, it.key, sizeof key);
          ASSERT_EQ(pair->first, key);
          if (key < 10) seen.insert(key);
        }
        ASSERT_EQ(seen.size(), 10u);
        ASSERT_EQ(std::set<uint64_t>(seen.begin(), seen.end()).size(), 10u);
        const uint64_t probe = 7;
        void *value;
        ASSERT_TRUE(krel_hash_retrieve(&table, &probe, sizeof probe, &value));
        ASSERT_EQ((static_cast<pair_t *>(value)->first), 7u);
        ++walks;
      }
      krel_memory_fini_thread();
    });
  }
  std::mt19937_64 random(1);
  for (uint64_t i = 0; (i < 20000 || walks < 20) && !testing::Test::HasFailure(); ++i) {
    store(random() % 10, i);
    const uint64_t other = 10 + random() % 300;
    if (i % 2 == 0) {
      store(other, i);
    } else {
      krel_hash_delete(&table, &other, sizeof other, nullptr, end_pair);
    }
    if (i % 64 == 0) krel_memory_maintenance_ex(1);
  }
  ended = true;
  for (std::thread &reader : readers) reader.join();
  krel_hash_destroy(&table, nullptr, end_pair);
}

TEST(krel_hash_threads, writers_of_a_locked_table) {
  krel_hash_table table;
  krel_hash_init_locks(&table, 0, KREL_HASH_LOCK_RW);
  constexpr int THREADS = 4, KEYS = 2000;
  std::vector<std::thread> threads;
  std::atomic<int> won{0};
  for (int t = 0; t < THREADS; ++t) {
    threads.emplace_back([&] {
      for (int key = 0; key < KEYS; ++key) {
        won += krel_hash_store(&table, &key, sizeof key, &won);
        void *value;
        EXPECT_TRUE(krel_hash_retrieve(&table, &key, sizeof key, &value));
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(won, KEYS);
  EXPECT_EQ(krel_hash_size(&table), static_cast<size_t>(KEYS));
  krel_hash_destroy(&table, nullptr, nullptr);
}

}  // namespace
