#pragma once
// Joiners: a count of outstanding sub-tasks with one completion. Joiners form a tree.
//
//   libvelmar_join_t root = libvelmar_join_create(request_done, request);
//   for each batch: {
//     libvelmar_join_t child = libvelmar_join_create_child(root, batch_done, batch);
//     libvelmar_join_raise(child, 2); start(two steps that end in libvelmar_join_one(child));
//     libvelmar_join_commit(child);
//   }
//   libvelmar_join_commit(root);
//
// A joiner is born holding 1 for its creator, so it cannot complete while work is still being started;
// commit gives that 1 back. Who holds a count may raise. When the count reaches 0, on the thread that
// took the last one:
//   1. complete(closure) runs (null is allowed). It may end the closure.
//   2. The joiner is freed.
//   3. Its parent, which the child's creation raised by one, is counted down by one.
// So a child's completion has returned before its parent can complete, and everything done before any
// libvelmar_join_one happens before the completion. After its own last count a caller must not touch the
// joiner. All operations are safe from any thread and do not block; a count taken below 0 is fatal.

#include <cstdint>

struct libvelmar_join_s;
using libvelmar_join_t = libvelmar_join_s *;
using libvelmar_join_complete_f = void (*)(void *closure);

libvelmar_join_t libvelmar_join_create(libvelmar_join_complete_f complete, void *closure);
// The caller holds a count of the parent.
libvelmar_join_t libvelmar_join_create_child(libvelmar_join_t parent, libvelmar_join_complete_f complete,
                                             void *closure);
void libvelmar_join_raise(libvelmar_join_t joiner, uint32_t amount);
void libvelmar_join_one(libvelmar_join_t joiner);
void libvelmar_join_commit(libvelmar_join_t joiner);
