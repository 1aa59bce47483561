#include "util/concurrency/libvelmar_join.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "util/concurrency/executor.h"

namespace {

struct note_t {
  std::vector<std::string> *log;
  std::string name;
  static void complete(void *closure) {
    auto *note = static_cast<note_t *>(closure);
    note->log->push_back(note->name);
    delete note;
  }
};

TEST(libvelmar_join, completes_once_after_commit_and_the_last_count) {
  std::vector<std::string> log;
  libvelmar_join_t join = libvelmar_join_create(note_t::complete, new note_t{&log, "a"});
  libvelmar_join_raise(join, 2);
  libvelmar_join_one(join);
  libvelmar_join_one(join);
  EXPECT_TRUE(log.empty());  // the creator still holds it
  libvelmar_join_commit(join);
  EXPECT_EQ(log, std::vector<std::string>{"a"});

  libvelmar_join_commit(libvelmar_join_create(note_t::complete, new note_t{&log, "empty"}));
  EXPECT_EQ(log.back(), "empty");
}

TEST(libvelmar_join, children_complete_before_their_parent) {
  std::vector<std::string> log;
  libvelmar_join_t root = libvelmar_join_create(note_t::complete, new note_t{&log, "root"});
  libvelmar_join_t left = libvelmar_join_create_child(root, note_t::complete, new note_t{&log, "left"});
  libvelmar_join_t right = libvelmar_join_create_child(root, nullptr, nullptr);
  libvelmar_join_t leaf = libvelmar_join_create_child(right, note_t::complete, new note_t{&log, "leaf"});
  libvelmar_join_commit(root);
  libvelmar_join_commit(right);
  libvelmar_join_commit(left);
  EXPECT_EQ(log, std::vector<std::string>{"left"});
  libvelmar_join_commit(leaf);  // takes right and root with it
  EXPECT_EQ(log, (std::vector<std::string>{"left", "leaf", "root"}));
}

// What a request does: parts on many threads add children and counts, and the root must see all of it.
TEST(libvelmar_join, a_tree_over_threads_ends_once_with_everything_done) {
  util::concurrency::executor_c executor("joins", 4);
  struct request_t {
    std::atomic<int> root_done{0};
    int children_done[16] = {};  // plain: completions must be ordered before the root's
    int steps[16][8] = {};
    util::concurrency::single_barrier_c ended{1};
  };
  struct child_t {
    request_t *request;
    int index;
  };
  for (int round = 0; round < 200; ++round) {
    request_t request;
    child_t children[16];
    libvelmar_join_t root = libvelmar_join_create(
        [](void *closure) {
          auto *r = static_cast<request_t *>(closure);
          ++r->root_done;
          for (int c = 0; c < 16; ++c) {
            ASSERT_EQ(r->children_done[c], 1);
            for (const int step : r->steps[c]) ASSERT_EQ(step, 1);
          }
          r->ended.count_down();
        },
        &request);
    for (int c = 0; c < 16; ++c) {
      children[c] = {&request, c};
      libvelmar_join_raise(root, 1);  // for the job that makes the child
      executor.submit([&executor, &request, child = &children[c], root] {
        libvelmar_join_t join = libvelmar_join_create_child(
            root,
            [](void *closure) {
              auto *done = static_cast<child_t *>(closure);
              ++done->request->children_done[done->index];
            },
            child);
        for (int s = 0; s < 8; ++s) {
          libvelmar_join_raise(join, 1);
          executor.submit([&request, child, join, s] {
            ++request.steps[child->index][s];
            libvelmar_join_one(join);
          });
        }
        libvelmar_join_commit(join);
        libvelmar_join_one(root);
      });
    }
    libvelmar_join_commit(root);
    request.ended.wait();
    EXPECT_EQ(request.root_done, 1);
  }
}

}  // namespace
